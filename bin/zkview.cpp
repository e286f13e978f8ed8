/* SPDX-License-Identifier: MIT */
/* zkview.cpp - the command: its options, its views, and what ends it with which message and exit status. */

#include <algorithm>
#include <array>
#include <csignal>
#include <optional>
#include <span>

#include "zk_int.h"
#include "zk_io.h"
#include "zk_msg.h"
#include "zk_trace.h"
#include "zkstatus.h"

/* Holds the report of any stack whose texts ask for no widths. */
static constexpr size_t REPORT_BLOCK_SIZE = 1024 * 1024;

struct options_t {
  bool all;
  bool help;
  bool dump;
  bool use_fid;
  bool use_file;
  bool fid_only;
  bool process_order;
  bool relation_order;
  zk_eid_t fid;
  std::array<char, ZELK_PATH_SIZE> stack_file;
};

/* What every step of the run needs: the trace pair and the message catalog. */
struct context_t {
  int debug_active;
  std::array<char, ZELK_PATH_SIZE> debug_file;
  nl_catd catfd;
};

/* Result code that ends the run, with its message and exit status. */
struct ending_t {
  int result;
  int message;
  int status;
};

static void set_up_trace(context_t* context) {
  int state = zk_is_debug_file_set(context->debug_file.data());
  const bool is_made = state == ZELK_TRACE_MISSING && zk_create_debug_file(context->debug_file.data()) == ZELK_SUCCESS;
  context->debug_active = state == ZELK_TRACE_EXISTS || is_made;
}

static int report_unexpected(const context_t& context, const char* routine, int result) {
  zk_print_message(stderr, context.catfd, ZK_MSG_UNEXPECTED, {zk_msg_arg(routine), zk_msg_arg(result)});
  return EXIT_UNEXPECTED;
}

/* Reports a result that ends the run; one that is not among `endings` is unexpected. `named` is the stack, where the
 * message says it. */
static int report_ending(const context_t& context, std::span<const ending_t> endings, int result, const char* named,
                         const char* routine) {
  const auto ending = std::ranges::find(endings, result, &ending_t::result);
  if (ending == endings.end()) return report_unexpected(context, routine, result);
  zk_print_message(stderr, context.catfd, ending->message, {zk_msg_arg(named)});
  return ending->status;
}

/* ---- Options ------------------------------------------------------------------------------------------------------- */

/* The flag that an option sets, and whether the option may be given a second time. */
struct option_t {
  int letter;
  bool options_t::*flag;
  bool is_repeatable;
};
static constexpr option_t OPTIONS[] = {{'a', &options_t::all, true},
                                       {'d', &options_t::dump, true},
                                       {'f', &options_t::use_fid, false},
                                       {'h', &options_t::help, true},
                                       {'i', &options_t::fid_only, true},
                                       {'p', &options_t::process_order, false},
                                       {'r', &options_t::relation_order, false},
                                       {'s', &options_t::use_file, false}};

/* Each step of the run from here on gives the exit status when it ends the run. */

static std::optional<int> parse_options(const context_t& context, int argc, char** argv, options_t* given) {
  std::optional<int> status;
  for (int letter; (letter = getopt(argc, argv, "adf:hiprs:")) != -1;) {
    const option_t* option = std::ranges::find(OPTIONS, letter, &option_t::letter);
    if (option == std::end(OPTIONS)) {
      zk_print_message(stderr, context.catfd, ZK_MSG_UNKNOWN_OPTION, {zk_msg_arg(optopt)});
      status = EXIT_UNKNOWN_OPTION;
    } else if (given->*option->flag && !option->is_repeatable) {
      zk_print_message(stderr, context.catfd, ZK_MSG_REPEATED, {zk_msg_arg(letter)});
      if (!status) status = EXIT_EXCLUDED;
    } else {
      given->*option->flag = true;
      if (letter == 'f') std::snprintf(given->fid, sizeof given->fid, "%s", optarg);
      if (letter == 's') std::snprintf(given->stack_file.data(), given->stack_file.size(), "%s", optarg);
    }
  }
  return status;
}

