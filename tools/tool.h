/* SPDX-License-Identifier: MIT */
/* tool.h - what the companion commands have in common: how they take options, trace, and end. */
#ifndef TOOL_H
#define TOOL_H

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>
#include <optional>
#include <string>
#include <string_view>

#include "message.h"
#include "qx_zelk.h"
#include "zk_io.h"

/* Exit statuses. */
enum { TOOL_DONE = 0, TOOL_FAILED = 1, TOOL_MISUSE = 2 };

/* The trace pair of the whole run. */
struct tool_trace_t {
  int active;
  std::array<char, ZELK_PATH_SIZE> file;
};

/* Sets up what every command does before it looks at its options: standard streams, locale, messages and trace. A file
 * size limit is one more way in which writing fails. */
inline tool_trace_t tool_start() {
  tool_trace_t trace = {};
  if (!zk_fill_standard_streams()) std::exit(TOOL_FAILED);
  std::setlocale(LC_ALL, "");
  open_messages();
  std::signal(SIGXFSZ, SIG_IGN);
  const int state = zk_is_debug_file_set(trace.file.data());
  trace.active = state == ZELK_TRACE_EXISTS ||
                 (state == ZELK_TRACE_MISSING && zk_create_debug_file(trace.file.data()) == ZELK_SUCCESS);
  return trace;
}

/* The text with "?" for what the locale cannot print: it takes one line, and drives no terminal. */
inline std::string tool_printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    std::mbstate_t state = {};
    wchar_t character = 0;
    size_t length = std::mbrtowc(&character, text.data(), text.size(), &state);
    const bool is_character = length >= 1 && length <= text.size(); /* no NUL, and no result of a failure */
    if (!is_character) length = 1;
    shown += is_character && std::iswprint(static_cast<wint_t>(character)) != 0 ? text.substr(0, length) : "?";
    text.remove_prefix(length);
  }
  return shown;
}

/* Says on standard error, in one line, what has failed and why. Returns TOOL_FAILED. */
inline int tool_fail(const std::string& name, const std::string& what, const std::string& reason) {
  std::fflush(stdout);
  const std::string message = name + ": " + tool_printable(what + ": " + reason) + "\n";
  std::fwrite(message.data(), 1, message.size(), stderr);
  return TOOL_FAILED;
}

/* Says on standard error what is wrong with the command line. Returns TOOL_MISUSE. */
inline int tool_misuse(const std::string& name, const std::string& problem) {
  std::fflush(stdout);
  const std::string message =
      name + ": " + tool_printable(problem) + "\n" + message_text(TOOL_MSG_TRY_HELP, {name}) + "\n";
  std::fwrite(message.data(), 1, message.size(), stderr);
  return TOOL_MISUSE;
}

/* Writes what standard output still holds. Returns `status`, or TOOL_FAILED with a line on standard error when it cannot
 * be written. */
inline int tool_end(const std::string& name, int status) {
  const bool is_written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  return is_written ? status : tool_fail(name, message_text(TOOL_MSG_STANDARD_OUTPUT), std::strerror(errno));
}

/* Gives CLI11 the words of its help in the user's language. */
inline void tool_translate_help(CLI::App* app) {
  static constexpr struct {
    const char* label;
    tool_message_t message;
  } LABELS[] = {{"Usage", TOOL_MSG_HELP_USAGE},
                {"OPTIONS", TOOL_MSG_HELP_OPTIONS_PLACE},
                {"Positionals", TOOL_MSG_HELP_POSITIONALS},
                {"REQUIRED", TOOL_MSG_HELP_REQUIRED}};
  for (const auto& row : LABELS) app->get_formatter()->label(row.label, message_text(row.message));
  for (CLI::Option* option : app->get_options()) option->group(message_text(TOOL_MSG_HELP_OPTIONS));
}

/* What CLI11 says of a command line, in the user's language where it is one of the usual mistakes. */
inline std::string tool_problem(const CLI::ParseError& error) {
  static constexpr struct {
    CLI::ExitCodes error;
    tool_message_t message;
  } USUAL[] = {{CLI::ExitCodes::ExtrasError, TOOL_MSG_UNEXPECTED_ARGUMENT},
               {CLI::ExitCodes::ExtrasError, TOOL_MSG_UNEXPECTED_ARGUMENTS},
               {CLI::ExitCodes::RequiredError, TOOL_MSG_IS_REQUIRED},
               {CLI::ExitCodes::ArgumentMismatch, TOOL_MSG_VALUE_MISSING},
               {CLI::ExitCodes::ArgumentMismatch, TOOL_MSG_VALUE_NOT_TAKEN}};
  for (const auto& row : USUAL) {
    if (error.get_exit_code() != static_cast<int>(row.error)) continue;
    if (const auto values = values_in(error.what(), row.message)) return message_text(row.message, *values);
  }
  return error.what();
}

/* Takes the command line apart. Returns the exit status where that ends the run: after --help, --version and misuse. */
inline std::optional<int> tool_parse(CLI::App* app, int argc, char** argv) {
  app->set_help_flag("-h,--help", message_text(TOOL_MSG_HELP_HELP))->disable_flag_override();
  app->set_version_flag("--version", app->get_name() + " " ZKVIEW_VERSION, message_text(TOOL_MSG_HELP_VERSION))
      ->disable_flag_override();
  tool_translate_help(app);
  try {
    app->parse(argc, argv);
  } catch (const CLI::Success& asked) {
    return tool_end(app->get_name(), app->exit(asked));
  } catch (const CLI::RequiredError& error) {
    const std::vector<std::string> unexpected = app->remaining(); /* an unknown option says more than what is missing */
    return tool_misuse(app->get_name(), unexpected.empty()
                                            ? tool_problem(error)
                                            : message_text(TOOL_MSG_UNEXPECTED_ARGUMENT, {unexpected.front()}));
  } catch (const CLI::ParseError& error) {
    return tool_misuse(app->get_name(), tool_problem(error));
  }
  return {};
}

#endif
