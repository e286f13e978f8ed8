/* SPDX-License-Identifier: MIT */
/* zkexport.cpp - the command that gives incidents to scripts, pages and pipelines: its options. */
#include "export.h"
#include "tool.h"

/* ---- The command line ---------------------------------------------------------------------------------------------- */

static constexpr char FORMATS[] = "{json,dot,html}";

static std::string is_format(const std::string& text) {
  const bool is_known = text == "json" || text == "dot" || text == "html";
  return is_known ? "" : message_text(TOOL_MSG_NOT_A_FORMAT, {text, FORMATS});
}

static void add_options(CLI::App* app, export_request_t* request) {
  static auto not_empty = [](const std::string& text) { return text.empty() ? message_text(TOOL_MSG_EMPTY) : ""; };
  app->option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  app->add_option("STACK", request->stacks, message_text(TOOL_MSG_EXPORT_STACK, {ZELK_STACK_DIR}))
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
      ->type_name("")
      ->check(not_empty);
  app->add_option("-o,--format", request->format, message_text(TOOL_MSG_EXPORT_FORMAT))
      ->type_name("FORMAT")
      ->check(is_format, FORMATS);
  app->add_option("-i,--id", request->id, message_text(TOOL_MSG_EXPORT_ID))->type_name("ID")->check(not_empty);
  app->add_flag("-e,--every", request->is_every, message_text(TOOL_MSG_EXPORT_EVERY, {ZELK_STACK_DIR}))
      ->disable_flag_override();
  app->add_flag("--input", request->is_input, message_text(TOOL_MSG_EXPORT_INPUT))->disable_flag_override();
  app->add_flag("-f,--follow", request->is_follow, message_text(TOOL_MSG_EXPORT_FOLLOW))->disable_flag_override();
  app->add_option("-c,--cursor-file", request->cursor_file, message_text(TOOL_MSG_EXPORT_CURSOR_FILE))
      ->type_name("FILE")
      ->check(not_empty);
}

/* What does not go together, an empty text when all does. */
static std::string combination_problem(const export_request_t& request) {
  const int sources =
      (request.stacks.empty() ? 0 : 1) + (request.id.empty() ? 0 : 1) + int{request.is_every} + int{request.is_input};
  const bool is_json = request.format == "json";
  const struct {
    bool is_broken;
    tool_message_t problem;
  } rules[] = {{sources == 0, TOOL_MSG_NO_SOURCE},
               {sources > 1, TOOL_MSG_TWO_SOURCES},
               {request.is_input && is_json, TOOL_MSG_INPUT_AS_JSON},
               {request.is_follow && !is_json, TOOL_MSG_FOLLOW_NOT_JSON},
               {!request.cursor_file.empty() && !is_json, TOOL_MSG_CURSOR_NOT_JSON},
               {request.is_follow && !request.id.empty(), TOOL_MSG_FOLLOW_AND_ID},
               {!request.cursor_file.empty() && !request.id.empty(), TOOL_MSG_CURSOR_AND_ID}};
  for (const auto& rule : rules)
    if (rule.is_broken) return message_text(rule.problem);
  return "";
}

/* The command line as CLI11 has to be given it. It takes "[a,b]" for a list of two: the bracket is hidden from it, and
 * shown again. It takes the next argument for the value of "--name=": the empty one becomes an argument of its own. */
static constexpr char NO_LIST = '\1';
static std::vector<std::string> arguments_for_cli11(int argc, char** argv) {
  std::vector<std::string> arguments;
  bool are_options_over = false;
  for (std::string argument : std::vector<std::string>(argv, argv + argc)) {
    are_options_over = are_options_over || argument == "--";
    const bool is_option = !are_options_over && argument.starts_with("--");
    const bool has_empty_value = is_option && argument.find('=') == argument.size() - 1;
    if (argument.starts_with('[')) argument.insert(argument.begin(), NO_LIST);
    if (has_empty_value) argument.pop_back();
    arguments.push_back(argument);
    if (has_empty_value) arguments.emplace_back();
  }
  return arguments;
}
static void show_brackets(std::string* text) {
  if (text->starts_with(NO_LIST)) text->erase(0, 1);
}

/* Takes the command line. Returns the exit status where that ends the run. */
static std::optional<int> take_command_line(int argc, char** argv, export_request_t* request) {
  CLI::App app(message_text(TOOL_MSG_EXPORT_ABOUT), EXPORT_NAME);
  request->format = "json";
  add_options(&app, request);
  std::vector<std::string> arguments = arguments_for_cli11(argc, argv);
  std::vector<char*> pointers;
  pointers.reserve(arguments.size());
  for (std::string& argument : arguments) pointers.push_back(argument.data());
  if (std::optional<int> status = tool_parse(&app, static_cast<int>(pointers.size()), pointers.data())) return status;

  for (std::string& name : request->stacks) show_brackets(&name);
  show_brackets(&request->id);
  show_brackets(&request->cursor_file);
  request->id = request->id.substr(0, ZELK_EID_LENGTH); /* as zkview takes it */
  const std::string problem = combination_problem(*request);
  if (!problem.empty()) return tool_misuse(EXPORT_NAME, problem);
  return {};
}

int main(int argc, char** argv) {
  const tool_trace_t trace = tool_start();
  export_request_t request = {};
  if (std::optional<int> status = take_command_line(argc, argv, &request)) return *status;
  const zk_trace_t own_trace = {trace.active, trace.file.data(), "main(zkexport)"};
  zk_trace(own_trace, "Input:\nFormat %s\nStacks given %d\nZELK ID %s\nEvery stack %d\nFollow %d\nCursor file %s",
           request.format.c_str(), static_cast<int>(request.stacks.size()), request.id.c_str(), int{request.is_every},
           int{request.is_follow}, request.cursor_file.c_str());
  if (request.format != "json") return export_page(own_trace, request);
  return request.is_follow ? follow_json(own_trace, request) : export_json(own_trace, request);
}
