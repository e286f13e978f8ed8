/* SPDX-License-Identifier: MIT */
/* zkrecord.cpp - the command that records an incident for a script. */

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "command.h"
#include "description.h"
#include "lock_wait.h"
#include "options.h"
#include "qx_record.h"
#include "text.h"
#include "zk_eid_layout.h"
#include "zk_record.h"
#include "zk_record_image.h"
#include "zk_recorder.h"
#include "zk_stack_file.h"

static constexpr char NAME[] = "zkrecord";
static constexpr size_t CAUSE_KEPT_MIN = 200;   /* bytes of a cause that is none, before an argument is cut for them */
static constexpr size_t DUMP_KEPT_MIN = 400;    /* the same of the name of a dump file */
static constexpr char DEFAULT_SIZE[] = "16384"; /* bytes of a stack that is made */

/* What the command line asks for; what is empty or 0 was not given. */
struct request_t {
  std::string stack, format;
  std::vector<std::string> operands; /* of the format */
  description_t description;
  std::string cause, details, dump, process, file, version, product, message, catalog;
  int32_t process_id, line, message_set, message_number;
  int32_t new_size; /* of a stack that may be made */
  bool is_text;     /* the format is one */
  bool is_quiet;
};

/* Says on standard error why nothing, or not all, was done. Returns STATUS_FAILED. */
static int fail(const std::string& what, const std::string& reason) {
  return report_failure(NAME, what, reason);
}

/* ---- The command line -------------------------------------------------------------------------------------------- */

/* Parses CATALOG:SET:NUMBER. */
static bool parse_message(request_t* request) {
  const std::string& all = request->message;
  const size_t second = all.rfind(':');
  const size_t first = second != std::string::npos && second > 0 ? all.rfind(':', second - 1) : std::string::npos;
  if (first == std::string::npos || first == 0) return false;
  request->catalog = all.substr(0, first);
  return parse_number(all.substr(first + 1, second - first - 1), 1, INT32_MAX, &request->message_set) &&
         parse_number(all.substr(second + 1), 1, INT32_MAX, &request->message_number);
}

/* Whether `text` is an Error ID in all its fields. */
static bool is_eid(const std::string& text) {
  if (text.size() != ZELK_EID_LENGTH || text.find_first_not_of(base64_table) != text.npos) return false;
  zk_eid_parts_t parts;
  std::memcpy(&parts, text.data(), sizeof parts);
  const std::string header(1, parts.header);
  const char type = parts.address[ZK_ADDR_CODE_WIDTH];
  int version, location, facility, priority;
  unsigned int label;
  timeval time;
  if (type != ZK_IPV4_TYPE && type != ZK_IPV6_TYPE) return false;
  if (zk_conv_base_64_hdr(0, nullptr, header.c_str(), &version, &location) != ZELK_SUCCESS) return false;
  if (zk_conv_base_64_time(0, nullptr, parts.time, &time) != ZELK_SUCCESS) return false;
  if (location == ZELK_LOCATION_TEMPLATE) return zk_conv_base_64_templ(0, nullptr, parts.entry, &label) == ZELK_SUCCESS;
  return location == ZELK_LOCATION_STACK ||
         zk_conv_base_64_selector(0, nullptr, parts.entry, &facility, &priority) == ZELK_SUCCESS;
}

/* Parses the command line, all of which is checked before anything is made. Returns the exit status where that ends the
 * run. */
