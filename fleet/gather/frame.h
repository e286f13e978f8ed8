/* SPDX-License-Identifier: MIT */
/* frame.h - what a node sends: frames of RELP, and in them lines with a header of syslog (RFC 5424). Nothing here trusts a
 * byte, or keeps anything between calls; what is parsed is not copied. */
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/* NUMBER SP COMMAND SP LENGTH [SP CONTENT] LF */
inline constexpr int FRAME_NUMBER_MAX = 999999999;     /* the next one is 1 */
inline constexpr size_t FRAME_CONTENT_MAX = 64 * 1024; /* bytes; what is longer is no line of zkexport */
inline constexpr size_t FRAME_SIZE_MAX = FRAME_CONTENT_MAX + 64;

enum frame_result_t {
  FRAME_WHOLE, /* `frame` is set */
  FRAME_SHORT, /* so far it could be one: at most FRAME_SIZE_MAX bytes */
  FRAME_BAD    /* it is none, whatever follows: `reason` is set */
};

struct frame_t {
  int number;
  std::string_view command; /* both are parts of the bytes that were given */
  std::string_view content;
  size_t size; /* of the frame, in bytes */
  const char* reason;
};

/* Parses the frame at the beginning of `bytes`. */
frame_result_t parse_frame(std::string_view bytes, frame_t* frame);

/* Appends a frame to `bytes`, and moves `number` on to the next one. */
void append_frame(std::string* bytes, int* number, std::string_view command, std::string_view content);

/* A line with where it comes from, parts of a message. What is no name there is empty. */
struct syslog_line_t {
  std::string_view host;
  std::string_view place; /* syslog's process id: file and offset in the node's spool */
  std::string_view line;
};

/* Splits <PRIORITY>1 TIME HOST PROGRAM PLACE ID - LINE. A message without such a header is a line as it is. */
syslog_line_t split_message(std::string_view message);

/* The message that is split so. */
std::string make_message(std::string_view host, std::string_view place, std::string_view line);
