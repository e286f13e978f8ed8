/* zkview.cpp - the command: options, opening a stack, the views, messages and exit statuses. */
#include <fcntl.h>
#include <nl_types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "zk_int.h"
#include "zk_msg.h"
#include "zk_trace.h"
#include "zkwalk.h"

int zk_open_stack_by_name(int debug_active, const char* debug_file, int* fildes, const char* stack_file) {
  std::array<char, ZELK_PATH_SIZE> path;
  if (fildes == nullptr)
    ZK_RETURN(ZELK_INV_PARAM3, "Called with NULL value for fildes pointer - returning %s(%d) to caller");
  if (stack_file == nullptr || *stack_file == '\0')
    ZK_RETURN(ZELK_INV_PARAM4,
              "stack_file parameter is NULL or references NULL value - returning %s(%d) to the caller");

  int result = zk_open_stack_path(debug_active, debug_file, __func__, stack_file, path, fildes);
  if (result != ZELK_SUCCESS) return result;
  ZK_TRACE("ZELK Error Stack file \"%s\" successfully opened", path.data());
  return ZELK_SUCCESS;
}

int zk_open_stack_with_fid(int debug_active, const char* debug_file, int* fildes, const char* fid, nl_catd catfd) {
  constexpr int CANDIDATES = 4;
  std::array<char, CANDIDATES* ZELK_FILE_SLOT_SIZE> stack_file_list = {};
  std::array<char, 16> ip_buf = {};
  timeval timestamp = {};
  int local_fid = 0, zelk_version = 0, location_mask = 0, facility = 0, priority = 0, ipv6_flag = 0;
  unsigned int template_id = 0;
  int local_fildes = -1;

  if (fildes == nullptr)
    ZK_RETURN(ZELK_INV_PARAM3, "Called with NULL value for fildes pointer - returning %s(%d) to caller");
  if (fid == nullptr || *fid == '\0')
    ZK_RETURN(ZELK_INV_PARAM4, "fid parameter is NULL or references NULL value - returning %s(%d) to the caller");
  if (std::strlen(fid) != ZELK_EID_LENGTH)
    ZK_RETURN(ZELK_INV_FID, "ZELK Error ID \"%s\"is not correct size\nReturning %s(%d) to the caller", fid);

  int result =
      zk_decode_eid_2(debug_active, debug_file, fid, &local_fid, &zelk_version, &location_mask, stack_file_list.data(),
                      CANDIDATES, &template_id, &facility, &priority, &timestamp, ip_buf.data(), &ipv6_flag);
  if (result <= ZELK_INV_PARAM2 && result >= ZELK_INV_PARAMCOMBO) return ZELK_FAILURE;
  if (result != ZELK_SUCCESS) return result;
  if (location_mask != ZELK_LOCATION_STACK)
    ZK_RETURN(ZELK_INV_FID, "ZELK Error ID \"%s\" not generated from an ZELK Error Stack - returning %s(%d)", fid);
  if (local_fid == 0)
    ZK_RETURN(ZELK_REMOTE_FID, "ZELK ID \"%s\" was generated remotely\nReturning %s(%d) to caller", fid);
  if (stack_file_list[0] == '\0')
    ZK_RETURN(ZELK_INV_STACKNAME, "ZELK Error ID \"%s\" yielded a NULL stack file name - returning %s(%d) to caller",
              fid);

  result = zk_scan_files_for_fid(debug_active, debug_file, fid, stack_file_list.data(), CANDIDATES, &local_fildes,
                                 nullptr, catfd);
  if (result == ZELK_INV_FID) return ZELK_FILE_MISSING;
  if (result == ZELK_SUCCESS) *fildes = local_fildes;
  return result;
}

enum {
  EXIT_REPORTED = 0,
  EXIT_HELP = 2,
  EXIT_INCOMPLETE = 10,
  EXIT_LATER_VERSION = 11,
  EXIT_UNKNOWN_OPTION = 12,
  EXIT_NO_MEMORY = 18,
  EXIT_NO_STACK = 20,
  EXIT_NOT_LOCKED = 22,
  EXIT_CORRUPT = 24,
  EXIT_EXCLUDED = 26,
  EXIT_BAD_EID = 27,
  EXIT_REMOTE = 43,
  EXIT_UNEXPECTED = 99,

