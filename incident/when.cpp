/* SPDX-License-Identifier: MIT */
/* when.cpp - parses times as they are written on a command line. Each routine reads on in `rest`, and returns false where
 * that does not go on with what it reads. */
#include "when.h"

#include <algorithm>
#include <chrono>
#include <ctime>

/* Microseconds of a second, and of the units that are shorter; one of the two numbers is 0. */
static constexpr int64_t MICROSECONDS = 1000000;
struct time_unit_t {
  std::string_view name;
  int64_t seconds;
  int64_t microseconds = 0;
};
static constexpr time_unit_t UNITS[] = {{"", 1},           {"s", 1},           {"sec", 1},
                                        {"second", 1},     {"seconds", 1},     {"m", 60},
                                        {"min", 60},       {"minute", 60},     {"minutes", 60},
                                        {"h", 3600},       {"hr", 3600},       {"hour", 3600},
                                        {"hours", 3600},   {"d", 86400},       {"day", 86400},
                                        {"days", 86400},   {"w", 604800},      {"week", 604800},
                                        {"weeks", 604800}, {"month", 2629800}, {"months", 2629800},
                                        {"y", 31557600},   {"year", 31557600}, {"years", 31557600},
                                        {"ms", 0, 1000},   {"msec", 0, 1000},  {"us", 0, 1},
                                        {"usec", 0, 1},    {"\xC2\xB5s", 0, 1}};

static bool read_mark(std::string_view* rest, char mark) {
  if (!rest->starts_with(mark)) return false;
  rest->remove_prefix(1);
  return true;
}

static bool read_digits(std::string_view* rest, size_t least, size_t most, int64_t* number) {
  size_t size = 0;
  *number = 0;
  for (; size < rest->size() && size < most && (*rest)[size] >= '0' && (*rest)[size] <= '9'; ++size)
    *number = *number * 10 + ((*rest)[size] - '0');
  rest->remove_prefix(size);
  return size >= least;
}

/* Reads two digits up to `highest`; where they are above, the reading stands at them. */
static bool read_two(std::string_view* rest, int64_t highest, int* number) {
  const std::string_view start = *rest;
  int64_t digits = 0;
  const bool is_read = read_digits(rest, 2, 2, &digits) && digits <= highest;
  if (!is_read) *rest = start;
  *number = static_cast<int>(digits);
  return is_read;
}

static void skip_blanks(std::string_view* rest) {
  while (read_mark(rest, ' ')) continue;
}

static bool read_date(std::string_view* rest, std::tm* parts) {
  const std::string_view start = *rest;
  int64_t year = 0;
  int month = 0, day = 0;
  if (!read_digits(rest, 4, 4, &year) || !read_mark(rest, '-') || !read_two(rest, 12, &month) ||
      !read_mark(rest, '-') || !read_two(rest, 31, &day))
    return false;
  const std::chrono::year_month_day date = std::chrono::year(static_cast<int>(year)) / month / day;
  if (!date.ok()) *rest = start;
  parts->tm_year = static_cast<int>(year) - 1900;
  parts->tm_mon = month - 1;
  parts->tm_mday = day;
  return date.ok();
}

/* Reads up to nine digits behind a point, if one stands there: `*millionths` of one, rounded up. */
static bool read_fraction(std::string_view* rest, int64_t* millionths) {
  *millionths = 0;
  if (!read_mark(rest, '.')) return true;
  const size_t before = rest->size();
  int64_t digits = 0;
  const bool is_read = read_digits(rest, 1, 9, &digits);
  int64_t billionths = digits;
  for (size_t count = before - rest->size(); count < 9; ++count) billionths *= 10;
  *millionths = (billionths + 999) / 1000;
  return is_read;
}

/* Reads a time of day. A fraction of a second makes `*is_later`. */
static bool read_clock(std::string_view* rest, std::tm* parts, bool* is_later) {
  int64_t millionths = 0;
  *is_later = false;
  if (!read_two(rest, 23, &parts->tm_hour) || !read_mark(rest, ':') || !read_two(rest, 59, &parts->tm_min))
    return false;
  if (!read_mark(rest, ':')) return true;
  if (!read_two(rest, 59, &parts->tm_sec)) return false;
  const bool is_read = read_fraction(rest, &millionths);
  *is_later = millionths > 0;
  return is_read;
}

/* Reads "Z", "UTC" or an offset, if one stands there: `*offset` in seconds. */
static bool read_zone(std::string_view* rest, bool* is_given, int* offset) {
  const std::string_view start = *rest;
  skip_blanks(rest);
  *offset = 0;
  *is_given = true;
  if (read_mark(rest, 'Z')) return true;
  if (rest->starts_with("UTC")) {
    rest->remove_prefix(3);
    return true;
  }
  const bool is_behind = rest->starts_with('-');
  if (!is_behind && !rest->starts_with('+')) {
    *rest = start;
    *is_given = false;
    return true;
  }
  rest->remove_prefix(1);
  int hours = 0, minutes = 0;
  if (!read_two(rest, 23, &hours)) return false;
  const bool has_minutes = read_mark(rest, ':') || !rest->empty();
  if (has_minutes && !read_two(rest, 59, &minutes)) return false;
  *offset = (is_behind ? -1 : 1) * (hours * 3600 + minutes * 60);
  return true;
}