static std::optional<int> parse_command_line(int argc, char** argv, request_t* request) {
  const command_line_t line = {
      NAME,
      TOOL_MSG_RECORD_ABOUT,
      {{"STACK", true, false, TOOL_MSG_RECORD_STACK},
       {"FORMAT", true, false, TOOL_MSG_RECORD_FORMAT},
       {"ARGUMENT", false, true, TOOL_MSG_RECORD_ARGUMENT}},
      true,
      {text_option('c', "cause", "ID", TOOL_MSG_RECORD_CAUSE, &request->cause),
       flag_option('t', "text", TOOL_MSG_RECORD_TEXT, &request->is_text),
       text_option('d', "details", "TEXT", TOOL_MSG_RECORD_DETAILS, &request->details),
       text_option('D', "dump", "FILE", TOOL_MSG_RECORD_DUMP, &request->dump),
       text_option('p', "process", "NAME", TOOL_MSG_RECORD_PROCESS, &request->process, empty_mistake),
       number_option('\0', "pid", "N", TOOL_MSG_RECORD_PID, &request->process_id, 1, INT32_MAX),
       text_option('\0', "file", "NAME", TOOL_MSG_RECORD_FILE, &request->file),
       number_option('\0', "line", "N", TOOL_MSG_RECORD_LINE, &request->line, 0, INT32_MAX),
       text_option('\0', "file-version", "TEXT", TOOL_MSG_RECORD_FILE_VERSION, &request->version),
       text_option('\0', "product", "TEXT", TOOL_MSG_RECORD_PRODUCT, &request->product),
       text_option('m', "message", "CATALOG:SET:NUMBER", TOOL_MSG_RECORD_MESSAGE, &request->message, empty_mistake),
       number_option('C', "create", "[=SIZE]", TOOL_MSG_RECORD_CREATE, &request->new_size, ZK_STACK_SIZE_MIN,
                     ZK_STACK_SIZE_MAX, DEFAULT_SIZE),
       flag_option('q', "quiet", TOOL_MSG_RECORD_QUIET, &request->is_quiet)}};
  std::vector<std::string> operands;
  if (std::optional<int> status = parse_options(line, argc, argv, &operands)) return status;

  request->stack = operands[0];
  request->format = operands[1];
  request->operands.assign(operands.begin() + 2, operands.end());
  if (request->stack.empty()) return report_misuse(NAME, "STACK: " + empty_mistake(request->stack));
  if (!request->message.empty() && !parse_message(request))
    return report_misuse(NAME, "--message: " + message_text(TOOL_MSG_NOT_A_MESSAGE, {request->message}));
  const std::string mistake = request->is_text
                                  ? plain_description(request->format, request->operands, &request->description)
                                  : parse_description(request->format, &request->operands, &request->description);
  if (!mistake.empty()) return report_misuse(NAME, "FORMAT: " + mistake);
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
  const int fildes = open(("/proc/" + std::to_string(id) + "/stat").c_str(), O_RDONLY | O_CLOEXEC);
  std::string stat(4096, '\0'); /* number (name) state parent ... */
  stat.resize(zk_read(fildes, stat.data(), stat.size()));
  if (fildes != -1) close(fildes);
  const size_t open = stat.find('(');
  const size_t close = stat.rfind(')');
  int32_t parent = 0;
  if (open == stat.npos || close == stat.npos || std::sscanf(stat.c_str() + close + 1, " %*c %d", &parent) != 1)
    return false;
  /* A process whose parent is out of sight counts as one that was left to process 1, which has none itself. */
  if (parent <= 0) parent = id == 1 ? ZK_NO_PROCESS : 1;
  *process = {.name = stat.substr(open + 1, close - open - 1), .id = id, .parent = parent};
  return true;
}

/* The process that the incident is recorded for. Whose child one was that has ended is not known. */
static process_t recorded_process(const request_t& request) {
  process_t caller = {.name = NAME, .id = getppid(), .parent = 1};
  look_up_process(caller.id, &caller);
  process_t process = caller;
  if (request.process_id != 0 && !look_up_process(request.process_id, &process))
    process = {.name = caller.name, .id = request.process_id, .parent = ZK_NO_PROCESS};
  if (!request.process.empty()) process.name = request.process;
  return process;
}

/* Reads details from standard input, as far as that can be read, less one newline at their end. More than is ever recorded
 * is read, so that what writes a little too much can end in peace. */
static std::string read_details() {
  std::string text(65536, '\0');
  text.resize(zk_read(STDIN_FILENO, text.data(), text.size()));
  if (errno != 0) fail(message_text(TOOL_MSG_STANDARD_INPUT), std::strerror(errno));
  if (text.ends_with('\n')) text.pop_back();
  if (text.find('\0') != std::string::npos) fail("--details", message_text(TOOL_MSG_ZERO));
  std::replace(text.begin(), text.end(), '\0', '?'); /* one would end them */
  return text;
}

/* What of the incident finds room beside `size` bytes. */
struct fitting_t {
  zk_record_image_t image; /* has the texts */
  std::vector<cu_error_arg_t> arguments;
  const char* details;
};

/* Cuts details and arguments of an incident, as a record of which `size` bytes are taken would. False, with nothing in
 * `fitting`, when it does not fit even so. */
static bool fit_beside(const zk_incident_t& incident, size_t size, fitting_t* fitting) {
  zk_record_t fields;
  if (size >= ZK_REC_LISTED_MAX ||
      zk_make_record_image(incident, ZK_REC_LISTED_MAX - size, &fitting->image) != ZELK_SUCCESS ||
      zk_parse_record(fitting->image.bytes.data(), &fields) != ZELK_SUCCESS)
    return false;
  fitting->details = fields.incident.details;
  zk_cursor_t* const arguments = &fields.arguments;
  zk_read_int(arguments); /* their count */
  cu_error_arg_t argument;
  while (fitting->arguments.size() < incident.argument_count && zk_read_argument(arguments, &argument))
    fitting->arguments.push_back(argument);
  return true;
}

