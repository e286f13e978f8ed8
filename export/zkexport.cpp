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

enum { INPUT = 256 }; /* the number of the option that has no letter */

static command_line_t command_line() {
  return {.command = EXPORT_NAME,
          .about = TOOL_MSG_EXPORT_ABOUT,
          .operands = {{"STACK", false, true, TOOL_MSG_EXPORT_STACK}},
          .options = {{'o', "format", value_t::ANY, "FORMAT:" + format_names(), TOOL_MSG_EXPORT_FORMAT},
                      {'i', "id", value_t::NOT_EMPTY, "ID", TOOL_MSG_EXPORT_ID},
                      {'e', "every", value_t::NONE, "", TOOL_MSG_EXPORT_EVERY},
                      {INPUT, "input", value_t::NONE, "", TOOL_MSG_EXPORT_INPUT},
                      {'f', "follow", value_t::NONE, "", TOOL_MSG_EXPORT_FOLLOW},
                      {'c', "cursor-file", value_t::NOT_EMPTY, "FILE", TOOL_MSG_EXPORT_CURSOR_FILE}},
          .ends_at_operand = false};
}

/* Puts an option into the request. Returns what is wrong with its value, or the empty text. */
static std::string set_option(const parser_t& parser, export_request_t* request) {
  switch (parser.option->id) {
    case 'o':
      request->format = find_format(parser.value);
      return request->format != nullptr ? "" : message_text(TOOL_MSG_NOT_A_FORMAT, {parser.value, format_names()});
    case 'i':
      request->id = parser.value.substr(0, ZELK_EID_LENGTH); /* as zkview takes it */
      return "";
    case 'e':
      request->is_every = true;
      return "";
    case INPUT:
      request->is_input = true;
      return "";
    case 'f':
      request->is_follow = true;
      return "";
    default:
      request->cursor_file = parser.value;
      return "";
  }
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
  const command_line_t line = command_line();
  parser_t parser = start_options(line, argc, argv);
  request->format = &formats().front();
  while (next_option(&parser)) refuse_value(&parser, set_option(parser, request));
  request->stacks = parser.operands;
  if (std::optional<int> status = end_options(parser)) return status;

  for (const std::string& name : request->stacks)
    if (name.empty()) return report_misuse(EXPORT_NAME, "STACK: " + message_text(TOOL_MSG_EMPTY));
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
