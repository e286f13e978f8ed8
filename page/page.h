/* SPDX-License-Identifier: MIT */
/* page.h - the page of a chain, and what its parts know of the incidents. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "chain.h"

/* Gives the whole page. */
std::string make_html(const chain_t& chain);

/* A row of the tree: an incident, or the head of the repeats that follow it. */
struct row_t {
  size_t index; /* of the incident, the first of the repeats */
  size_t depth;
  size_t repeats; /* so many rows that follow are repeats of one incident; 0 for an incident */
};

/* The different texts that incidents have in one place, and which each of them has. */
struct choice_t {
  std::vector<std::string> texts;
  std::vector<size_t> chosen; /* by incident */
};

/* The incidents with what the page needs of each, by index. */
struct page_t {
  const chain_t* chain;
  std::vector<std::string> anchors; /* the Error ID; of two with the same the first has it */
  std::vector<std::vector<size_t>> effects;
  std::vector<row_t> rows;  /* each incident behind its cause */
  std::vector<int> colours; /* one for all that goes back to the same incident, 0 for what stands alone */
  choice_t nodes, processes, products;
  std::vector<size_t> bars;       /* the lane of the drawing for each lane of the chain; */
  std::vector<size_t> bar_firsts; /* the first incident of each of those */
  size_t other_lanes;             /* so many lanes share the last one, 0 for none */
  bool has_one_stack;
  bool is_brief;         /* records refer to tables for what many have in common */
  bool has_milliseconds; /* they matter where everything happens within a minute */
  bool has_numbers;      /* marks have the numbers of their incidents */
};

/* Texts within the page's own, also within an attribute: recorded text cannot become anything else. */
std::string escaped(std::string_view text);

/* The same where other text stands beside it, which it cannot turn. */
std::string recorded(std::string_view text);

/* A value of an attribute, in quotes where it needs them. */
std::string attribute(std::string_view text);

/* The anchor of an Error ID: the ID, with U+FFFD also for what may stand in texts, and not in the name of an element. */
std::string anchor_of(std::string_view id);

/* Where a link to an anchor leads. */
std::string fragment(std::string_view anchor);

std::string count_of(size_t count, const char* one, const char* many);

/* Local times of microseconds since the Epoch: the day, the time of day, the zone. */
std::string local_date(int64_t microseconds);
std::string local_clock(int64_t microseconds, bool has_milliseconds);
std::string local_zone(int64_t microseconds);
int64_t local_offset(int64_t microseconds); /* of the zone from UTC, in microseconds */

/* What printf(3) makes of its arguments, up to 1023 characters of it. */
std::string formatted(const char* format, ...) __attribute__((format(printf, 1, 2)));

/* The parts of the page. */
std::string make_time_line(const page_t& page);
std::string make_tree(const page_t& page);
