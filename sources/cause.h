/* SPDX-License-Identifier: MIT */
/* cause.h - which incident of this node a unit failed from. */
#pragma once

#include <string>

#include "journal.h"
#include "unit.h"

inline constexpr char UNITS_STACK[] = "units.stack";

/* The Error ID of the newest incident that a process of the run recorded in any stack, else that of the newest failure, at most
 * a minute ago, of a unit that this one needs; empty for none. No stack is locked, and none is waited for. */
std::string find_cause(const unit_t& unit, const run_t& run, int64_t now);