/* Makes a plain text that finds no room beside `size` bytes, and so would not be recorded at all, the argument of "%s",
 * which can be cut. */
static void make_long_text_argument(size_t size, request_t* request, zk_incident_t* incident) {
  zk_record_image_t image;
  const size_t room = ZK_REC_LISTED_MAX - std::min<size_t>(size, ZK_REC_LISTED_MAX);
  if (zk_make_record_image(*incident, room, &image) == ZELK_SUCCESS) return;
  cu_error_arg_t argument = {.cu_arg_type = CU_ERROR_ARG_CHAR_STR, .cu_arg_value = {}};
  argument.cu_arg_value.cu_arg_char_str = request->format.data();
  request->description = {.text = "%s", .arguments = {argument}};
  incident->default_message = request->description.text.c_str();
  incident->arguments = request->description.arguments.data();
  incident->argument_count = 1;
}

/* Bytes of details for which a record has room without a cut of the arguments. */
static size_t room_for_details(zk_incident_t incident) {
  zk_record_image_t image;
  incident.details = nullptr;
  if (zk_make_record_image(incident, ZK_REC_LISTED_MAX, &image) != ZELK_SUCCESS) return 0;
  return ZK_REC_LENGTH_SIZE + ZK_REC_LISTED_MAX - image.size;
}

/* What stands at the end of a text that was cut. */
static char CUT_MARK[] = "..."; /* only read, like all arguments */
static constexpr size_t CUT_MARK_SIZE = sizeof CUT_MARK - 1;

/* The same once every text argument, or a plain text, is cut as far as it can be. */
static size_t most_room_for_details(zk_incident_t incident, bool is_text) {
  const cu_error_arg_t shortest = {.cu_arg_type = CU_ERROR_ARG_CHAR_STR, .cu_arg_value = {.cu_arg_char_str = CUT_MARK}};
  auto can_be_cut = [](const char* text) { return std::strlen(text) > CUT_MARK_SIZE; };
  std::vector<cu_error_arg_t> arguments(incident.arguments, incident.arguments + incident.argument_count);
  for (cu_error_arg_t& argument : arguments)
    if (argument.cu_arg_type == CU_ERROR_ARG_CHAR_STR && can_be_cut(argument.cu_arg_value.cu_arg_char_str))
      argument = shortest;
  const bool is_argument = is_text && can_be_cut(incident.default_message); /* as make_long_text_argument makes it */
  if (is_argument) incident.default_message = "%s";
  if (is_argument) arguments = {shortest};
  incident.arguments = arguments.data();
  incident.argument_count = static_cast<uint32_t>(arguments.size());
  return room_for_details(incident);
}

/* The details with `lines` at their end, before which they are cut. The arguments in `fitting`, if there are any, are to take
 * the place of those of the incident. */
static std::string with_last_lines(zk_incident_t incident, std::string details, const std::string& lines,
                                   fitting_t* fitting) {
  if (details.ends_with('\n')) details.pop_back();
  if (lines.size() + 1 > room_for_details(incident)) details.clear();
  const size_t newline = details.empty() ? 0 : 1;
  incident.details = details.c_str();
  if (!fit_beside(incident, lines.size() + newline, fitting) || *fitting->details == '\0') return lines;
  return fitting->details + ("\n" + lines);
}

/* A line behind the details, "LABEL  VALUE". */
struct detail_line_t {
  const char* option; /* that asked for it */
  std::string label;
  std::string value;
  size_t kept_min; /* bytes of the value that stand there before an argument is cut for more */
};

/* A value on one line, which is cut when it is longer than that many bytes. */
static std::string cut_value(const std::string& value, size_t size_max) {
  std::string line;
  for (size_t at = 0, size; (size = character_at(value, at).size) != 0; at += size) {
    if (at + size > size_max) return line + CUT_MARK;
    line += value[at] == '\n' ? " " : value.substr(at, size); /* not another line */
  }
  return line;
}

/* The lines behind the details, whole where there is room for them. There are at most `most_room` bytes, of which each line
 * may take an equal share for what it keeps. */
