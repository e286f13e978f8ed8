/* SPDX-License-Identifier: MIT */
/* cause.cpp - looks through the stacks of this node. */
#include "cause.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <functional>

#include "zk_eid_layout.h"
#include "zk_io.h"
#include "zk_record.h"
#include "zk_stack_file.h"
#include "zk_walk.h"

static constexpr int64_t SECOND = 1'000'000;
static constexpr int64_t MINUTE = 60;
static constexpr int READINGS_MAX = 100;
static constexpr int TRIES_MAX = 20;
static constexpr useconds_t SHORT_WAIT = 50'000; /* microseconds */

/* The newest incident so far. */
struct candidate_t {
  std::string eid;
  int64_t time; /* microseconds since the Epoch */
};

using record_check_t = std::function<bool(zk_record_t* record)>;

/* Microseconds since the Epoch, by the Error ID; 0 for one that is none. */
static int64_t time_of(const zk_eid_t eid) {
  zk_eid_parts_t parts;
  std::memcpy(&parts, eid, sizeof parts);
  timeval time = {};
  if (zk_conv_base_64_time(0, nullptr, parts.time, &time) != ZELK_SUCCESS) return 0;
  return time.tv_sec * SECOND + time.tv_usec;
}

/* Reads the stack twice, or until two readings are the same: between them nobody was writing. Opening does not wait
 * either, whoever holds a lease. Returns the size, 0 for what is no stack. */
static int32_t read_snapshot(int folder, const char* name, char* bytes) {
  const int fildes = openat(folder, name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fildes == -1) return 0;
  std::array<char, ZK_STACK_SIZE_MAX + 1> again;
  size_t size = zk_read(fildes, bytes, ZK_STACK_SIZE_MAX + 1, 0);
  bool is_same = false;
  for (int readings = 1; readings < READINGS_MAX && !is_same; ++readings) {
    const size_t size_again = zk_read(fildes, again.data(), again.size(), 0);
    is_same = size_again == size && std::memcmp(again.data(), bytes, size) == 0;
    size = size_again;
    std::memcpy(bytes, again.data(), size);
  }
  close(fildes);
  return is_same && size >= ZK_STACK_SIZE_MIN && size <= ZK_STACK_SIZE_MAX ? static_cast<int32_t>(size) : 0;
}

/* Looks for a newer candidate among the incidents of a stack that pass the check. */
static void look_through(int folder, const char* name, const record_check_t& passes, candidate_t* newest) {
  static zk_walk_t walk; /* large */
  static_assert(sizeof walk.window > ZK_STACK_SIZE_MAX);
  const int32_t size = read_snapshot(folder, name, walk.window.data());
  if (size == 0) return;
  zk_walk_begin_in_memory(&walk, size);
  bool is_newest = false;
  while (!is_newest && zk_walk_next(&walk) == ZELK_SUCCESS) {
    is_newest = zk_walk_at_write_pos(walk);
    zk_record_t record;
    if (zk_parse_record(walk.record.data(), &record) != ZELK_SUCCESS) break;
    const int64_t time = time_of(record.eid);
    if (time <= newest->time || !passes(&record)) continue;
    *newest = {record.eid, time};
  }
}

/* The newest incident of a process of the run, or of a child of one, since the run began. systemd notes that time after it
 * has started the first process, which may have recorded by then; no identifier is used again within a second. */
static candidate_t find_own(int folder, const unit_t& unit, const run_t& run) {
  const int64_t began = unit.started - SECOND;
  candidate_t newest = {"", began - 1};
  std::set<int32_t> processes = run.processes;
  processes.insert(unit.processes.begin(), unit.processes.end());
  if (unit.process_id > 1) processes.insert(unit.process_id);
  const record_check_t is_own = [&](zk_record_t* record) {
    const bool is_known = processes.contains(record->incident.process_id);
    if (!is_known && !processes.contains(record->incident.parent_id)) return false;
    processes.insert(record->incident.process_id);
    return true;
  };
  DIR* const directory = fdopendir(dup(folder));
  if (directory == nullptr || processes.empty()) return newest;
  while (const dirent* entry = readdir(directory)) {
    struct stat status;
    const bool is_changed = fstatat(folder, entry->d_name, &status, 0) == 0 && S_ISREG(status.st_mode) &&
                            int64_t{status.st_mtim.tv_sec} + 1 >= began / SECOND;
    if (is_changed && std::strcmp(entry->d_name, UNITS_STACK) != 0)
      look_through(folder, entry->d_name, is_own, &newest);
  }
  closedir(directory);
  return newest;
}

/* The unit that an incident of "units.stack" is about: its first argument. */
static std::string unit_of(zk_record_t* record) {
  cu_error_arg_t argument = {};
  zk_cursor_t* const arguments = &record->arguments;
  const bool is_text = zk_read_int(arguments) > 0 && zk_read_argument(arguments, &argument) &&
                       argument.cu_arg_type == CU_ERROR_ARG_CHAR_STR;
  return is_text && argument.cu_arg_value.cu_arg_char_str != nullptr ? argument.cu_arg_value.cu_arg_char_str : "";
}

/* The newest failure, at most a minute ago, of a unit that this one needs. */
static candidate_t find_needed(int folder, const unit_t& unit, int64_t now) {
  candidate_t newest = {"", (now - MINUTE) * SECOND - 1};
  const record_check_t is_needed = [&](zk_record_t* record) {
    return std::find(unit.needs.begin(), unit.needs.end(), unit_of(record)) != unit.needs.end();
  };
  look_through(folder, UNITS_STACK, is_needed, &newest);
  return newest;
}

std::string find_cause(const unit_t& unit, const run_t& run, int64_t now) {
  const int folder = open(ZELK_STACK_DIR, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder == -1) return "";
  candidate_t newest = {"", 0};
  if (unit.started > 0) newest = find_own(folder, unit, run);
  /* What it needed failed at the same moment, and may be about to be recorded. */
  const int tries = unit.result == "success" ? TRIES_MAX : 1;
  for (int i = 0; i < tries && newest.eid.empty(); ++i) {
    if (i > 0) usleep(SHORT_WAIT);
    newest = find_needed(folder, unit, now);
  }
  close(folder);
  return newest.eid;
}
