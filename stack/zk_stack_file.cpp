/* SPDX-License-Identifier: MIT */
/* zk_stack_file.cpp - finds and opens the file of an Error Stack. */
#include "zk_stack_file.h"

#include <algorithm>
#include <cstdio>

#include "zk_io.h"

zk_stack_path_t zk_stack_path(const char* name, int name_max) {
  constexpr char PREFIX[] = ZELK_STACK_DIR "/";
  constexpr int RELATIVE_NAME_MAX = 4095 - (sizeof PREFIX - 1);
  const bool is_relative = *name != '/';
  if (is_relative) name_max = std::min(name_max, RELATIVE_NAME_MAX);
  zk_stack_path_t path;
  std::snprintf(path.data(), path.size(), "%s%.*s", is_relative ? PREFIX : "", name_max, name);
  return path;
}

int zk_open_stack_path(const zk_trace_t& trace, const zk_stack_path_t& path, int* fildes) {
  static constexpr zk_errno_result_t OPEN_RESULTS[] = {{ENOENT, ZELK_FILE_MISSING},
                                                       {EACCES, ZELK_NO_ACCESS},
                                                       {ENOTDIR, ZELK_NO_ACCESS},
                                                       {ENFILE, ZELK_TOO_MANY},
                                                       {EMFILE, ZELK_TOO_MANY}};
  zk_trace(trace, "Attempting to open ZELK Error Stack file %s", path.data());
  int opened = zk_open_regular(path.data(), O_RDWR);
  if (opened == -1) {
    int error = errno;
    zk_trace(trace, "Unable to open ZELK Error Stack file %s - error code is %d", path.data(), error);
    return zk_result_of_errno(error, OPEN_RESULTS);
  }
  *fildes = opened;
  return ZELK_SUCCESS;
}
