/* SPDX-License-Identifier: MIT */
/* zk_utils.cpp - base-64 numbers and what recording programs need beside the Error ID. */

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <string_view>

#include "zk_eid_layout.h"
#include "zk_trace.h"

constexpr char base64_table[65] = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";

enum { DIGIT_BITS = 6, DIGIT_MASK = 63, DIGITS_MAX = 6, VALUE_BITS = 64 };

/* The value of each character; 0 for those that are no digits. */
static constexpr std::array<uint8_t, 256> DIGIT_VALUES = [] {
  std::array<uint8_t, 256> values = {};
  for (uint8_t value = 0; value <= DIGIT_MASK; ++value) values[static_cast<uint8_t>(base64_table[value])] = value;
  return values;
}();

int zk_l64a_r(uint64_t convert, char* buffer, int length) {
  if (buffer == nullptr) {
    errno = EINVAL;
    return -1;
  }
  int count = 0;
  for (; count < DIGITS_MAX && convert != 0; ++count) {
    if (length < count) {
      buffer[0] = '\0';
      errno = EINVAL;
      return -1;
    }
    buffer[count] = base64_table[convert & DIGIT_MASK];
    convert >>= DIGIT_BITS;
  }
  buffer[count] = '\0';
  return 0;
}

uint64_t zk_a64l(const char* convert) {
  if (convert == nullptr) return 0;
  uint64_t value = 0;
  for (int shift = 0; shift < VALUE_BITS && *convert != '\0'; shift += DIGIT_BITS, ++convert)
    value |= static_cast<uint64_t>(DIGIT_VALUES[static_cast<uint8_t>(*convert)]) << shift;
  return value;
}

void zk_write_digits(uint64_t value, char* field, size_t width) {
  for (size_t index = 0; index < width; ++index, value >>= DIGIT_BITS) field[index] = base64_table[value & DIGIT_MASK];
}

const char* zk_result_name(int result) {
#define RESULT_NAME(name, value) \
  case value:                    \
    return #name;
  switch (result) {
    ZELK_RESULT_CODES(RESULT_NAME)
    default:
      return "";
  }
#undef RESULT_NAME
}

/* The last component of a path: as basename() has it, but without a copy and so without a limit. */
static std::string_view base_name(std::string_view path) {
  if (path.empty()) return ".";
  while (path.size() > 1 && path.ends_with('/')) path.remove_suffix(1);
  if (path != "/") path.remove_prefix(path.rfind('/') + 1);
  return path;
}

int zk_make_file_info_msg(int debug_active, const char* debug_file, char* buffer, const char* lpp_name,
                          const char* detecting_file, const char* sid_level, int line_pos, int* error_flags) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  const std::string_view file = base_name(error_flags[ZELK_FLAG_FILE] == 0 ? detecting_file : "unknown_file");
  const char* product = error_flags[ZELK_FLAG_PRODUCT] == 0 ? lpp_name : "pps_product";
  const char* version = error_flags[ZELK_FLAG_VERSION] == 0 ? sid_level : "no_version_num";
  int line = error_flags[ZELK_FLAG_LINE] == 0 ? line_pos : 0;

  int printed = std::snprintf(buffer, ZELK_FILE_INFO_SIZE, "%s,%.*s,%s,%d", product, static_cast<int>(file.size()),
                              file.data(), version, line);
  size_t length = static_cast<size_t>(std::max(printed, 0));
  if (length < ZELK_FILE_INFO_SIZE) {
    std::memset(buffer + length, ' ', ZELK_FILE_INFO_SIZE - length);
    return ZELK_FILE_INFO_SIZE;
  }
  zk_trace(trace,
           "File Identification information \"%s\" is %d chars long, being truncated\n"
           "Some information will be lost\n",
           buffer, printed);
  std::memset(buffer + ZELK_FILE_INFO_SIZE, 0, length - ZELK_FILE_INFO_SIZE);
  buffer[ZELK_FILE_INFO_SIZE - 1] = '>';
  return ZELK_FILE_INFO_SIZE;
}

void zk_determine_bsd_priority(int debug_active, const char* debug_file, int event_type, int* bsd_pri, int track_errors,
                               int* error_flags) {
  /* By event type. Notices come before warnings. */
  static constexpr std::array<int, ZELK_DEBUG + 1> PRIORITIES = {LOG_EMERG, LOG_ERR,   LOG_NOTICE, LOG_WARNING,
                                                                 LOG_INFO,  LOG_DEBUG, LOG_DEBUG};
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (event_type >= 0 && event_type < static_cast<int>(PRIORITIES.size())) {
    *bsd_pri = PRIORITIES[static_cast<size_t>(event_type)];
  } else {
    zk_trace(trace, "Invalid ZELK Event Type %d - mapping to type %s(%d)\n", event_type, "ZELK_DEBUG",
             static_cast<int>(ZELK_DEBUG));
    *bsd_pri = LOG_DEBUG;
    if (track_errors == 1) error_flags[ZELK_FLAG_EVENT_TYPE] = 1;
  }
  zk_trace(trace, "Assigning SysLog priority of %d to event type %d\n", *bsd_pri, event_type);
}
