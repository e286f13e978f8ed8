/* SPDX-License-Identifier: MIT */
/* utc_time.h - times as RFC 3339 has them, in UTC. */
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>

inline constexpr int64_t SECOND = 1000000; /* microseconds */

/* A date and a time of day, as "2026-11-25" and "12:30:00". Years have four digits: no recorded time is of another. */
std::string date_text(const std::tm& parts);
std::string clock_text(const std::tm& parts);

/* Times of seconds, and of microseconds, since the Epoch. */
std::string utc_time(int64_t seconds);
std::string utc_time_of_microseconds(int64_t microseconds);

/* Microseconds of such a time, which has to be written exactly so; false for anything else. */
bool parse_utc_time(std::string_view text, int64_t* microseconds);
