/* SPDX-License-Identifier: MIT */
/* zkrecord.cpp - the command that records an incident for a script. */
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <fstream>
#include <string_view>
#include <vector>

#include "description.h"
#include "qx_record.h"
#include "tool.h"
#include "zk_eid_layout.h"
#include "zk_record_image.h"
#include "zk_recorder.h"

static constexpr char NAME[] = "zkrecord";
static constexpr char DEFAULT_SIZE[] = "16384"; /* bytes of a stack that is made */

/* What the command line asks for; what is empty or 0 was not given. */
struct request_t {
  std::string stack, format;
  std::vector<std::string> operands; /* of the format */
  description_t description;
  std::string cause, details, dump, process, file, version, product, message, catalog;
  int32_t process_id, line, message_set, message_number;
  int32_t new_size; /* of a stack that may be made */
  bool is_quiet;
};

/* Says on standard error why nothing, or not all, was done. Returns TOOL_FAILED. */
static int fail(const std::string& what, const std::string& reason) {
  return tool_fail(NAME, what, reason);
}

/* ---- The command line -------------------------------------------------------------------------------------------- */

/* Takes a whole number in plain decimal. CLI11 would take "010" for 8. */
static bool take_number(std::string_view text, int32_t low, int32_t high, int32_t* number) {
  const char* const behind = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), behind, *number);
  const bool is_padded = text.size() > 1 && text[0] == '0';
  return error == std::errc{} && end == behind && !is_padded && *number >= low && *number <= high;
}

/* What CLI11 asks of a value: a number, or anything at all. */
static auto number_from(int32_t low, int32_t high) {
  return [low, high](const std::string& text) {
    int32_t number = 0;
    if (take_number(text, low, high, &number)) return std::string();
    return message_text(TOOL_MSG_NOT_A_NUMBER, {text, std::to_string(low), std::to_string(high)});
  };
}
static std::string not_empty(const std::string& text) {
  return text.empty() ? message_text(TOOL_MSG_EMPTY) : "";
}

/* Takes CATALOG:SET:NUMBER apart. */
static bool take_message(request_t* request) {
  const std::string_view all = request->message;
  const size_t second = all.rfind(':');
  const size_t first = second != all.npos && second > 0 ? all.rfind(':', second - 1) : all.npos;
  if (first == all.npos || first == 0) return false;
  request->catalog = all.substr(0, first);
  return take_number(all.substr(first + 1, second - first - 1), 1, INT32_MAX, &request->message_set) &&
         take_number(all.substr(second + 1), 1, INT32_MAX, &request->message_number);
}

/* Whether `text` is an Error ID in all its fields. */
static bool is_eid(const std::string& text) {
  if (text.size() != ZELK_EID_LENGTH || text.find_first_not_of(base64_table) != text.npos) return false;
  zk_eid_parts_t parts;
  std::memcpy(&parts, text.data(), sizeof parts);
  const std::string header(1, parts.header);
  const char type = parts.address[ADDR_CODE_WIDTH];
  int version, location, facility, priority;
  unsigned int label;
  timeval time;
  if (type != IPV4_TYPE && type != IPV6_TYPE) return false;
  if (zk_conv_base_64_hdr(0, nullptr, header.c_str(), &version, &location) != ZELK_SUCCESS) return false;
  if (zk_conv_base_64_time(0, nullptr, parts.time, &time) != ZELK_SUCCESS) return false;
  if (location == ZELK_LOCATION_TEMPLATE) return zk_conv_base_64_templ(0, nullptr, parts.entry, &label) == ZELK_SUCCESS;
  return location == ZELK_LOCATION_STACK ||
         zk_conv_base_64_selector(0, nullptr, parts.entry, &facility, &priority) == ZELK_SUCCESS;
}

/* Gives each option an argument of its own, and its value another one, so that CLI11 takes the command line as GNU's
 * getopt does: options end at STACK, a value may be empty ("--details=") or look like an option, and a size is only what
 * is attached to -C. Returns the index of what follows the options. */