  GO_ON = -1 /* from a step of main: the run is not over */
};

static constexpr size_t REPORT_BLOCK_SIZE = size_t{1}
                                            << 20; /* a stack of 16384 bytes fits, unless widths swell its report */

struct options {
  int all;
  int help;
  int dump;
  int use_fid;
  int use_file;
  int fid_only;
  int process_order;
  int relation_order;
  zk_eid_t fid;
  std::array<char, ZELK_PATH_SIZE> stack_file;
};

/* What tracing and messages need everywhere. */
struct surroundings {
  int debug_active;
  std::array<char, ZELK_PATH_SIZE> debug_file;
  nl_catd catfd;
};

/* Result code, message and status by which a step ends the run. */
struct ending {
  int result;
  int message;
  int status;
};

/* Keeps a stack or a trace file from becoming a standard stream where one is closed. What is written to such
 * a stream fails. */
static bool fill_standard_streams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
    if (fcntl(stream, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDONLY) != stream) return false;
  return true;
}

static void set_up_trace(surroundings* around) {
  int state = zk_is_debug_file_set(around->debug_file.data());
  around->debug_active =
      state == ZELK_TRACE_EXISTS ||
      (state == ZELK_TRACE_MISSING && zk_create_debug_file(around->debug_file.data()) == ZELK_SUCCESS);
}

static void open_catalog(surroundings* around) {
  std::array<char, ZELK_PATH_SIZE> catalog = {};
  zk_get_msgcat_name(catalog.data(), ZK_CATALOG_NAME);
  around->catfd = catopen(catalog.data(), NL_CAT_LOCALE);
  if (around->catfd == ZK_NO_CATALOG) around->catfd = catopen(catalog.data(), 0);
}

static int report_unexpected(const surroundings& around, const char* routine, int result) {
  zk_print_message(stderr, around.catfd, ZK_MSG_UNEXPECTED, {zk_msg_arg(routine), zk_msg_arg(result)});
  return EXIT_UNEXPECTED;
}

/* Sets `flag` for an option that may be given once; a second time is reported and counted. */
static bool take_once(const surroundings& around, int* flag, int option, int* errflag) {
  if (*flag == 0) {
    *flag = 1;
    return true;
  }
  zk_print_message(stderr, around.catfd, ZK_MSG_REPEATED, {zk_msg_arg(option)});
  ++*errflag;
  return false;
}

static int parse_options(const surroundings& around, int argc, char** argv, options* given) {
  int errflag = 0;
  int unknown = 0;
  for (int option; (option = getopt(argc, argv, "adf:hiprs:")) != -1;) {
    switch (option) {
      case 'a':
        given->all = 1;
        break;
      case 'd':
        given->dump = 1;
        break;
      case 'f':
        if (take_once(around, &given->use_fid, option, &errflag))
          std::snprintf(given->fid, sizeof given->fid, "%s", optarg);
        break;
      case 'h':
        given->help = 1;
        break;
      case 'i':
        given->fid_only = 1;
        break;
      case 'p':
        take_once(around, &given->process_order, option, &errflag);
        break;
      case 'r':
        take_once(around, &given->relation_order, option, &errflag);
        break;
      case 's':
        if (take_once(around, &given->use_file, option, &errflag))
          std::snprintf(given->stack_file.data(), given->stack_file.size(), "%s", optarg);
        break;
      default:
        zk_print_message(stderr, around.catfd, ZK_MSG_UNKNOWN_OPTION, {zk_msg_arg(optopt)});
        ++errflag;
        ++unknown;
    }
  }
  if (errflag == 0) return GO_ON;
  return unknown != 0 ? EXIT_UNKNOWN_OPTION : EXIT_EXCLUDED;
}

static int show_help(const surroundings& around) {
  zk_print_message(stdout, around.catfd, ZK_MSG_USAGE);
  zk_print_message(stdout, around.catfd, ZK_MSG_HELP, {zk_msg_arg(ZELK_STACK_DIR)});
  return EXIT_HELP;
}

