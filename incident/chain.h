/* SPDX-License-Identifier: MIT */
/* chain.h - incidents with what caused them, as the formats for the eye take them. */
#pragma once

#include <cstddef>
#include <string>
#include <unordered_set>
#include <vector>

#include "damage.h"
#include "incident.h"

inline constexpr size_t NO_CAUSE = static_cast<size_t>(-1); /* or one that is not among the incidents */

/* What is shown together: the incidents of a process in one stack of a node. */
struct lane_t {
  std::string node; /* its address, empty when it is not known */
  std::string stack;
  std::string process;
  int32_t process_id;
  bool operator==(const lane_t&) const = default;
};

struct chain_t {
  std::vector<incident_t> incidents;            /* in order of time; those of one stack in order of recording */
  std::vector<std::string> notes;               /* what the incidents are not complete for */
  size_t left_out = 0;                          /* so many incidents are there, but not among them, */
  std::unordered_set<std::string> left_out_ids; /* with these Error IDs, of the first LEFT_OUT_IDS_MAX of them */
  bool is_part = false;                         /* others were not looked at */
  std::string asked_id;                         /* Error ID of the incident that was asked for, empty for none */

  /* Of each incident, by index. */
  std::vector<size_t> causes; /* the incident that caused it, or NO_CAUSE; from find_causes */
  std::vector<size_t> lanes;  /* its entry in `lane_names`; both from find_lanes */
  std::vector<lane_t> lane_names;
};

/* Counts an incident that is not among those of the chain. */
inline constexpr size_t LEFT_OUT_IDS_MAX = 1000000;
void leave_out(chain_t* chain, std::string id);

/* Whether a cause that is not among the incidents may have been recorded all the same. */
bool may_be_recorded(const chain_t& chain, const std::string& cause);

/* Sorts by time, but leaves the incidents of a stack as they were recorded, also where its clock was set back. Stacks of
 * several nodes may have the same name. */
void sort_by_time(std::vector<incident_t>* incidents);

/* Keeps the incidents that belong to the one of the Error ID `id`: its first cause, and all that led to. */
void keep_chain(const std::string& id, std::vector<incident_t>* incidents);

/* Leaves of the incidents, which are in order of time, the newest `count`. */
void keep_newest(size_t count, chain_t* chain);

/* Puts the incidents in order and finds their causes. Of several with one Error ID the first is a cause. */
void find_causes(chain_t* chain);

/* Finds the lanes of the incidents, which are in order. */
void find_lanes(chain_t* chain);

/* What the incidents are not complete for: a gap, and damage, of a stack. */
std::string gap_note(const std::string& stack);
std::string damage_note(const std::string& stack, const damage_t& damage);

/* Microseconds since the Epoch at which an incident was recorded, as exactly as is known. */
int64_t exact_time(const incident_t& incident);

/* What repeats have in common: the message, or the description of one of no catalog that has no word beside what its
 * arguments fill in. */
const std::string& repeated_text(const incident_t& incident);

/* What the incident is described by in one line: at most `limit` characters of it. */
std::string short_description(const incident_t& incident, size_t limit);
