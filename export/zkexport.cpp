/* SPDX-License-Identifier: MIT */
/* zkexport.cpp - the command that gives incidents to scripts, pages and pipelines: its options. */

#include <cstdlib>
#include <cstring>

#include "command.h"
#include "export.h"
#include "options.h"
#include "zk_layout.h"

static constexpr int32_t LARGEST_STACK = 16 * 1024 * 1024; /* bytes, unless given; version one has 16 KiB */

/* ---- The command line ---------------------------------------------------------------------------------------------- */

/* The names of the formats, as "{one,two}". */
static std::string format_names() {
  std::string names;
  for (const format_t& format : formats()) names += (names.empty() ? "{" : ",") + std::string(format.name);
  return names + "}";
}

static constexpr char COLOURS[] = "{always,never,auto}";
static std::string colour_mistake(const std::string& when) {
  const bool is_known = when == "always" || when == "never" || when == "auto";
  return is_known ? "" : message_text(TOOL_MSG_NOT_A_FORMAT, {when, COLOURS});
}

/* Whether what is given out is coloured: only where it is looked at, unless that is asked for. */
static bool has_colours(const std::string& when) {
  if (when != "auto") return when == "always";
  const char* const refused = std::getenv("NO_COLOR");
  const char* const terminal = std::getenv("TERM");
  const bool is_dumb = terminal != nullptr && std::strcmp(terminal, "dumb") == 0;
  return (refused == nullptr || *refused == '\0') && !is_dumb && isatty(STDOUT_FILENO) == 1;
}

static std::string format_mistake(const std::string& name) {
  return find_format(name) != nullptr ? "" : message_text(TOOL_MSG_NOT_A_FORMAT, {name, format_names()});
}

/* What does not go together, an empty text when all does. */
static std::string combination_mistake(const export_request_t& request) {
  const bool has_id = !request.id.empty(), has_cursor = !request.cursor_file.empty();
  const int places = (request.stacks.empty() ? 0 : 1) + int{request.is_every} + int{request.is_input};
  const int sources = places + int{has_id && !(request.is_chain && places > 0)}; /* the chain is looked for there */
  const bool can_follow = request.format->can_follow, has_lines = request.selection.newest >= 0;
  const struct {
    bool is_broken;
    tool_message_t mistake;
  } rules[] = {{sources == 0, TOOL_MSG_NO_SOURCE},
               {sources > 1, TOOL_MSG_TWO_SOURCES},
               {request.is_chain && !has_id, TOOL_MSG_CHAIN_WITHOUT_ID},
               {request.is_follow && !can_follow, TOOL_MSG_FOLLOW_NOT_JSON},
               {has_cursor && !can_follow, TOOL_MSG_CURSOR_NOT_JSON},
               {request.largest >= 0 && !request.is_follow, TOOL_MSG_MAX_STACK_WITHOUT_FOLLOW},
               {request.is_follow && has_id, TOOL_MSG_FOLLOW_AND_ID},
               {has_cursor && has_id, TOOL_MSG_CURSOR_AND_ID},
               {request.is_follow && request.is_input, TOOL_MSG_FOLLOW_AND_INPUT},
               {has_cursor && request.is_input, TOOL_MSG_CURSOR_AND_INPUT},
               {request.is_follow && has_lines, TOOL_MSG_LINES_AND_FOLLOW},
               {has_cursor && has_lines, TOOL_MSG_LINES_AND_CURSOR}};
  for (const auto& rule : rules)
    if (rule.is_broken) return message_text(rule.mistake);
  return "";
}

/* Parses the command line. Returns the exit status where that ends the run. */
static std::optional<int> parse_command_line(int argc, char** argv, export_request_t* request) {
  std::string format = formats().front().name, colours = "auto";
  selection_t& wanted = request->selection;
  request->largest = -1;
  const command_line_t line = {
      EXPORT_NAME,
      TOOL_MSG_EXPORT_ABOUT,
      {{"STACK", false, true, TOOL_MSG_EXPORT_STACK}},
      false,
      {text_option('o', "format", "FORMAT:" + format_names(), TOOL_MSG_EXPORT_FORMAT, &format, format_mistake),
       text_option('i', "id", "ID", TOOL_MSG_EXPORT_ID, &request->id, empty_mistake),
       flag_option('e', "every", TOOL_MSG_EXPORT_EVERY, &request->is_every),
       flag_option('\0', "input", TOOL_MSG_EXPORT_INPUT, &request->is_input),
       flag_option('\0', "chain", TOOL_MSG_EXPORT_CHAIN, &request->is_chain),
       text_option('\0', "since", "TIME", TOOL_MSG_EXPORT_SINCE, &wanted.since, time_mistake),
       text_option('\0', "until", "TIME", TOOL_MSG_EXPORT_UNTIL, &wanted.until, time_mistake),
       text_option('\0', "process", "NAME", TOOL_MSG_EXPORT_PROCESS, &wanted.process, empty_mistake),
       text_option('\0', "product", "TEXT", TOOL_MSG_EXPORT_PRODUCT, &wanted.product, empty_mistake),
       text_option('\0', "node", "ADDRESS", TOOL_MSG_EXPORT_NODE, &wanted.node, node_mistake),
       text_option('\0', "grep", "PATTERN", TOOL_MSG_EXPORT_GREP, &wanted.pattern, pattern_mistake),
       number_option('n', "lines", "N", TOOL_MSG_EXPORT_LINES, &wanted.newest, 0, INT32_MAX),
       flag_option('f', "follow", TOOL_MSG_EXPORT_FOLLOW, &request->is_follow),
       text_option('c', "cursor-file", "FILE", TOOL_MSG_EXPORT_CURSOR_FILE, &request->cursor_file, empty_mistake),
       number_option('\0', "max-stack", "BYTES", TOOL_MSG_EXPORT_MAX_STACK, &request->largest, ZK_STACK_SIZE_MAX,
                     INT32_MAX),
       text_option('\0', "output", "FILE", TOOL_MSG_EXPORT_OUTPUT, &request->output, empty_mistake),
       text_option('\0', "color", std::string("WHEN:") + COLOURS, TOOL_MSG_EXPORT_COLOR, &colours, colour_mistake)}};
  if (std::optional<int> status = parse_options(line, argc, argv, &request->stacks)) return status;

  request->format = find_format(format);
  request->id = request->id.substr(0, ZELK_EID_LENGTH); /* as zkview takes it */
  for (const std::string& name : request->stacks)
    if (name.empty()) return report_misuse(EXPORT_NAME, "STACK: " + empty_mistake(name));
  const std::string mistake = combination_mistake(*request);
  if (!mistake.empty()) return report_misuse(EXPORT_NAME, mistake);
  if (request->largest < 0) request->largest = LARGEST_STACK;
  prepare_selection(&wanted);
  if (!open_output(*request)) return STATUS_FAILED;
  request->has_colours = has_colours(colours);
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
