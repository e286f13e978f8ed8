/* SPDX-License-Identifier: MIT */
/* trace.cpp - the input is a message, a NUL and a trace file; the message is appended to the file. */
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "fuzz.h"
#include "qx_zelk.h"

constexpr size_t CONTROL_LINE_SIZE = 36; /* bytes */

static bool take_control_line(const std::string& contents, off_t* next_write, off_t* file_size) {
  const std::string line = contents.substr(0, CONTROL_LINE_SIZE);
  int wraps = 0;
  return line.size() == CONTROL_LINE_SIZE &&
         zk_get_file_ctrl_info(line.c_str(), next_write, file_size, &wraps) == ZELK_SUCCESS && *next_write >= 36;
}

/* What may have become of a file that held `before` when an entry of `entry_max` bytes at most came. */
static void check(const std::string& before, const std::string& after, int result, size_t entry_max) {
  constexpr std::string_view END_MARKER = "[END OF FINAL ENTRY]\n";
  constexpr off_t RECYCLE_MARKER_SIZE = 22;
  off_t next_write = 0, file_size = 0, new_size = 0;
  if (!take_control_line(before, &next_write, &file_size))
    return FUZZ_EXPECT(result == ZELK_FILE_CORRUPT && after == before);
  /* An entry lies within the stated size or starts behind the control line; the recycle marker does not. */
  const size_t stated = static_cast<size_t>(std::max(file_size, next_write + RECYCLE_MARKER_SIZE));
  const size_t first = CONTROL_LINE_SIZE + entry_max + END_MARKER.size();
  FUZZ_EXPECT(after.size() <= std::max({before.size(), stated, first}));
  if (result != ZELK_SUCCESS) return;
  FUZZ_EXPECT(take_control_line(after, &next_write, &new_size) && new_size == file_size);
  FUZZ_EXPECT(after.compare(static_cast<size_t>(next_write), END_MARKER.size(), END_MARKER) == 0);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string input(data, data + size);
  const char* message = input.c_str();
  const std::string contents = input.substr(std::min(std::strlen(message) + 1, size));

  int fildes = fuzz_file(contents);
  errno = EXDEV;
  int result = zk_debug(fuzz_path(fildes).c_str(), message, "in %s: %s", message, message);
  FUZZ_EXPECT(errno == EXDEV);
  check(contents, fuzz_contents(fildes), result, 1023);

  fildes = fuzz_file(contents);
  result = zk_record_debug_info(fildes, message);
  check(contents, fuzz_contents(fildes), result, std::strlen(message));
  return 0;
}
