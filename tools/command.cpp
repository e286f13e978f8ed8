/* SPDX-License-Identifier: MIT */
/* command.cpp - starts the companion commands, reports for them, and ends them. */
#include "command.h"

#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "text.h"

command_trace_t start_command() {
  command_trace_t trace = {};
  if (!zk_fill_standard_streams()) std::exit(STATUS_FAILED);
  std::setlocale(LC_ALL, "");
  open_messages();
  std::signal(SIGXFSZ, SIG_IGN);
  const int state = zk_is_debug_file_set(trace.file.data());
  trace.active = state == ZELK_TRACE_EXISTS ||
                 (state == ZELK_TRACE_MISSING && zk_create_debug_file(trace.file.data()) == ZELK_SUCCESS);
  return trace;
}

std::string printable(std::string_view text) {
  std::string shown;
  while (!text.empty()) {
    std::mbstate_t state = {};
    wchar_t character = 0;
    size_t length = std::mbrtowc(&character, text.data(), text.size(), &state);
    const bool is_character = length >= 1 && length <= text.size(); /* no NUL, and no result of a failure */
    if (!is_character) length = 1;
    const bool is_shown = is_character && std::iswprint(static_cast<wint_t>(character)) != 0 &&
                          !turns_text(static_cast<char32_t>(character));
    shown += is_shown ? text.substr(0, length) : "?";
    text.remove_prefix(length);
  }
  return shown;
}

/* Writes a message in one piece, behind what standard output has got. */
static void report(const std::string& message) {
  std::fflush(stdout);
  std::fwrite(message.data(), 1, message.size(), stderr);
}

int report_failure(const std::string& command, const std::string& what, const std::string& reason) {
  report(command + ": " + printable(what + ": " + reason) + "\n");
  return STATUS_FAILED;
}

int report_misuse(const std::string& command, const std::string& mistake) {
  report(command + ": " + printable(mistake) + "\n" + message_text(TOOL_MSG_TRY_HELP, {command}) + "\n");
  return STATUS_MISUSE;
}

int end_command(const std::string& command, int status) {
  const bool is_written = std::fflush(stdout) == 0 && std::ferror(stdout) == 0;
  return is_written ? status : report_failure(command, message_text(TOOL_MSG_STANDARD_OUTPUT), std::strerror(errno));
}
