/* SPDX-License-Identifier: MIT */
/* zk_walk.cpp - reads an Error Stack under its lock, from the oldest record to the newest. */
#include "zk_walk.h"

#include <algorithm>
#include <cstring>

#include "zk_io.h"

/* ---- Bytes --------------------------------------------------------------------------------------------------------- */

/* Moves the window towards the walk's position; false when nothing more can be read. Bytes that an error keeps away
 * are missed when a record needs them. */
static bool fill_window(zk_walk_t* walk) {
  if (walk->is_refused || (walk->window_is_last && walk->position >= walk->window_end)) {
    walk->is_refused = false;
    return false;
  }
  const bool is_first = walk->window_end == 0;
  const off_t start = is_first && walk->position < std::ssize(walk->window) ? 0 : walk->position;
  const size_t taken = zk_read(walk->fildes, walk->window.data(), walk->window.size(), start);
  if (taken == 0) return false;
  walk->window_start = start;
  walk->window_end = start + static_cast<off_t>(taken);
  walk->window_is_last = taken < walk->window.size() && errno == 0;
  return true;
}

/* Reads up to `size` bytes at the walk's position and moves it on; returns how many there were. */
static size_t read_bytes(zk_walk_t* walk, void* bytes, size_t size) {
  size_t taken = 0;
  while (taken < size) {
    if (walk->position < walk->window_start || walk->position >= walk->window_end) {
      if (fill_window(walk)) continue;
      break;
    }
    size_t count = std::min(size - taken, static_cast<size_t>(walk->window_end - walk->position));
    const char* from = walk->window.data() + (walk->position - walk->window_start);
    std::memcpy(static_cast<char*>(bytes) + taken, from, count);
    taken += count;
    walk->position += static_cast<off_t>(count);
  }
  return taken;
}

/* The length word at the walk's position; one that cannot be had whole counts as 0. */
static int32_t read_length(zk_walk_t* walk) {
  int32_t length = 0;
  return read_bytes(walk, &length, sizeof length) == sizeof length ? length : 0;
}

/* ---- The walk ------------------------------------------------------------------------------------------------------- */

/* Sets a walk up, before anything is read. */
static void set_up(zk_walk_t* walk, const zk_trace_t& trace, int fildes) {
  walk->trace = trace;
  walk->fildes = fildes;
  walk->damage = {};
  walk->window_start = walk->window_end = 0;
  walk->is_record_lost = walk->window_is_last = walk->is_refused = false;
}

/* Sets it out from the earliest record of its header. */
static void set_out(zk_walk_t* walk) {
  walk->may_wrap = walk->header.has_wrapped == 1;
  walk->position = walk->header.earliest_rec;
}

int zk_walk_begin(zk_walk_t* walk, const zk_trace_t& trace, int fildes) {
  set_up(walk, trace, fildes);
  /* A lock reaches from the position at which it is taken. What cannot seek fails when its header is read. */
  lseek(fildes, 0, SEEK_SET);
  if (lockf(fildes, F_LOCK, 0) == -1)
    return zk_failed(trace, ZELK_LOCK, "Failure to lock stack - error code %d\nReturning %s(%d)", errno);
  const zk_trace_t header_trace = {trace.active, trace.file, "zk_read_header"};
  walk->damage = zk_read_good_header(header_trace, fildes, &walk->stack_version, &walk->header);
  if (walk->damage.reason != nullptr) return ZELK_FILE_CORRUPT;
  set_out(walk);
  walk->is_refused = !fill_window(walk);
  zk_trace_good_header(header_trace, walk->header);
  return ZELK_SUCCESS;
}

void zk_walk_begin_in_memory(zk_walk_t* walk, int32_t size) {
  set_up(walk, {0, nullptr, nullptr}, -1);
  std::memcpy(&walk->stack_version, walk->window.data(), sizeof walk->stack_version);
  std::memcpy(&walk->header, walk->window.data() + ZK_STACK_HEADER_POS, sizeof walk->header);
  walk->window_end = size;
  walk->window_is_last = true;
  set_out(walk);
}

/* Ends the walk at damage. Returns ZELK_FILE_CORRUPT. */
static int end_at_damage(zk_walk_t* walk, const zk_damage_t& damage, bool is_record_lost) {
  walk->damage = damage;
  walk->is_record_lost = is_record_lost;
  zk_report_damage(walk->trace, damage);
  return ZELK_FILE_CORRUPT;
}

/* Goes back to records_start. Returns 0; ZELK_FILE_CORRUPT. */
static int wrap(zk_walk_t* walk) {
  zk_trace(walk->trace, "Wrapping back to start of Error Stack");
  walk->may_wrap = false;
  walk->position = walk->header.records_start;
  if (walk->position >= 0) return ZELK_SUCCESS;
  zk_failed(walk->trace, ZELK_FILE_CORRUPT, "Cannot lseek to position %d in stack - error code %d\nReturning %s(%d)\n",
            walk->header.records_start, EINVAL);
  return end_at_damage(walk, ZK_BAD_RECORDS_START, false);
}

int zk_walk_next(zk_walk_t* walk) {
  walk->record_position = walk->position;
  int32_t length = read_length(walk);
  if (length == 0 && walk->may_wrap) {
    if (wrap(walk) != ZELK_SUCCESS) return ZELK_FILE_CORRUPT;
    walk->record_position = walk->position;
    length = read_length(walk);
  }
  if (length == 0) {
    zk_trace(walk->trace, "Saw zero-length ZELK Error Stack entry");
    return ZK_WALK_END;
  }

  const size_t size = static_cast<size_t>(length);
  std::memcpy(walk->record.data(), &length, sizeof length);
  if (length < 0 || length > ZK_REC_BODY_MAX) return end_at_damage(walk, {walk->record_position, ZK_BAD_LENGTH}, true);
  if (read_bytes(walk, walk->record.data() + ZK_REC_LENGTH_SIZE, size) < size)
    return end_at_damage(walk, {walk->record_position, ZK_CUT_SHORT}, true);
  walk->record[ZK_REC_LENGTH_SIZE + size] = '\0';
  return ZELK_SUCCESS;
}

bool zk_walk_at_write_pos(const zk_walk_t& walk) {
  if (walk.position != walk.header.write_pos) return false;
  zk_trace(walk.trace, "Read up to current write position.");
  return true;
}

void zk_walk_end(const zk_walk_t& walk) {
  lseek(walk.fildes, 0, SEEK_SET);
  [[maybe_unused]] int unlocked = lockf(walk.fildes, F_ULOCK, 0); /* the lock goes with the descriptor at the latest */
}