static int split_options(const CLI::App& app, int argc, char** argv, std::vector<std::string>* options) {
  int next = std::min(1, argc);
  /* Puts an option; false when it takes no value. */
  auto put = [&](const std::string& name, const char* value) {
    const CLI::Option* const option = app.get_option_no_throw(name);
    const bool takes_value = option != nullptr && option->get_items_expected_min() > 0;
    options->push_back(name);
    if (!takes_value) return false;
    if (option->check_sname("C") && value == nullptr) value = DEFAULT_SIZE;
    if (value != nullptr)
      options->push_back(value);
    else if (next + 1 < argc)
      options->push_back(argv[++next]);
    return true;
  };

  for (; next < argc && argv[next][0] == '-' && argv[next][1] != '\0'; ++next) {
    const char* const argument = argv[next];
    if (std::strcmp(argument, "--") == 0) return next + 1;
    if (argument[1] == '-') {
      const char* const equals = std::strchr(argument, '=');
      const std::string name = equals != nullptr ? std::string(argument, equals) : argument;
      if (!put(name, equals != nullptr ? equals + 1 : nullptr)) options->back() = argument;
      continue;
    }
    for (const char* letter = argument + 1; *letter != '\0'; ++letter) {
      const char* value = letter[1] != '\0' ? letter + 1 : nullptr;
      if (*letter == 'C' && value != nullptr && *value == '=') ++value;
      if (put({'-', *letter}, value)) break;
    }
  }
  return next;
}

static void add_options(CLI::App* app, request_t* request) {
  auto add = [&](const char* names, auto* value, const char* type, tool_message_t meaning) {
    return app->add_option(names, *value, message_text(meaning, {ZELK_STACK_DIR}))->type_name(type);
  };
  app->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  add("STACK", &request->stack, "", TOOL_MSG_RECORD_STACK)->required()->check(not_empty);
  add("FORMAT", &request->format, "", TOOL_MSG_RECORD_FORMAT)->required();
  add("ARGUMENT", &request->operands, "", TOOL_MSG_RECORD_ARGUMENT);
  add("-c,--cause", &request->cause, "ID", TOOL_MSG_RECORD_CAUSE)->check([](const std::string& text) {
    return is_eid(text) ? std::string() : message_text(TOOL_MSG_NOT_AN_EID, {text});
  });
  add("-d,--details", &request->details, "TEXT", TOOL_MSG_RECORD_DETAILS);
  add("-D,--dump", &request->dump, "FILE", TOOL_MSG_RECORD_DUMP)->check(not_empty);
  add("-p,--process", &request->process, "NAME", TOOL_MSG_RECORD_PROCESS)->check(not_empty);
  add("--pid", &request->process_id, "N", TOOL_MSG_RECORD_PID)->check(number_from(1, INT32_MAX));
  add("--file", &request->file, "NAME", TOOL_MSG_RECORD_FILE);
  add("--line", &request->line, "N", TOOL_MSG_RECORD_LINE)->check(number_from(0, INT32_MAX));
  add("--file-version", &request->version, "TEXT", TOOL_MSG_RECORD_FILE_VERSION);
  add("--product", &request->product, "TEXT", TOOL_MSG_RECORD_PRODUCT);
  add("-m,--message", &request->message, "CATALOG:SET:NUMBER", TOOL_MSG_RECORD_MESSAGE)->check(not_empty);
  add("-C,--create", &request->new_size, "[=SIZE]", TOOL_MSG_RECORD_CREATE)
      ->check(number_from(ZK_STACK_SIZE_MIN, ZK_STACK_SIZE_MAX));
  app->add_flag("-q,--quiet", request->is_quiet, message_text(TOOL_MSG_RECORD_QUIET))->disable_flag_override();
}

/* Takes the command line, all of which is checked before anything is made. Returns the exit status where that ends the
 * run. */
static std::optional<int> take_command_line(int argc, char** argv, request_t* request) {
  CLI::App app(message_text(TOOL_MSG_RECORD_ABOUT), NAME);
  add_options(&app, request);
  std::vector<std::string> options = {NAME};
  const int stack = split_options(app, argc, argv, &options);
  const int operands = std::min(stack + 2, argc); /* they are not for CLI11: it takes a text in brackets for a list */
  auto is_like_option = [](const char* text) { return *text == '-'; };
  if (std::any_of(argv + stack, argv + operands, is_like_option)) options.push_back("--");
  options.insert(options.end(), argv + stack, argv + operands);
  std::vector<char*> arguments(options.size());
  std::transform(options.begin(), options.end(), arguments.begin(), [](std::string& option) { return option.data(); });

  if (auto status = tool_parse(&app, static_cast<int>(arguments.size()), arguments.data())) return status;
  request->operands.assign(argv + operands, argv + argc);
  if (!request->message.empty() && !take_message(request))
    return tool_misuse(NAME, "--message: " + message_text(TOOL_MSG_NOT_A_MESSAGE, {request->message}));
  const std::string problem = take_description(request->format, &request->operands, &request->description);
  if (!problem.empty()) return tool_misuse(NAME, "FORMAT: " + problem);
  return {};
}

