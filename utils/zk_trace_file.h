/* SPDX-License-Identifier: MIT */
/* zk_trace_file.h - the layout of the debug trace file, shared by the routine that makes it and those that
 * write it. qx_zelk.h shows it as a whole. */
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdio>

enum {
  ZK_TRACE_FILE_SIZE = 16384,
  ZK_TRACE_FILE_SIZE_MIN = 8192,
  ZK_TRACE_CONTROL_SIZE = 36, /* control line; the entries start behind it */
  ZK_TRACE_NUMBER_WIDTH = 5   /* characters of a number in the control line */
};

/* Keys of the control line. */
#define ZK_TRACE_OFFSET_KEY "ZKTFO="
#define ZK_TRACE_WRAPS_KEY "ZKTFW="
#define ZK_TRACE_SIZE_KEY "ZKTFS="

/* The control line as text: numbers that outgrow their width make it longer than it is in the file. */
typedef std::array<char, 2 * ZK_TRACE_CONTROL_SIZE> zk_control_line_t;

/* Prints the control line and returns its length. */
inline int zk_format_control_line(zk_control_line_t* line, off_t next_write, int wraps, off_t file_size) {
  return std::snprintf(line->data(), line->size(),
                       ZK_TRACE_OFFSET_KEY "%-5lld " ZK_TRACE_WRAPS_KEY "%-5d " ZK_TRACE_SIZE_KEY "%-5lld\n",
                       static_cast<long long>(next_write), wraps, static_cast<long long>(file_size));
}
