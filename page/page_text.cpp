/* SPDX-License-Identifier: MIT */
/* page_text.cpp - texts and times as the page has them. */
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "page.h"
#include "text.h"
#include "utc_time.h"

static constexpr auto is_plain = [](char character) {
  return character >= ' ' && character <= '~' && character != '&' && character != '<' && character != '>' &&
         character != '"' && character != '\'';
};

std::string escaped(std::string_view text) {
  if (std::all_of(text.begin(), text.end(), is_plain)) return std::string(text); /* nearly always */
  std::string made;
  for (char character : readable(text)) {
    switch (character) {
      case '&':
        made += "&amp;";
        break;
      case '<':
        made += "&lt;";
        break;
      case '>':
        made += "&gt;";
        break;
      case '"':
        made += "&quot;";
        break;
      case '\'':
        made += "&#39;";
        break;
      default:
        made += character;
    }
  }
  return made;
}

std::string recorded(std::string_view text) {
  return "<bdi>" + escaped(text) + "</bdi>";
}

static constexpr std::string_view PLAIN_IN_LINKS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789./-_";

std::string attribute(std::string_view text) {
  const bool is_bare = !text.empty() && text.find_first_not_of(PLAIN_IN_LINKS) == text.npos;
  return is_bare ? std::string(text) : '"' + escaped(text) + '"';
}

std::string anchor_of(std::string_view id) {
  std::string anchor;
  for (const char character : readable(id))
    if (character == '\n' || character == '\t')
      anchor += REPLACEMENT;
    else
      anchor += character;
  return anchor;
}

std::string fragment(std::string_view anchor) {
  static constexpr char DIGITS[] = "0123456789ABCDEF";
  std::string made = "#";
  for (char character : anchor) {
    const auto byte = static_cast<unsigned char>(character);
    if (PLAIN_IN_LINKS.find(character) != PLAIN_IN_LINKS.npos)
      made += character;
    else
      made += {'%', DIGITS[byte >> 4], DIGITS[byte & 0xF]};
  }
  return made;
}

std::string count_of(size_t count, const char* one, const char* many) {
  std::string digits = std::to_string(count);
  for (size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
  return digits + " " + (count == 1 ? one : many);
}

std::string formatted(const char* format, ...) {
  std::array<char, 1024> text;
  va_list arguments;
  va_start(arguments, format);
  const int size = std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  return {text.data(), static_cast<size_t>(std::clamp(size, 0, int{sizeof text} - 1))};
}

/* ---- Local times --------------------------------------------------------------------------------------------------- */

static int64_t seconds_of(int64_t microseconds) {
  return microseconds / SECOND - (microseconds % SECOND < 0 ? 1 : 0);
}

static std::tm local_time(int64_t microseconds) {
  const time_t time = seconds_of(microseconds);
  std::tm parts = {};
  localtime_r(&time, &parts);
  return parts;
}

std::string local_date(int64_t microseconds) {
  static constexpr const char* DAYS[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
  const std::tm parts = local_time(microseconds);
  return std::string(DAYS[parts.tm_wday]) + " " + date_text(parts);
}

std::string local_clock(int64_t microseconds, bool has_milliseconds) {
  std::string clock = clock_text(local_time(microseconds));
  if (!has_milliseconds) return clock;
  return clock + formatted(".%03d", static_cast<int>((microseconds - seconds_of(microseconds) * SECOND) / 1000));
}

std::string local_zone(int64_t microseconds) {
  const std::tm parts = local_time(microseconds);
  return parts.tm_zone == nullptr ? "UTC" : parts.tm_zone;
}

int64_t local_offset(int64_t microseconds) {
  return local_time(microseconds).tm_gmtoff * SECOND;
}
