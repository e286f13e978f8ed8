/* SPDX-License-Identifier: MIT */
/* utc_time.cpp - writes times as RFC 3339 has them, and reads them again. */
#include "utc_time.h"

#include <chrono>

/* Writes a number over the zeros from `at` on, of which there are `count`. printf would take ten times as long. */
static void put_digits(std::string* zeros, size_t at, size_t count, int64_t number) {
  for (size_t left = count; left > 0; --left, number /= 10)
    (*zeros)[at + left - 1] = static_cast<char>('0' + number % 10);
}

std::string date_text(const std::tm& parts) {
  std::string text = "0000-00-00";
  put_digits(&text, 0, 4, parts.tm_year + 1900);
  put_digits(&text, 5, 2, parts.tm_mon + 1);
  put_digits(&text, 8, 2, parts.tm_mday);
  return text;
}

std::string clock_text(const std::tm& parts) {
  std::string text = "00:00:00";
  put_digits(&text, 0, 2, parts.tm_hour);
  put_digits(&text, 3, 2, parts.tm_min);
  put_digits(&text, 6, 2, parts.tm_sec);
  return text;
}

std::string utc_time(int64_t seconds) {
  const time_t time = seconds;
  std::tm parts = {};
  gmtime_r(&time, &parts);
  return date_text(parts) + "T" + clock_text(parts) + "Z";
}

std::string utc_time_of_microseconds(int64_t microseconds) {
  std::string text = utc_time(microseconds / SECOND);
  text.replace(text.size() - 1, 1, ".000000Z");
  put_digits(&text, text.size() - 7, 6, microseconds % SECOND);
  return text;
}

/* Parses `count` digits at `at`; false for anything else. */
static bool parse_digits(std::string_view text, size_t at, size_t count, int* number) {
  *number = 0;
  for (char digit : text.substr(at, count)) {
    if (digit < '0' || digit > '9') return false;
    *number = *number * 10 + (digit - '0');
  }
  return true;
}

bool parse_utc_time(std::string_view text, int64_t* microseconds) {
  static constexpr std::string_view SECONDS = "0000-00-00T00:00:00Z", FRACTION = "0000-00-00T00:00:00.000000Z";
  const std::string_view form = text.size() == SECONDS.size() ? SECONDS : FRACTION;
  if (text.size() != form.size()) return false;
  for (size_t at = 0; at < form.size(); ++at)
    if (form[at] != '0' && text[at] != form[at]) return false;

  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, fraction = 0;
  if (!parse_digits(text, 0, 4, &year) || !parse_digits(text, 5, 2, &month) || !parse_digits(text, 8, 2, &day) ||
      !parse_digits(text, 11, 2, &hour) || !parse_digits(text, 14, 2, &minute) || !parse_digits(text, 17, 2, &second))
    return false;
  if (form == FRACTION && !parse_digits(text, 20, 6, &fraction)) return false;
  const std::chrono::year_month_day date = std::chrono::year(year) / month / day;
  if (!date.ok() || hour > 23 || minute > 59 || second > 59) return false;
  const std::chrono::seconds time = std::chrono::sys_days(date).time_since_epoch() + std::chrono::hours(hour) +
                                    std::chrono::minutes(minute) + std::chrono::seconds(second);
  *microseconds = time.count() * SECOND + fraction;
  return true;
}
