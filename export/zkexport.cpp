/* SPDX-License-Identifier: MIT */
/* zkexport.cpp - the command that gives incidents to scripts, pages and pipelines: its options. */
#include "command.h"
#include "export.h"
#include "options.h"

/* ---- The command line ---------------------------------------------------------------------------------------------- */

/* The names of the formats, as "{one,two}". */
static std::string format_names() {
  std::string names;
  for (const format_t& format : formats()) names += (names.empty() ? "{" : ",") + std::string(format.name);
  return names + "}";
}

static std::string format_mistake(const std::string& name) {
  return find_format(name) != nullptr ? "" : message_text(TOOL_MSG_NOT_A_FORMAT, {name, format_names()});
}

/* What does not go together, an empty text when all does. */
static std::string combination_mistake(const export_request_t& request) {
  const int sources =
      (request.stacks.empty() ? 0 : 1) + (request.id.empty() ? 0 : 1) + int{request.is_every} + int{request.is_input};
  const format_t& format = *request.format;
  const struct {
    bool is_broken;
    tool_message_t mistake;
  } rules[] = {{sources == 0, TOOL_MSG_NO_SOURCE},
               {sources > 1, TOOL_MSG_TWO_SOURCES},
               {request.is_input && !format.takes_input, TOOL_MSG_INPUT_AS_JSON},
               {request.is_follow && !format.can_follow, TOOL_MSG_FOLLOW_NOT_JSON},
               {!request.cursor_file.empty() && !format.can_follow, TOOL_MSG_CURSOR_NOT_JSON},
               {request.is_follow && !request.id.empty(), TOOL_MSG_FOLLOW_AND_ID},
               {!request.cursor_file.empty() && !request.id.empty(), TOOL_MSG_CURSOR_AND_ID}};
  for (const auto& rule : rules)
    if (rule.is_broken) return message_text(rule.mistake);
  return "";
}

/* Parses the command line. Returns the exit status where that ends the run. */
static std::optional<int> parse_command_line(int argc, char** argv, export_request_t* request) {
  std::string format = formats().front().name;
  const command_line_t line = {
      EXPORT_NAME,
      TOOL_MSG_EXPORT_ABOUT,
      {{"STACK", false, true, TOOL_MSG_EXPORT_STACK}},
      false,
      {text_option('o', "format", "FORMAT:" + format_names(), TOOL_MSG_EXPORT_FORMAT, &format, format_mistake),
       text_option('i', "id", "ID", TOOL_MSG_EXPORT_ID, &request->id, empty_mistake),
       flag_option('e', "every", TOOL_MSG_EXPORT_EVERY, &request->is_every),
       flag_option('\0', "input", TOOL_MSG_EXPORT_INPUT, &request->is_input),
       flag_option('f', "follow", TOOL_MSG_EXPORT_FOLLOW, &request->is_follow),
       text_option('c', "cursor-file", "FILE", TOOL_MSG_EXPORT_CURSOR_FILE, &request->cursor_file, empty_mistake)}};
  if (std::optional<int> status = parse_options(line, argc, argv, &request->stacks)) return status;

  request->format = find_format(format);
  request->id = request->id.substr(0, ZELK_EID_LENGTH); /* as zkview takes it */
  for (const std::string& name : request->stacks)
    if (name.empty()) return report_misuse(EXPORT_NAME, "STACK: " + empty_mistake(name));
  const std::string mistake = combination_mistake(*request);
  if (!mistake.empty()) return report_misuse(EXPORT_NAME, mistake);
  return {};
}

int main(int argc, char** argv) {
  const command_trace_t trace = start_command();
  export_request_t request = {};
  if (std::optional<int> status = parse_command_line(argc, argv, &request)) return *status;
  const zk_trace_t own_trace = {trace.active, trace.file.data(), "main(zkexport)"};
  zk_trace(own_trace, "Input:\nFormat %s\nStacks given %d\nZELK ID %s\nEvery stack %d\nFollow %d\nCursor file %s",
           request.format->name, static_cast<int>(request.stacks.size()), request.id.c_str(), int{request.is_every},
           int{request.is_follow}, request.cursor_file.c_str());
  return request.format->give(own_trace, request);
}
