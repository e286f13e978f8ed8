/* SPDX-License-Identifier: MIT */
/* unit.h - what systemd knows of a unit that failed. */
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

struct unit_t {
  std::string name;
  std::string result; /* as systemd names it: "exit-code", "timeout", ...; "success" of one that was not even started */
  int32_t code, status; /* of the process that failed: CLD_EXITED and so on, with its exit status or signal; or 0 */
  int32_t process_id;   /* of its main process, 0 for none */
  std::set<int32_t> processes; /* of its commands, one that prepares the start for instance */
  std::string invocation;      /* identifier of its last run, 32 hexadecimal digits, empty for none */
  int64_t started;             /* when that run began, microseconds since the Epoch; 0 for none */
  int64_t run_time;            /* of its main process, microseconds */
  uint32_t restarts;
  std::vector<std::string> needs; /* units that it requires, binds to or is part of */
  std::string failed_need;        /* the first of them that is not up, empty for none */
};

/* Asks systemd about the unit `name`. Returns what is wrong, the empty text for nothing. */
std::string read_unit(const std::string& name, unit_t* unit);

/* Why it failed, in words: "exit status 3", "killed by SIGKILL", "timeout", ... */
std::string result_in_words(const unit_t& unit);
