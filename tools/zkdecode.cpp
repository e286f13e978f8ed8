/* SPDX-License-Identifier: MIT */
/* zkdecode.cpp - the command that shows what an Error ID says. */
#include <arpa/inet.h>
#include <sys/time.h>
#include <syslog.h>

#include <algorithm>
#include <ctime>
#include <utility>
#include <vector>

#include "command.h"
#include "json_writer.h"
#include "options.h"
#include "text.h"
#include "utc_time.h"

static constexpr char NAME[] = "zkdecode";

/* What the command line asks for. */
struct decode_request_t {
  std::vector<std::string> ids;
  bool is_json;
};

/* What an Error ID says; what its location does not concern is 0. */
struct decoded_t {
  int version;
  int location; /* ZELK_LOCATION_... */
  timeval time;
  std::string node; /* its address, as text */
  int is_local;
  std::optional<std::vector<std::string>> stack_files; /* paths of the candidates, where they can be known */
  unsigned int label;
  int facility; /* shifted, as syslog has it */
  int severity;
};

/* ---- Names ------------------------------------------------------------------------------------------------------- */

/* By location. */
static constexpr struct {
  const char* in_lines;
  const char* in_json;
} LOCATIONS[] = {{"error template", "template"}, {"Error Stack", "stack"}, {"syslog", "syslog"}};

/* By number, as in syslog(3), which knows no names for 12 to 15. */
static constexpr const char* FACILITIES[] = {"kern",   "user",     "mail",    "daemon", "auth",     "syslog",
                                             "lpr",    "news",     "uucp",    "cron",   "authpriv", "ftp",
                                             "ntp",    "security", "console", "clock",  "local0",   "local1",
                                             "local2", "local3",   "local4",  "local5", "local6",   "local7"};
static constexpr const char* SEVERITIES[] = {"emerg", "alert", "crit", "err", "warning", "notice", "info", "debug"};

/* ---- Decoding ---------------------------------------------------------------------------------------------------- */

/* Why the text cannot be an Error ID; empty when it can. The library decodes any characters. */
static std::string problem_of_text(const std::string& id) {
  if (id.size() != ZELK_EID_LENGTH)
    return message_text(TOOL_MSG_WRONG_LENGTH, {std::to_string(id.size()), std::to_string(ZELK_EID_LENGTH)});
  const size_t stray = id.find_first_not_of(base64_table);
  return stray != id.npos ? message_text(TOOL_MSG_STRAY_CHARACTER, {std::to_string(stray + 1)}) : "";
}

/* Why an Error ID could not be decoded; empty for what is no failure: a stack file may be gone, and its directory too.
 * Version and location are 0 until they are known. */
static std::string problem_of_result(int result, int version, int location) {
  switch (result) {
    case ZELK_SUCCESS:
    case ZELK_FILE_MISSING:
    case ZELK_DIR_MISSING:
      return "";
    case ZELK_UNSUPPORTED:
      return message_text(version == 0 ? TOOL_MSG_LATER_VERSION : TOOL_MSG_LATER_LOCATION);
    case ZELK_INV_FID:
      return message_text(TOOL_MSG_BAD_TIME);
    case ZELK_INV_PARAM4:
      return message_text(TOOL_MSG_BAD_ADDRESS_TYPE);
    case ZELK_INV_PARAM3:
      return message_text(TOOL_MSG_BAD_SELECTOR);
    default:
      return location == ZELK_LOCATION_TEMPLATE ? message_text(TOOL_MSG_LABEL_ZERO)
                                                : message_text(TOOL_MSG_DIRECTORY_UNREADABLE, {ZELK_STACK_DIR}) + "; " +
                                                      message_text(TOOL_MSG_WHO_READS, {"zelk"});
  }
}

/* Decodes `id`. Returns what is wrong, empty when nothing is. `*decoded` has a value as far as the ID can be shown,
 * also where only the stacks directory cannot be read. */
static std::string decode(const command_trace_t& trace, const std::string& id, std::optional<decoded_t>* decoded) {
  std::string problem = problem_of_text(id);
  if (!problem.empty()) return problem;

  decoded_t eid = {};
  std::array<unsigned char, sizeof(in6_addr)> address = {};
  int is_ipv6 = 0;
  std::string names; /* of the candidates, in slots */
  size_t slots = 8;
  int result;
  do {
    slots *= 2;
    names.assign(slots * ZELK_FILE_SLOT_SIZE, '\0');
    result = zk_decode_eid_2(trace.active, trace.file.data(), id.c_str(), &eid.is_local, &eid.version, &eid.location,
                             names.data(), static_cast<int>(slots), &eid.label, &eid.facility, &eid.severity, &eid.time,
                             address.data(), &is_ipv6);
  } while (names[(slots - 1) * ZELK_FILE_SLOT_SIZE] != '\0'); /* with all slots taken there may be more */

  problem = problem_of_result(result, eid.version, eid.location);
  /* That the ID is one of this node is known once all but the entry has been decoded. */
  const bool is_stack_here = eid.location == ZELK_LOCATION_STACK && eid.is_local == 1;
  if (!problem.empty() && !is_stack_here) return problem;
  std::array<char, INET6_ADDRSTRLEN> node = {};
  inet_ntop(is_ipv6 == 1 ? AF_INET6 : AF_INET, address.data(), node.data(), node.size());
  eid.node = node.data();
  if (is_stack_here && problem.empty()) eid.stack_files.emplace();
  for (const char* name = names.data(); eid.stack_files && *name != '\0'; name += ZELK_FILE_SLOT_SIZE)
    eid.stack_files->push_back(std::string(ZELK_STACK_DIR "/") + name);
  *decoded = std::move(eid);
  return problem;
}

