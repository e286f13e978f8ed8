/* SPDX-License-Identifier: MIT */
/* judge.h - what a line is, as far as the database need not find it out. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/* What makes a row of an incident. */
struct judged_line_t {
  std::string key;   /* its Error ID */
  std::string cause; /* empty for none */
  int64_t time;      /* microseconds since the Epoch */
  int16_t bucket;
};

/* Whether a line is that of an incident with an Error ID, byte for byte as zkexport writes it. Of a few that are, and of all that
 * are something else, it says no: the database will read them. */
bool judge_line(std::string_view line, judged_line_t* judged);

/* The rows of a database are spread by a number of 12 bits, which an Error ID holds: zelk_bucket of the schema. */
inline constexpr int BUCKETS = 4096;

/* The bucket of a text as long as an Error ID, or -1 where that cannot be read. */
int bucket_of_id(std::string_view id);