/* ---- What is recorded -------------------------------------------------------------------------------------------- */

struct process_t {
  std::string name;
  int32_t id;
  int32_t parent;
};

/* Looks a running process up. False when there is none of that number. */
static bool look_up_process(int32_t id, process_t* process) {
  std::ifstream file("/proc/" + std::to_string(id) + "/stat");
  std::string stat; /* number (name) state parent ... */
  std::getline(file, stat, '\0');
  const size_t open = stat.find('(');
  const size_t close = stat.rfind(')');
  int32_t parent = 0;
  if (open == stat.npos || close == stat.npos || std::sscanf(stat.c_str() + close + 1, " %*c %d", &parent) != 1)
    return false;
  /* A process whose parent is out of sight counts as one that was left to process 1. */
  *process = {.name = stat.substr(open + 1, close - open - 1), .id = id, .parent = parent > 0 ? parent : 1};
  return true;
}

/* The process that the incident is recorded for. One that has ended is taken for a child of the caller. */
static process_t recorded_process(const request_t& request) {
  process_t caller = {.name = NAME, .id = getppid(), .parent = 1};
  look_up_process(caller.id, &caller);
  process_t process = caller;
  if (request.process_id != 0 && !look_up_process(request.process_id, &process))
    process = {.name = caller.name, .id = request.process_id, .parent = caller.id};
  if (!request.process.empty()) process.name = request.process;
  return process;
}

/* Reads details from standard input, less one newline at their end. More than is ever recorded is read, so that what
 * writes a little too much can end in peace. */
static bool read_details(std::string* details) {
  std::string text(65536, '\0');
  text.resize(zk_read_on(STDIN_FILENO, text.data(), text.size()));
  const bool is_read = errno == 0;
  if (text.ends_with('\n')) text.pop_back();
  for (char& character : text)
    if (character == '\0') character = '?'; /* would end them */
  *details = text;
  return is_read;
}

/* The details with a last line that names the dump file; where all of that does not fit, they are cut before it. */
static std::string with_dump_line(zk_incident_t incident, std::string details, const std::string& name) {
  std::string line = "dump file  " + name;
  if (details.ends_with('\n')) details.pop_back();
  zk_record_image_t image;
  incident.details = "";
  if (zk_make_record_image(incident, ZK_REC_LISTED_MAX, &image) != ZELK_SUCCESS) return line;
  const size_t details_pos = image.size - 1; /* they come last */
  incident.details = details.c_str();
  if (line.size() + 1 >= ZK_REC_LISTED_MAX ||
      zk_make_record_image(incident, ZK_REC_LISTED_MAX - (line.size() + 1), &image) != ZELK_SUCCESS)
    return line;
  const std::string kept = image.bytes.data() + details_pos;
  return kept.empty() ? line : kept + "\n" + line;
}

/* Copies the dump file. Returns the name to record: that of the copy or, where none can be made, its own. */
static std::string preserve_dump(const tool_trace_t& trace, const request_t& request, const process_t& process) {
  setenv("ZELKPNAME", process.name.c_str(), 0);
  std::array<char, ZELK_DUMP_NAME_SIZE> kept = {};
  zk_make_dump_file_copy(trace.active, trace.file.data(), request.dump.c_str(), kept.data());
  return kept[0] != '\0' ? kept.data() : request.dump;
}

/* ---- Recording --------------------------------------------------------------------------------------------------- */