/* ---- Showing ----------------------------------------------------------------------------------------------------- */

static std::string utc_text(const timeval& time) {
  return utc_time_of_microseconds(time.tv_sec * SECOND + time.tv_usec);
}

static std::string local_text(const timeval& time) {
  std::tm when = {};
  localtime_r(&time.tv_sec, &when);
  std::array<char, 96> text; /* room for any seven numbers */
  std::snprintf(text.data(), text.size(), "%04d-%02d-%02d %02d:%02d:%02d.%06d ", when.tm_year + 1900, when.tm_mon + 1,
                when.tm_mday, when.tm_hour, when.tm_min, when.tm_sec, static_cast<int>(time.tv_usec));
  return std::string(text.data()) + when.tm_zone;
}

/* A file name may hold any bytes: it is made to take one line, and on a terminal to be harmless. */
static std::string shown_path(std::string path, bool is_terminal) {
  if (is_terminal) return printable(path);
  std::replace(path.begin(), path.end(), '\n', '?');
  return path;
}

static void show_lines(const std::string& id, const decoded_t& eid, bool is_terminal) {
  auto show = [](const char* label, const std::string& value) { std::printf("%s: %s\n", label, value.c_str()); };
  show("Error ID", id);
  show("Version", std::to_string(eid.version));
  show("Recorded in", LOCATIONS[eid.location].in_lines);
  show("Time", local_text(eid.time) + " (" + utc_text(eid.time) + ")");
  show("Node", eid.node + (eid.is_local == 1 ? " (this node)" : " (another node)"));
  if (eid.stack_files) {
    if (eid.stack_files->empty()) show("Stack file", "none");
    for (const std::string& path : *eid.stack_files) show("Stack file", shown_path(path, is_terminal));
  }
  if (eid.location == ZELK_LOCATION_TEMPLATE) std::printf("Error template: 0x%08x\n", eid.label);
  if (eid.location == ZELK_LOCATION_SYSLOG) {
    std::printf("Facility: %s (%d)\n", FACILITIES[LOG_FAC(eid.facility)], LOG_FAC(eid.facility));
    std::printf("Severity: %s (%d)\n", SEVERITIES[eid.severity], eid.severity);
  }
  if (eid.location == ZELK_LOCATION_STACK)
    show("Look it up", "zkview -f " + id + (eid.is_local == 1 ? "" : " on " + eid.node));
}

static void show_json(const std::string& id, const decoded_t& eid, bool) {
  std::string line;
  json_writer_t writer = begin_json_line(&line);
  put_text(&writer, "id", id);
  put_number(&writer, "version", eid.version);
  put_text(&writer, "location", LOCATIONS[eid.location].in_json);
  put_text(&writer, "time", utc_text(eid.time));
  put_text(&writer, "node", eid.node);
  put_word(&writer, "local", eid.is_local == 1 ? "true" : "false");
  if (eid.stack_files) {
    put_key(&writer, "stack_files");
    begin_json(&writer, '[');
    for (const std::string& path : *eid.stack_files) put_string(&writer, repaired(path));
    end_json(&writer, ']');
  }
  if (eid.location == ZELK_LOCATION_TEMPLATE) put_number(&writer, "template", eid.label);
  if (eid.location == ZELK_LOCATION_SYSLOG) {
    put_text(&writer, "facility", FACILITIES[LOG_FAC(eid.facility)]);
    put_text(&writer, "severity", SEVERITIES[eid.severity]);
  }
  end_json_line(&writer);
  std::fwrite(line.data(), 1, line.size(), stdout);
}

static int show_all(const command_trace_t& trace, const decode_request_t& request) {
  const bool is_terminal = isatty(STDOUT_FILENO) == 1;
  const auto show = request.is_json ? show_json : show_lines;
  const char* separator = "";
  int status = STATUS_DONE;
  for (const std::string& id : request.ids) {
    std::optional<decoded_t> eid;
    const std::string problem = decode(trace, id, &eid);
    if (!problem.empty()) status = report_failure(NAME, "'" + id + "'", problem);
    if (std::ferror(stdout) != 0) break;
    if (!eid) continue;
    std::fputs(separator, stdout);
    show(id, *eid, is_terminal);
    separator = request.is_json ? "" : "\n";
  }
  return status;
}

/* ---- The command line -------------------------------------------------------------------------------------------- */

/* Parses the command line. Returns the exit status where that ends the run. */
static std::optional<int> parse_command_line(int argc, char** argv, decode_request_t* request) {
  const command_line_t line = {NAME,
                               TOOL_MSG_DECODE_ABOUT,
                               {{"ID", true, true, TOOL_MSG_DECODE_ID}},
                               false,
                               {flag_option('j', "json", TOOL_MSG_DECODE_JSON, &request->is_json)}};
  return parse_options(line, argc, argv, &request->ids);
}

int main(int argc, char** argv) {
  const command_trace_t trace = start_command();
  decode_request_t request = {};
  if (std::optional<int> status = parse_command_line(argc, argv, &request)) return *status;
  tzset(); /* localtime_r need not */
  return end_command(NAME, show_all(trace, request));
}
