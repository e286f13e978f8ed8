/* SPDX-License-Identifier: MIT */
/* zk_eid_layout.h - how the 42 characters of an Error ID lie, for those that take one apart or put one together.
 * qx_zelk.h says what they mean. */
#pragma once

#include <syslog.h>

#include <array>
#include <cstring>

#include "qx_zelk.h"

struct zk_trace_t;

/* Widths in characters. */
inline constexpr size_t ZK_ENTRY_WIDTH = 6;
inline constexpr size_t ZK_SECONDS_WIDTH = 6;
inline constexpr size_t ZK_MICROSECONDS_WIDTH = 4;
inline constexpr size_t ZK_TIME_WIDTH = ZK_SECONDS_WIDTH + ZK_MICROSECONDS_WIDTH;
inline constexpr size_t ZK_ADDR_CODE_WIDTH = ZELK_ADDR_CODE_SIZE - 1;
inline constexpr size_t ZK_ADDR_WIDTH = ZK_ADDR_CODE_WIDTH + 1; /* the code, then its type: as in ZELKADDR */

inline constexpr char ZK_ZERO_DIGIT = '.'; /* pads every field */

/* Address types. */
inline constexpr char ZK_IPV4_TYPE = '.';
inline constexpr char ZK_IPV6_TYPE = '/';

/* An address in network byte order. IPv4 has one word, the others are 0. */
inline constexpr size_t ZK_ADDR_WORDS = 4;
using zk_addr_words_t = std::array<uint32_t, ZK_ADDR_WORDS>;

/* Facilities are in their shifted form, as syslog has them. */
inline constexpr int ZK_FACILITY_MAX = LOG_LOCAL7;
inline constexpr int ZK_PRIORITY_MAX = LOG_DEBUG;

/* The parts of an Error ID where they lie in it; none has a terminator. */
struct zk_eid_parts_t {
  char header;
  char entry[ZK_ENTRY_WIDTH];
  char time[ZK_TIME_WIDTH];
  char address[ZK_ADDR_WIDTH];
};
static_assert(sizeof(zk_eid_parts_t) == ZELK_EID_LENGTH);

/* The first `WIDTH` characters of `text`, fewer when it ends before, as a text of their own. */
template <size_t WIDTH>
std::array<char, WIDTH + 1> zk_field_text(const char* text) {
  std::array<char, WIDTH + 1> field = {};
  std::memcpy(field.data(), text, strnlen(text, WIDTH));
  return field;
}

/* Writes `width` digits of `value`, least significant first, without a terminator: a small value is padded, of a large
 * one the low 6 * `width` bits remain. */
void zk_write_digits(uint64_t value, char* field, size_t width);

/* Writes the ZK_TIME_WIDTH characters of a time stamp, without a terminator. */
void zk_write_time(const struct timeval& time, char* field);

/* Writes the header of an ID of that version and location. */
void zk_write_header(const zk_trace_t& trace, int version, int location, zk_eid_parts_t* parts);

/* Puts the parts together: ZELK_EID_SIZE bytes at `zelkid`. */
void zk_join_eid(const zk_eid_parts_t& parts, char* zelkid);