static int show_help(const context_t& context) {
  zk_print_message(stdout, context.catfd, ZK_MSG_USAGE);
  zk_print_message(stdout, context.catfd, ZK_MSG_HELP, {zk_msg_arg(ZELK_STACK_DIR)});
  return EXIT_HELP;
}

/* The first rule that the options break ends the run. `-i` with `-p` or `-r` is let through: `-i` wins. */
static std::optional<int> check_combinations(const context_t& context, const options_t& given) {
  struct rule_t {
    bool is_broken;
    char first, second;
    int message;
    int status;
  };
  const rule_t rules[] = {
      {!given.use_fid && !given.use_file, 'f', 's', ZK_MSG_NEEDS_STACK, EXIT_INCOMPLETE},
      {given.use_fid && given.use_file, 'f', 's', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.dump && given.relation_order, 'd', 'r', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.dump && given.process_order, 'd', 'p', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.process_order && given.relation_order, 'p', 'r', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.dump && given.fid_only, 'd', 'i', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.fid_only && !given.use_fid, 'i', 'f', ZK_MSG_NEEDS_OTHER, EXIT_INCOMPLETE},
  };
  for (const rule_t& rule : rules) {
    if (!rule.is_broken) continue;
    zk_print_message(stderr, context.catfd, rule.message, {zk_msg_arg(rule.first), zk_msg_arg(rule.second)});
    zk_print_message(stdout, context.catfd, ZK_MSG_USAGE);
    return rule.status;
  }
  return {};
}

/* ---- The stack ----------------------------------------------------------------------------------------------------- */

static std::optional<int> open_stack(const context_t& context, const options_t& given, int* fildes) {
  static constexpr ending_t BY_FID[] = {{ZELK_UNSUPPORTED, ZK_MSG_LATER_VERSION, EXIT_LATER_VERSION},
                                        {ZELK_REMOTE_FID, ZK_MSG_REMOTE, EXIT_REMOTE},
                                        {ZELK_INV_FID, ZK_MSG_NOT_A_STACK_ID, EXIT_BAD_EID},
                                        {ZELK_INV_STACKNAME, ZK_MSG_NO_STACK_NAME, EXIT_BAD_EID},
                                        {ZELK_NO_ACCESS, ZK_MSG_ID_NO_ACCESS, EXIT_NO_STACK},
                                        {ZELK_FILE_MISSING, ZK_MSG_ID_STACK_GONE, EXIT_NO_STACK}};
  static constexpr ending_t BY_NAME[] = {{ZELK_NO_ACCESS, ZK_MSG_STACK_NO_ACCESS, EXIT_NO_STACK},
                                         {ZELK_FILE_MISSING, ZK_MSG_STACK_MISSING, EXIT_NO_STACK}};
  const char* debug_file = context.debug_file.data();
  const char* named = given.use_fid ? given.fid : given.stack_file.data();
  int result = given.use_fid ? zk_open_stack_with_fid(context.debug_active, debug_file, fildes, named, context.catfd)
                             : zk_open_stack_by_name(context.debug_active, debug_file, fildes, named);
  if (result == ZELK_SUCCESS) return {};

  std::span<const ending_t> endings = given.use_fid ? std::span<const ending_t>(BY_FID) : BY_NAME;
  /* The routine named has nothing to do with the failure; support staff know the text by this name. */
  return report_ending(context, endings, result, named, "zk_display_recs_by_proc");
}

/* Tells what the result of a view's step means; an unexpected one is reported under the name `routine`. */
static std::optional<int> check_view(const context_t& context, int result, const char* routine) {
  static constexpr ending_t ENDINGS[] = {{ZELK_LOCK, ZK_MSG_NOT_LOCKED, EXIT_NOT_LOCKED},
                                         {ZELK_FILE_CORRUPT, ZK_MSG_STACK_CORRUPT, EXIT_CORRUPT},
                                         {ZELK_NO_MEMORY, ZK_MSG_NO_MEMORY, EXIT_NO_MEMORY}};
  if (result == ZELK_SUCCESS) return {};
  return report_ending(context, ENDINGS, result, "", routine);
}