static std::string lines_for(std::vector<detail_line_t> lines, size_t room, size_t most_room) {
  static constexpr size_t BESIDE = 2 + 1 + CUT_MARK_SIZE; /* two blanks, and a newline */
  std::string text;
  size_t wanted = 0;
  for (detail_line_t& line : lines) {
    wanted += line.label.size() + 2 + line.value.size() + 1;
    const size_t share = most_room / lines.size(), beside = line.label.size() + BESIDE;
    line.kept_min = std::min(line.kept_min, share > beside ? share - beside : 0);
  }
  size_t excess = wanted > room + 1 ? wanted - room - 1 : 0; /* the last one has no newline */
  for (const detail_line_t& line : lines) {
    const size_t size = line.value.size();
    const bool is_cut = excess > 0 && size > line.kept_min + CUT_MARK_SIZE;
    const size_t kept = is_cut ? size - std::min(size - line.kept_min, excess + CUT_MARK_SIZE) : size;
    const std::string value = cut_value(line.value, kept);
    text += (text.empty() ? "" : "\n") + line.label + "  " + value;
    if (!is_cut) continue;
    excess -= std::min(excess, size - value.size());
    fail(line.option, message_text(TOOL_MSG_IS_CUT));
  }
  return text;
}

/* Why a dump file cannot be copied, the empty text for nothing. */
static std::string dump_problem(const std::string& path) {
  const int fildes = zk_open_regular(path.c_str(), O_RDONLY);
  if (fildes == -1) return std::strerror(errno);
  struct stat status = {};
  fstat(fildes, &status);
  close(fildes);
  if (S_ISDIR(status.st_mode)) return std::strerror(EISDIR);
  return S_ISREG(status.st_mode) ? "" : message_text(TOOL_MSG_NOT_REGULAR);
}

/* What a copy is named after where the environment does not say it: the process, as far as the name of a file can hold it. */
static std::string command_of(const process_t& process) {
  static constexpr size_t ROOM = NAME_MAX - (sizeof ".2147483647.20261231.235959" - 1) - CUT_MARK_SIZE;
  std::string command = cut_value(process.name.empty() ? NAME : process.name, ROOM);
  std::replace(command.begin(), command.end(), '/', '_');
  return command;
}

/* Copies the dump file. Returns the name to record: that of the copy or, where none can be made, its own. */
static std::string preserve_dump(const command_trace_t& trace, const request_t& request, const process_t& process) {
  const std::string problem = dump_problem(request.dump);
  if (!problem.empty()) fail(request.dump, problem);
  setenv("ZELKPNAME", command_of(process).c_str(), 0);
  std::array<char, ZELK_DUMP_NAME_SIZE> kept = {};
  const int result = zk_make_dump_file_copy(trace.active, trace.file.data(), request.dump.c_str(), kept.data());
  if (problem.empty() && result != ZELK_SUCCESS)
    fail(request.dump, message_text(TOOL_MSG_NOT_PRESERVED, {ZELK_DUMP_DIR, zk_result_text(result)}));
  return result == ZELK_SUCCESS ? kept.data() : request.dump;
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

/* Waits once for the lock that the recorder takes next, so that a long wait is told. */
static void await_lock(const std::string& name) {
  const zk_stack_path_t path = zk_stack_path(name.c_str());
  const int fildes = zk_open_regular(path.data(), O_RDWR);
  if (fildes == -1) return; /* the recorder says why */
  wait_for_lock(NAME, path.data(), fildes, F_OFD_SETLKW);
  close(fildes);
}

/* Says why nothing is recorded, and what helps. Returns STATUS_FAILED. */
static int fail_to_record(const std::string& stack, int result, const zk_damage_t& damage) {
  const std::string path = zk_stack_path(stack.c_str()).data();
  const bool is_below = path.starts_with(ZELK_STACK_DIR "/");
  const bool is_in_place = is_below && path.find('/', sizeof ZELK_STACK_DIR) == path.npos;
  struct stat status;
  if (result == ZELK_FILE_MISSING && lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode))
    return fail(path, message_text(TOOL_MSG_LINK_TO_NOTHING));
  std::string help;
  if (result == ZELK_FILE_MISSING) help = message_text(TOOL_MSG_HOW_TO_CREATE);
  if (result == ZELK_DIR_MISSING && is_in_place) help = message_text(TOOL_MSG_HOW_TO_MAKE_FOLDER);
  if ((result == ZELK_NO_ACCESS || result == ZELK_DIR_NO_ACCESS) && is_below)
    help = message_text(TOOL_MSG_WHO_RECORDS, {"zelk"});
  return fail(path, reason_of(result, damage) + (help.empty() ? "" : "; " + help));
}

