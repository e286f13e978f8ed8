/* SPDX-License-Identifier: MIT */
/* command.h - what the companion commands have in common: how they start, report what is wrong, and end. */
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "message.h"
#include "qx_zelk.h"
#include "zk_io.h"

/* Exit statuses. */
enum { STATUS_DONE = 0, STATUS_FAILED = 1, STATUS_MISUSE = 2 };

/* The trace pair of the whole run. */
struct command_trace_t {
  int active;
  std::array<char, ZELK_PATH_SIZE> file;
};

/* Sets up what every command does before it looks at its options: standard streams, locale, messages and trace. A file
 * size limit is one more way in which writing fails. */
command_trace_t start_command();

/* The text with "?" for what the locale cannot print: it takes one line, and drives no terminal. */
std::string printable(std::string_view text);

/* Says on standard error, in one line, what has failed and why. Returns STATUS_FAILED. */
int report_failure(const std::string& command, const std::string& what, const std::string& reason);

/* Says on standard error what is wrong with the command line. Returns STATUS_MISUSE. */
int report_misuse(const std::string& command, const std::string& mistake);

/* Writes what standard output still holds. Returns `status`, or STATUS_FAILED with a line on standard error when it cannot
 * be written. */
int end_command(const std::string& command, int status);
