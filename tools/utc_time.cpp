/* SPDX-License-Identifier: MIT */
/* utc_time.cpp - writes times as RFC 3339 has them, and reads them again. */
#include "utc_time.h"

#include <array>
#include <cstdio>
#include <ctime>

std::string utc_time(int64_t seconds) {
  const time_t time = seconds;
  std::tm parts = {};
  gmtime_r(&time, &parts);
  std::array<char, 80> text;
  const int size = std::snprintf(text.data(), text.size(), "%04d-%02d-%02dT%02d:%02d:%02dZ", parts.tm_year + 1900,
                                 parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
  return {text.data(), static_cast<size_t>(size)};
}

std::string utc_time_of_microseconds(int64_t microseconds) {
  std::string text = utc_time(microseconds / SECOND);
  std::array<char, 16> fraction;
  std::snprintf(fraction.data(), fraction.size(), ".%06dZ", static_cast<int>(microseconds % SECOND));
  text.replace(text.size() - 1, 1, fraction.data());
  return text;
}

bool parse_utc_time(std::string_view text, int64_t* microseconds) {
  const std::string copy(text);
  std::tm parts = {};
  int fraction = 0;
  const int taken = std::sscanf(copy.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%6d", &parts.tm_year, &parts.tm_mon,
                                &parts.tm_mday, &parts.tm_hour, &parts.tm_min, &parts.tm_sec, &fraction);
  if (taken < 6) return false;
  parts.tm_year -= 1900;
  parts.tm_mon -= 1;
  const int64_t seconds = timegm(&parts);
  *microseconds = seconds * SECOND + fraction;
  return copy == (taken == 6 ? utc_time(seconds) : utc_time_of_microseconds(*microseconds));
}