/* The first rule that the options break ends the run. `-i` with `-p` or `-r` is let through: `-i` wins. */
static int check_combinations(const surroundings& around, const options& given) {
  struct rule {
    bool broken;
    char first, second;
    int message;
    int status;
  };
  const rule rules[] = {
      {!given.use_fid && !given.use_file, 'f', 's', ZK_MSG_NEEDS_STACK, EXIT_INCOMPLETE},
      {given.use_fid && given.use_file, 'f', 's', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.dump && given.relation_order, 'd', 'r', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.dump && given.process_order, 'd', 'p', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.process_order && given.relation_order, 'p', 'r', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.dump && given.fid_only, 'd', 'i', ZK_MSG_EXCLUDED, EXIT_EXCLUDED},
      {given.fid_only && !given.use_fid, 'i', 'f', ZK_MSG_NEEDS_OTHER, EXIT_INCOMPLETE},
  };
  for (const rule& row : rules) {
    if (!row.broken) continue;
    zk_print_message(stderr, around.catfd, row.message, {zk_msg_arg(row.first), zk_msg_arg(row.second)});
    zk_print_message(stdout, around.catfd, ZK_MSG_USAGE);
    return row.status;
  }
  return GO_ON;
}

static int open_stack(const surroundings& around, const options& given, int* fildes) {
  static constexpr ending BY_FID[] = {{ZELK_UNSUPPORTED, ZK_MSG_LATER_VERSION, EXIT_LATER_VERSION},
                                      {ZELK_REMOTE_FID, ZK_MSG_REMOTE, EXIT_REMOTE},
                                      {ZELK_INV_FID, ZK_MSG_NOT_A_STACK_ID, EXIT_BAD_EID},
                                      {ZELK_INV_STACKNAME, ZK_MSG_NO_STACK_NAME, EXIT_BAD_EID},
                                      {ZELK_NO_ACCESS, ZK_MSG_ID_NO_ACCESS, EXIT_NO_STACK},
                                      {ZELK_FILE_MISSING, ZK_MSG_ID_STACK_GONE, EXIT_NO_STACK}};
  static constexpr ending BY_NAME[] = {{ZELK_NO_ACCESS, ZK_MSG_STACK_NO_ACCESS, EXIT_NO_STACK},
                                       {ZELK_FILE_MISSING, ZK_MSG_STACK_MISSING, EXIT_NO_STACK}};
  const char* debug_file = around.debug_file.data();
  const char* named = given.use_fid ? given.fid : given.stack_file.data();
  int result = given.use_fid ? zk_open_stack_with_fid(around.debug_active, debug_file, fildes, given.fid, around.catfd)
                             : zk_open_stack_by_name(around.debug_active, debug_file, fildes, named);
  if (result == ZELK_SUCCESS) return GO_ON;

  std::span<const ending> endings = given.use_fid ? std::span<const ending>(BY_FID) : BY_NAME;
  for (const ending& row : endings)
    if (row.result == result) {
      zk_print_message(stderr, around.catfd, row.message, {zk_msg_arg(named)});
      return row.status;
    }
  /* The routine named has nothing to do with the failure; support staff know the text by this name. */
  return report_unexpected(around, "zk_display_recs_by_proc", result);
}

/* Ends the run for a failed view: `unexpected` lists the codes that are reported under the name `routine`;
 * others count as success. */
static int end_view(const surroundings& around, int result, std::span<const int> unexpected, const char* routine) {
  static constexpr ending ENDINGS[] = {{ZELK_LOCK, ZK_MSG_NOT_LOCKED, EXIT_NOT_LOCKED},
                                       {ZELK_FILE_CORRUPT, ZK_MSG_STACK_CORRUPT, EXIT_CORRUPT},
                                       {ZELK_NO_MEMORY, ZK_MSG_NO_MEMORY, EXIT_NO_MEMORY}};
  for (const ending& row : ENDINGS)
    if (row.result == result) {
      zk_print_message(stderr, around.catfd, row.message);
      return row.status;
    }
  for (int code : unexpected)
    if (code == result) return report_unexpected(around, routine, result);
  return GO_ON;
}