/* What a result of the recorder means to the user; `damage` is that of a damaged stack. */
static std::string reason_of(int result, const zk_damage_t& damage) {
  static constexpr struct {
    int result;
    tool_message_t reason;
  } REASONS[] = {{ZELK_DIR_NO_ACCESS, TOOL_MSG_DIRECTORY_NO_ACCESS},
                 {ZELK_DIR_MISSING, TOOL_MSG_DIRECTORY_MISSING},
                 {ZELK_READ_ONLY, TOOL_MSG_READ_ONLY},
                 {ZELK_NO_SPACE, TOOL_MSG_NO_SPACE},
                 {ZELK_NO_MEMORY, TOOL_MSG_NO_MEMORY},
                 {ZELK_TOO_MANY, TOOL_MSG_TOO_MANY_OR_QUOTA},
                 {ZELK_FILE_MISSING, TOOL_MSG_NO_FILE},
                 {ZELK_NO_ACCESS, TOOL_MSG_NO_ACCESS},
                 {ZELK_LOCK, TOOL_MSG_NOT_LOCKED},
                 {ZELK_INV_RECLEN, TOOL_MSG_TOO_LONG_INCIDENT}};
  if (result == ZELK_FILE_CORRUPT)
    return message_text(TOOL_MSG_DAMAGED_OR_NO_STACK, {damage.reason, std::to_string(damage.offset)});
  for (const auto& row : REASONS)
    if (row.result == result) return message_text(row.reason);
  return message_text(TOOL_MSG_NOT_OPENED);
}

/* Opens the stack, and makes it before where it is missing and may be made. */
static int open_recorder(const tool_trace_t& trace, const request_t& request, zk_recorder_t** recorder,
                         zk_damage_t* damage) {
  const char* const name = request.stack.c_str();
  if (request.new_size != 0) {
    const int result = zk_create_stack(trace.active, trace.file.data(), name, request.new_size);
    if (result != ZELK_SUCCESS && result != ZELK_FILE_EXIST) return result;
  }
  return zk_open_recorder_or_say({trace.active, trace.file.data(), "zk_open_recorder"}, name, recorder, damage);
}

static int record(const tool_trace_t& trace, request_t* request) {
  if (request->details == "-" && !read_details(&request->details))
    return fail(message_text(TOOL_MSG_STANDARD_INPUT), std::strerror(errno));
  if (!request->dump.empty() && access(request->dump.c_str(), F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR))
    return fail(request->dump, std::strerror(errno));
  zk_recorder_t* recorder = nullptr;
  zk_damage_t damage = {};
  int result = open_recorder(trace, *request, &recorder, &damage);
  if (result != ZELK_SUCCESS) return fail(request->stack, reason_of(result, damage));

  const process_t process = recorded_process(*request);
  const std::vector<cu_error_arg_t>& arguments = request->description.arguments;
  zk_incident_t incident = {.process_name = process.name.c_str(),
                            .process_id = process.id,
                            .parent_id = process.parent,
                            .thread_id = process.id,
                            .detecting_file = request->file.c_str(),
                            .file_version = request->version.c_str(),
                            .product = request->product.c_str(),
                            .line = request->line,
                            .catalog = request->catalog.c_str(),
                            .message_set = request->message_set,
                            .message_number = request->message_number,
                            .default_message = request->description.text.c_str(),
                            .arguments = arguments.data(),
                            .argument_count = static_cast<uint32_t>(arguments.size()),
                            .details = nullptr,
                            .associated_eid = request->cause.c_str()};
  if (!request->dump.empty())
    request->details = with_dump_line(incident, request->details, preserve_dump(trace, *request, process));
  incident.details = request->details.c_str();
  zk_eid_t eid;
  result = zk_record_incident(trace.active, trace.file.data(), recorder, &incident, eid);
  damage = zk_recorder_damage(recorder);
  zk_close_recorder(recorder);
  if (result != ZELK_SUCCESS) return fail(request->stack, reason_of(result, damage));
  if (request->is_quiet) return TOOL_DONE;
  if (std::puts(eid) == EOF || std::fflush(stdout) != 0)
    return fail(message_text(TOOL_MSG_STANDARD_OUTPUT),
                message_text(TOOL_MSG_ID_NOT_WRITTEN, {eid, std::strerror(errno)}));
  return TOOL_DONE;
}

int main(int argc, char** argv) {
  const tool_trace_t trace = tool_start();
  request_t request = {};
  if (std::optional<int> status = take_command_line(argc, argv, &request)) return *status;
  return record(trace, &request);
}