/* Says what a record has no room for: of the details and the arguments that were given, and of the lines behind them. */
static void report_cuts(const zk_incident_t& incident, const request_t& request, const std::string& lines) {
  zk_record_image_t image;
  zk_record_t fields;
  if (zk_make_record_image(incident, ZK_REC_LISTED_MAX, &image) != ZELK_SUCCESS ||
      zk_parse_record(image.bytes.data(), &fields) != ZELK_SUCCESS)
    return;
  const std::string& wanted = request.details;
  const std::string start = wanted.ends_with('\n') ? wanted.substr(0, wanted.size() - 1) : wanted;
  const std::string_view details = fields.incident.details;
  if (!details.starts_with(start) || !details.ends_with(lines)) fail("--details", message_text(TOOL_MSG_IS_CUT));
  zk_cursor_t* const arguments = &fields.arguments;
  zk_read_int(arguments); /* their count */
  for (size_t i = 0; i < request.description.arguments.size(); ++i) {
    cu_error_arg_t recorded;
    const cu_error_arg_t& given = request.description.arguments[i];
    if (!zk_read_argument(arguments, &recorded) || given.cu_arg_type != CU_ERROR_ARG_CHAR_STR) continue;
    if (std::strcmp(recorded.cu_arg_value.cu_arg_char_str, given.cu_arg_value.cu_arg_char_str) != 0)
      fail(request.is_text ? "FORMAT" : message_text(TOOL_MSG_ARGUMENT, {std::to_string(i + 1)}),
           message_text(TOOL_MSG_IS_CUT));
  }
}

/* Opens the stack, and makes it before where it is missing and may be made. */
static int open_recorder(const command_trace_t& trace, const request_t& request, zk_recorder_t** recorder,
                         zk_damage_t* damage) {
  const char* const name = request.stack.c_str();
  if (request.new_size != 0) {
    const int result = zk_create_stack(trace.active, trace.file.data(), name, request.new_size);
    if (result != ZELK_SUCCESS && result != ZELK_FILE_EXIST) return result;
  }
  await_lock(request.stack);
  return zk_open_recorder_or_say({trace.active, trace.file.data(), "zk_open_recorder"}, name, recorder, damage);
}

static int record(const command_trace_t& trace, request_t* request) {
  if (request->details == "-") request->details = read_details();
  zk_recorder_t* recorder = nullptr;
  zk_damage_t damage = {};
  int result = open_recorder(trace, *request, &recorder, &damage);
  if (result != ZELK_SUCCESS) return fail_to_record(request->stack, result, damage);

  const bool has_cause = is_eid(request->cause);
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
                            .associated_eid = has_cause ? request->cause.c_str() : nullptr};
  std::vector<detail_line_t> wanted;
  if (!has_cause && !request->cause.empty()) {
    fail("--cause", message_text(TOOL_MSG_NOT_AN_EID, {request->cause}));
    wanted.push_back({"--cause", "cause", request->cause, CAUSE_KEPT_MIN});
  }
  std::string dump;
  if (!request->dump.empty()) {
    dump = preserve_dump(trace, *request, process);
    wanted.push_back({"--dump", "dump file", dump, DUMP_KEPT_MIN});
  }
  const std::string lines =
      lines_for(wanted, room_for_details(incident), most_room_for_details(incident, request->is_text));
  std::string details = request->details;
  if (request->is_text) make_long_text_argument(lines.empty() ? 0 : lines.size() + 1, request, &incident);
  fitting_t fitting;
  if (!lines.empty()) details = with_last_lines(incident, request->details, lines, &fitting);
  if (!fitting.arguments.empty()) incident.arguments = fitting.arguments.data();
  incident.details = details.c_str();
  zk_eid_t eid;
  result = zk_record_incident(trace.active, trace.file.data(), recorder, &incident, eid);
  damage = zk_recorder_damage(recorder);
  zk_close_recorder(recorder);
  if (result != ZELK_SUCCESS && dump != request->dump) unlink(dump.c_str()); /* a copy that no incident names */
  if (result != ZELK_SUCCESS) return fail_to_record(request->stack, result, damage);
  report_cuts(incident, *request, lines);
  if (request->is_quiet) return STATUS_DONE;
  if (std::puts(eid) == EOF || std::fflush(stdout) != 0)
    return fail(message_text(TOOL_MSG_STANDARD_OUTPUT),
                message_text(TOOL_MSG_ID_NOT_WRITTEN, {eid, std::strerror(errno)}));
  return STATUS_DONE;
}

int main(int argc, char** argv) {
  const command_trace_t trace = start_command();
  request_t request = {};
  if (std::optional<int> status = parse_command_line(argc, argv, &request)) return *status;
  return record(trace, &request);
}
