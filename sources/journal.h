/* SPDX-License-Identifier: MIT */
/* journal.h - what the journal has of a run of a unit. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "unit.h"

struct run_t {
  std::string lines;           /* the newest, the oldest first, with newlines between */
  std::set<int32_t> processes; /* that wrote them */
};

/* Reads the newest lines of the last run of a unit, as many as take `room` bytes; of each its beginning. A journal that cannot
 * be read is empty. Waits a moment for lines that are on their way. */
run_t read_run(const unit_t& unit, size_t room);
