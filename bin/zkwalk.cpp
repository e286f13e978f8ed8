/* SPDX-License-Identifier: MIT */
/* zkwalk.cpp - reads an Error Stack under its lock, from the oldest record to the newest. */
#include "zkwalk.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "zk_io.h"

/* Trace of a failed file operation at a position of the stack. */
#define SEEK_FAILED "Cannot lseek to position %d in stack - error code %d\nReturning %s(%d)\n"
#define READ_FAILED "Cannot read from position %d in stack - error code %d\nReturning %s(%d)\n"

/* ---- Control header ------------------------------------------------------------------------------------------------ */

static bool is_in_range(int32_t offset) {
  /* An offset below zero passes: the lower bound is taken unsigned. */
  return offset <= ZK_STACK_SIZE_MAX && static_cast<uint32_t>(offset) >= ZK_STACK_RECORDS_MIN;
}

/* Damage in a field of the control header. */
static constexpr zk_damage_t damaged_field(size_t field, const char* reason) {
  return {ZK_STACK_HEADER_POS + static_cast<off_t>(field), reason, false};
}

/* Checks what a stack of version one must hold. `*damage` is what the check that follows would find. */
static int check_header(const zk_trace_t& trace, const zk_estack_v1_header_t& header, zk_damage_t* damage) {
  /* The lower bound named for the offsets is that of the file size; the one that counts is below it. */
  constexpr int LOW = ZK_STACK_SIZE_MIN;
  constexpr int HIGH = ZK_STACK_SIZE_MAX;
  *damage = damaged_field(offsetof(zk_estack_v1_header_t, file_size), "the file size is out of range");
  if (header.file_size < LOW || header.file_size > HIGH)
    return zk_failed(trace, ZELK_FILE_CORRUPT,
                     "File size %d is beyond accpetable range of %d and %d\nAssuming file is corrupted\n"
                     "Returning %s(%d)\n",
                     header.file_size, LOW, HIGH);
  *damage = damaged_field(offsetof(zk_estack_v1_header_t, write_pos), "the recording position is out of range");
  if (!is_in_range(header.write_pos))
    return zk_failed(trace, ZELK_FILE_CORRUPT,
                     "Current recording position %d is beyond accpetable range of %d and %d\n"
                     "Assuming file is corrupted\nReturning %s(%d)\n",
                     header.write_pos, LOW, HIGH);
  *damage = damaged_field(offsetof(zk_estack_v1_header_t, earliest_rec), "the earliest record is out of range");
  if (!is_in_range(header.earliest_rec))
    return zk_failed(trace, ZELK_FILE_CORRUPT,
                     "Earliest record location %d is beyond accpetable range of %d and %d\n"
                     "Assuming file is corrupted\nReturning %s(%d)\n",
                     header.earliest_rec, LOW, HIGH);
  *damage = damaged_field(offsetof(zk_estack_v1_header_t, records_start), "the first record is out of range");
  if (!is_in_range(header.records_start))
    return zk_failed(trace, ZELK_FILE_CORRUPT,
                     "Initial record offset %d is beyond accpetable range of %d and %d\n"
                     "Assuming file is corrupted\nReturning %s(%d)\n",
                     header.records_start, LOW, HIGH);
  *damage = damaged_field(offsetof(zk_estack_v1_header_t, has_wrapped), "the wrap indicator is neither 0 nor 1");
  if (header.has_wrapped > 1)
    return zk_failed(trace, ZELK_FILE_CORRUPT,
                     "File wrap indicator 0x%x is not one of 0x%x or 0x%x\nAssuming file is corrupted\n"
                     "Returning %s(%d)\n",
                     static_cast<unsigned int>(header.has_wrapped), 1U, 0U);
  *damage = {};
  return ZELK_SUCCESS;
}

/* The work of zk_read_header, which also says where the damage is. */
static int read_header(const zk_trace_t& trace, int fildes, int* stack_version, zk_estack_v1_header_t* hbuf,
                       zk_damage_t* damage) {
  int32_t version = 0;
  zk_estack_v1_header_t header = {};

  if (fildes == -1) return zk_failed(trace, ZELK_INV_PARAM3, "fildes value %d seems invalid\nReturning %s(%d)", fildes);
  if (hbuf == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, "hbuf ptr value seems invalid\nReturning %s(%d)");

  *damage = {0, "the control header cannot be read", false};
  if (lseek(fildes, 0, SEEK_SET) == -1) return zk_failed(trace, ZELK_FILE_CORRUPT, SEEK_FAILED, 0, errno);
  if (zk_read_on(fildes, &version, sizeof version) < sizeof version && errno != 0)
    return zk_failed(trace, ZELK_FILE_CORRUPT, READ_FAILED, 0, errno);
  if (zk_read_on(fildes, &header, sizeof header) < sizeof header && errno != 0)
    return zk_failed(trace, ZELK_FILE_CORRUPT, READ_FAILED, int{ZK_STACK_HEADER_POS}, errno);

  *damage = {0, "the stack version is not supported", false};
  if (!zk_is_known_version(version))
    return zk_failed(trace, ZELK_FILE_CORRUPT,
                     "Version code from record (0x%x) is not supported\nAssuming file is corrupted\n"
                     "Returning %s(%d)\n",
                     static_cast<unsigned int>(version));
  if (version == 0 && check_header(trace, header, damage) != ZELK_SUCCESS) return ZELK_FILE_CORRUPT;
  *damage = damaged_field(offsetof(zk_estack_v1_header_t, earliest_rec), "the earliest record is out of range");
  if (lseek(fildes, header.earliest_rec, SEEK_SET) == -1)
    return zk_failed(trace, ZELK_FILE_CORRUPT, SEEK_FAILED, header.earliest_rec, errno);
  zk_trace(trace, "Positioning file pointer to offset %d", header.earliest_rec);
  *damage = {};
  *hbuf = header;
  *stack_version = version;
  return ZELK_SUCCESS;
}

