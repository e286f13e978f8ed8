/* SPDX-License-Identifier: MIT */
/* journal.h - what the journal has of a run of a unit. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

struct run_t {
  std::string lines;           /* the newest, the oldest first, with newlines between */
  std::set<int32_t> processes; /* that wrote them */
};

/* Reads the newest lines of the run `invocation` of `unit`, as many as take `room` bytes; of each its beginning. The run began
 * at `started`, microseconds since the Epoch. A journal that cannot be read is empty. Waits a moment for lines that are on their way. */
run_t read_run(const std::string& unit, const std::string& invocation, int64_t started, size_t room);