/* Reads a date, a time of day or both. */
static bool read_moment(std::string_view* rest, int64_t now, int64_t* seconds) {
  const time_t today = now;
  std::tm parts = {};
  bool is_later = false, has_zone = false;
  int offset = 0;
  localtime_r(&today, &parts);
  parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
  const bool has_date = rest->size() > 4 && (*rest)[4] == '-';
  if (has_date && !read_date(rest, &parts)) return false;
  const bool has_clock = !has_date || read_mark(rest, 'T') || read_mark(rest, ' ');
  if (has_clock && !(read_clock(rest, &parts, &is_later) && read_zone(rest, &has_zone, &offset))) return false;
  parts.tm_isdst = -1;
  *seconds = (has_zone ? timegm(&parts) - offset : mktime(&parts)) + (is_later ? 1 : 0);
  return true;
}

/* Seconds: what a number of ten digits adds to them, even of years, still fits. */
static constexpr int64_t SPAN_MAX = 100'000'000'000'000'000;

/* Reads numbers with their units, as "1h 30min" or "1.5h": whole seconds, and microseconds beyond them. */
static bool read_span(std::string_view* rest, int64_t* seconds, int64_t* microseconds) {
  *seconds = *microseconds = 0;
  do {
    int64_t number = 0, millionths = 0;
    skip_blanks(rest);
    if (!read_digits(rest, 1, 10, &number) || !read_fraction(rest, &millionths)) return false;
    if (!rest->empty() && (*rest)[0] >= '0' && (*rest)[0] <= '9')
      return false; /* too many digits are no second number */
    skip_blanks(rest);
    const std::string_view name = rest->substr(0, rest->find_first_of(" 0123456789"));
    const time_unit_t* const unit =
        std::find_if(std::begin(UNITS), std::end(UNITS), [&](const time_unit_t& each) { return each.name == name; });
    if (unit == std::end(UNITS)) return false;
    *microseconds += number * unit->microseconds + millionths * unit->seconds;
    *seconds += number * unit->seconds + *microseconds / MICROSECONDS;
    *microseconds %= MICROSECONDS;
    if (*seconds > SPAN_MAX) return false;
    rest->remove_prefix(name.size());
  } while (!rest->empty());
  return true;
}

/* Reads the name of a day: its first moment. */
static bool read_day(std::string_view* rest, int64_t now, int64_t* seconds) {
  static constexpr struct {
    std::string_view name;
    int days;
  } DAYS[] = {{"yesterday", -1}, {"today", 0}, {"tomorrow", 1}};
  for (const auto& day : DAYS) {
    if (*rest != day.name) continue;
    const time_t time = now;
    std::tm parts = {};
    localtime_r(&time, &parts);
    parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
    parts.tm_mday += day.days;
    parts.tm_isdst = -1;
    *seconds = mktime(&parts);
    rest->remove_prefix(day.name.size());
    return true;
  }
  return false;
}

static bool read_when(std::string_view* rest, int64_t now, int64_t* seconds) {
  static constexpr std::string_view AGO = " ago";
  *seconds = now;
  if (*rest == "now") {
    *rest = "";
    return true;
  }
  if (read_day(rest, now, seconds)) return true;
  int64_t part = 0; /* of a second, in microseconds */
  if (read_mark(rest, '@')) {
    const bool is_read = read_digits(rest, 1, 12, seconds) && read_fraction(rest, &part);
    *seconds += part > 0 ? 1 : 0;
    return is_read;
  }
  const bool is_ago = rest->ends_with(AGO);
  if (is_ago) rest->remove_suffix(AGO.size());
  const bool is_before = is_ago || rest->starts_with('-');
  if (!is_before && !rest->starts_with('+')) return read_moment(rest, now, seconds);
  if (!is_ago) rest->remove_prefix(1);
  int64_t span = 0;
  if (!read_span(rest, &span, &part)) return false;
  *seconds = is_before ? now - span : now + span + (part > 0 ? 1 : 0); /* -0.1s is within the second of now */
  return true;
}

bool parse_when(std::string_view text, int64_t now, int64_t* seconds, size_t* place) {
  std::string_view rest = text;
  const bool is_read = read_when(&rest, now, seconds);
  *place = rest.empty() && is_read ? text.size() : static_cast<size_t>(rest.data() - text.data());
  return is_read && rest.empty();
}
