/* SPDX-License-Identifier: MIT */
/* selection.h - which incidents are wanted. */
#pragma once

#include <regex.h>

#include <array>
#include <cstdint>
#include <string>

#include "incident.h"

inline constexpr int64_t NO_PROCESS_ID = INT64_MIN; /* what no record can hold */

/* What an incident has to fit, as it is given on the command line; an empty text is fitted by all. */
struct selection_t {
  std::string since, until; /* TIME: from the first on, and before the second */
  std::string process;      /* its name or number */
  std::string product;
  std::string node;    /* its address */
  std::string pattern; /* an extended regular expression, for description and details */
  int32_t newest = -1; /* how many of those that fit, the newest; below 0 for all */

  /* The same as prepare_selection makes it. */
  int64_t from = INT64_MIN, to = INT64_MAX; /* seconds since the Epoch */
  int64_t process_id = NO_PROCESS_ID;
  std::string address; /* as inet_ntop writes it */
  regex_t expression = {};
};

/* Each says what is wrong with such a text; the empty text for nothing. */
std::string time_mistake(const std::string& text);
std::string node_mistake(const std::string& text);
std::string pattern_mistake(const std::string& text);

/* Prepares a selection whose texts are right. */
void prepare_selection(selection_t* selection);

/* Whether an incident fits all of a prepared selection but the number of the newest. */
bool is_selected(const selection_t& selection, const incident_t& incident);
