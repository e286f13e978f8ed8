/* SPDX-License-Identifier: MIT */
/* repeats.h - counts failures of a unit that are like one that has been recorded within the hour. */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

/* A result of a unit: when it was recorded last, and what was passed over since. Times are seconds since the Epoch. */
struct repeat_t {
  int64_t recorded;
  uint64_t passed_over;
  int64_t since; /* the first of those */
  std::string result;
};

/* Reads what is known of the unit's results in `folder`; what cannot be read is not known. */
std::vector<repeat_t> read_repeats(const std::string& folder, const std::string& unit);

/* Keeps it, less what is older than an hour and tells nothing. Returns false, with errno set, when that is not possible. */
bool write_repeats(const std::string& folder, const std::string& unit, int64_t now,
                   const std::vector<repeat_t>& repeats);

/* Whether this failure is to be passed over; it is then counted. Where it is not it counts as recorded, and `*told` is what
 * was passed over before. */
bool is_repeat(const std::string& result, int64_t now, std::vector<repeat_t>* repeats, repeat_t* told);