/* Runs the one view that was asked for over the open stack. */
static int report_stack(const surroundings& around, const options& given, int fildes) {
  static constexpr int READ_FAILURES[] = {ZELK_INV_PARAM5, ZELK_INV_PARAM4, ZELK_INV_PARAM3, ZELK_FAILURE};
  static constexpr int DISPLAY_FAILURES[] = {ZELK_INV_PARAM3, ZELK_FAILURE};
  constexpr int DUMP_HEADER = 0; /* the control header is for other callers of the dump */
  int debug_active = around.debug_active;
  const char* debug_file = around.debug_file.data();
  zk_proc_list_t proc_list = {};
  zk_stack_rec_t* rec_table = nullptr;
  int result = ZELK_SUCCESS;

  if (given.fid_only)
    result = zk_dump_stack(debug_active, debug_file, DUMP_HEADER, given.all, given.fid, 0, fildes, around.catfd);
  else if (given.dump)
    result = zk_dump_stack(debug_active, debug_file, DUMP_HEADER, given.all, nullptr, 0, fildes, around.catfd);
  else if (given.process_order)
    result = zk_read_stack(debug_active, debug_file, 0, fildes, around.catfd, &proc_list, nullptr);
  else
    result = zk_read_stack(debug_active, debug_file, 1, fildes, around.catfd, nullptr, &rec_table);
  int status = end_view(around, result, READ_FAILURES, "zk_read_stack"); /* also for the dump */
  if (status != GO_ON) return status;

  if (given.fid_only || given.dump) return EXIT_REPORTED;
  if (given.process_order) {
    result = zk_display_recs_by_proc(debug_active, debug_file, &proc_list, given.all, around.catfd);
    status = end_view(around, result, DISPLAY_FAILURES, "zk_display_recs_by_proc");
  } else {
    result = zk_display_recs_by_rel(debug_active, debug_file, rec_table, given.all, around.catfd);
    status = end_view(around, result, DISPLAY_FAILURES, "zk_display_recs_by_rel");
  }
  return status != GO_ON ? status : EXIT_REPORTED;
}

/* The run between opening and closing the catalog; returns the exit status. */
static int run(const surroundings& around, int argc, char** argv) {
  int debug_active = around.debug_active;
  const char* debug_file = around.debug_file.data();
  options given = {};
  int fildes = -1;

  if (argc < 2) {
    zk_print_message(stderr, around.catfd, ZK_MSG_NO_OPTIONS);
    zk_print_message(stderr, around.catfd, ZK_MSG_USAGE);
    return EXIT_INCOMPLETE;
  }
  int status = parse_options(around, argc, argv, &given);
  if (status != GO_ON) return status;
  if (given.help) return show_help(around);
  status = check_combinations(around, given);
  if (status != GO_ON) return status;
  if (!given.process_order && !given.relation_order && !given.dump) given.relation_order = 1;

  ZK_TRACE_AS("main(zkview)",
              "Input:\nZELK ID %s\nZELK Error Stack Name %s\nReport Record Only Flag %d\n"
              "Dump File Contents Flag %d\n",
              given.fid, given.stack_file.data(), given.fid_only, given.dump);
  status = open_stack(around, given, &fildes);
  if (status != GO_ON) return status;
  status = report_stack(around, given, fildes);
  close(fildes);
  return status;
}

int main(int argc, char** argv) {
  static std::array<char, REPORT_BLOCK_SIZE> report_block;
  surroundings around = {};
  around.catfd = ZK_NO_CATALOG;

  if (!fill_standard_streams()) return report_unexpected(around, "open", errno);
  zk_buffer_report(report_block.data(), report_block.size());
  set_up_trace(&around);
  open_catalog(&around);

  int status = run(around, argc, argv);
  int write_error = zk_flush_report();
  if (write_error != 0 && (status == EXIT_REPORTED || status == EXIT_HELP))
    status = report_unexpected(around, "fflush", write_error);
  if (around.catfd != ZK_NO_CATALOG) catclose(around.catfd);
  return status;
}