/* Runs the one view that was asked for over the open stack. */
static int report_stack(const context_t& context, const options_t& given, int fildes) {
  constexpr int DUMP_HEADER = 0; /* the control header is for other callers of the dump */
  const int debug_active = context.debug_active;
  const char* debug_file = context.debug_file.data();
  zk_proc_list_t proc_list = {};
  zk_stack_rec_t* rec_table = nullptr;
  int result = ZELK_SUCCESS;

  if (given.fid_only || given.dump)
    result = zk_dump_stack(debug_active, debug_file, DUMP_HEADER, given.all, given.fid_only ? given.fid : nullptr, 0,
                           fildes, context.catfd);
  else
    result = zk_read_stack(debug_active, debug_file, given.process_order ? 0 : 1, fildes, context.catfd, &proc_list,
                           &rec_table);
  std::optional<int> status = check_view(context, result, "zk_read_stack"); /* also for the dump */
  if (status || given.fid_only || given.dump) return status.value_or(EXIT_REPORTED);

  result = given.process_order ? zk_display_recs_by_proc(debug_active, debug_file, &proc_list, given.all, context.catfd)
                               : zk_display_recs_by_rel(debug_active, debug_file, rec_table, given.all, context.catfd);
  const char* display = given.process_order ? "zk_display_recs_by_proc" : "zk_display_recs_by_rel";
  return check_view(context, result, display).value_or(EXIT_REPORTED);
}

/* ---- The run ------------------------------------------------------------------------------------------------------- */

/* The run between opening and closing the catalog. */
static int run(const context_t& context, int argc, char** argv) {
  options_t given = {};
  int fildes = -1;

  if (argc < 2) {
    zk_print_message(stderr, context.catfd, ZK_MSG_NO_OPTIONS);
    zk_print_message(stderr, context.catfd, ZK_MSG_USAGE);
    return EXIT_INCOMPLETE;
  }
  if (std::optional<int> status = parse_options(context, argc, argv, &given)) return *status;
  if (given.help) return show_help(context);
  if (std::optional<int> status = check_combinations(context, given)) return *status;
  if (!given.process_order && !given.relation_order && !given.dump) given.relation_order = true;

  const zk_trace_t trace = {context.debug_active, context.debug_file.data(), "main(zkview)"};
  zk_trace(trace,
           "Input:\nZELK ID %s\nZELK Error Stack Name %s\nReport Record Only Flag %d\n"
           "Dump File Contents Flag %d\n",
           given.fid, given.stack_file.data(), given.fid_only, given.dump);
  if (std::optional<int> status = open_stack(context, given, &fildes)) return *status;
  int status = report_stack(context, given, fildes);
  close(fildes);
  return status;
}

int main(int argc, char** argv) {
  static std::array<char, REPORT_BLOCK_SIZE> report_block;
  static context_t context = {.debug_active = 0, .debug_file = {}, .catfd = ZK_NO_CATALOG};

  std::signal(SIGXFSZ, SIG_IGN); /* a file size limit is one more way in which writing fails */
  if (!zk_fill_standard_streams()) return report_unexpected(context, "open", errno);
  zk_buffer_report(report_block.data(), report_block.size());
  set_up_trace(&context);
  std::array<char, ZELK_PATH_SIZE> catalog;
  context.catfd = zk_open_catalog(zk_get_msgcat_name(catalog.data(), ZK_CATALOG_NAME));

  int status = run(context, argc, argv);
  int write_error = zk_flush_report();
  if (write_error != 0 && (status == EXIT_REPORTED || status == EXIT_HELP))
    status = report_unexpected(context, "fflush", write_error);
  zk_close_catalog(context.catfd);
  return status;
}