int zk_read_header(int debug_active, const char* debug_file, int fildes, int* stack_version,
                   zk_estack_v1_header_t* hbuf) {
  zk_damage_t damage;
  return read_header({debug_active, debug_file, __func__}, fildes, stack_version, hbuf, &damage);
}

/* ---- Records ------------------------------------------------------------------------------------------------------- */

static bool is_in_window(const zk_walk_t& walk) {
  return walk.position >= walk.window_start && walk.position < walk.window_end;
}

/* Moves the window towards the walk's position; false when nothing more can be read. Bytes that an error keeps away
 * are missed when a record needs them. */
static bool fill_window(zk_walk_t* walk) {
  if (walk->window_is_last && walk->position >= walk->window_end) return false;
  const off_t window_size = static_cast<off_t>(walk->window.size());
  bool is_first = walk->window_end == 0;
  off_t start = is_first && walk->position < window_size ? 0 : walk->position;
  size_t taken = zk_read_at(walk->fildes, walk->window.data(), walk->window.size(), start);
  bool is_last = taken < walk->window.size() && errno == 0;
  if (taken == 0) return false;
  walk->window_start = start;
  walk->window_end = start + static_cast<off_t>(taken);
  walk->window_is_last = is_last;
  return true;
}

/* Takes up to `size` bytes at the walk's position and moves it on; returns how many there were. */
static size_t take_bytes(zk_walk_t* walk, void* bytes, size_t size) {
  size_t taken = 0;
  while (taken < size) {
    if (!is_in_window(*walk)) {
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
static int32_t take_length(zk_walk_t* walk) {
  int32_t length = 0;
  return take_bytes(walk, &length, sizeof length) == sizeof length ? length : 0;
}

int zk_walk_begin(zk_walk_t* walk, const zk_trace_t& trace, int fildes) {
  walk->trace = trace;
  walk->fildes = fildes;
  walk->window_start = walk->window_end = 0;
  walk->window_is_last = false;

  /* A lock reaches from the position at which it is taken. What cannot seek fails when its header is read. */
  lseek(fildes, 0, SEEK_SET);
  if (lockf(fildes, F_LOCK, 0) == -1)
    return zk_failed(trace, ZELK_LOCK, "Failure to lock stack - error code %d\nReturning %s(%d)", errno);
  const zk_trace_t header_trace = {trace.active, trace.file, "zk_read_header"};
  int result = read_header(header_trace, fildes, &walk->stack_version, &walk->header, &walk->damage);
  if (result != ZELK_SUCCESS) return ZELK_FILE_CORRUPT;
  walk->may_wrap = walk->header.has_wrapped == 1;
  walk->position = walk->header.earliest_rec;
  return ZELK_SUCCESS;
}

int zk_walk_next(zk_walk_t* walk) {
  walk->record_position = walk->position;
  int32_t length = take_length(walk);
  if (length == 0 && walk->may_wrap) {
    zk_trace(walk->trace, "Wrapping back to start of Error Stack");
    walk->may_wrap = false;
    walk->position = lseek(walk->fildes, walk->header.records_start, SEEK_SET);
    if (walk->position == -1) {
      walk->damage = damaged_field(offsetof(zk_estack_v1_header_t, records_start), "the first record is out of range");
      return zk_failed(walk->trace, ZELK_FILE_CORRUPT, SEEK_FAILED, walk->header.records_start, errno);
    }
    walk->record_position = walk->position;
    length = take_length(walk);
  }
  if (length == 0) {
    zk_trace(walk->trace, "Saw zero-length ZELK Error Stack entry");
    return ZK_WALK_END;
  }

  const size_t size = static_cast<size_t>(length);
  std::memcpy(walk->record.data(), &length, sizeof length);
  walk->damage = {walk->record_position, "the record's length is out of range", true};
  if (length < 0 || length > ZK_REC_BODY_MAX) return ZELK_FILE_CORRUPT;
  walk->damage.reason = "the record is cut short";
  if (take_bytes(walk, walk->record.data() + ZK_REC_LENGTH_SIZE, size) < size) return ZELK_FILE_CORRUPT;
  walk->damage = {};
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
