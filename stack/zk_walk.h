/* SPDX-License-Identifier: MIT */
/* zk_walk.h - one reading of an Error Stack: the lock, the control header, and the step from record to record. Every
 * view walks a stack through it, and so does a recorder before it writes. */
#pragma once

#include <array>

#include "zk_damage.h"
#include "zk_header.h"

/* Result of zk_walk_next beside the codes of qx_zelk.h. */
enum { ZK_WALK_END = 1 };

struct zk_walk_t {
  zk_trace_t trace;
  int fildes;

  int stack_version;
  zk_estack_v1_header_t header;
  bool may_wrap;  /* the one return to records_start is still to come */
  off_t position; /* of the next byte */
  zk_damage_t damage;
  bool is_record_lost; /* the damage is a record that cannot be had whole */

  /* The record that the last step came to, with its length word and a zero byte behind it. */
  std::array<char, ZK_REC_SIZE_MAX + 1> record;
  off_t record_position;

  /* A stretch of the file that has been read. The area that a stack of version one can have fits whole, so that its
   * report is one snapshot even if the lock is lost meanwhile (closing any other descriptor of the file drops it). */
  std::array<char, ZK_STACK_SIZE_MAX + ZK_REC_SIZE_MAX> window;
  off_t window_start;
  off_t window_end;
  bool window_is_last; /* the file ends with it */
  bool is_refused;     /* reading it ahead failed, which counts when a byte of it is first missed */
};

/* Locks the stack, waiting as long as it takes, and reads its header. The walk need not be cleared before. Unless the
 * result is ZELK_LOCK, zk_walk_end must follow. Returns 0; ZELK_LOCK; ZELK_FILE_CORRUPT, `damage` then says where. */
int zk_walk_begin(zk_walk_t* walk, const zk_trace_t& trace, int fildes);

/* Goes on to the next record, back to records_start once where the stack has wrapped. Returns 0; ZK_WALK_END no
 * record is left; ZELK_FILE_CORRUPT, `damage` then says where. */
int zk_walk_next(zk_walk_t* walk);

/* Begins an untraced walk over a stack whose first `size` bytes, all that it has, are in the window already. The lock is the
 * caller's. */
void zk_walk_begin_in_memory(zk_walk_t* walk, int32_t size);

/* Whether the record that the walk is at is the newest one. */
bool zk_walk_at_write_pos(const zk_walk_t& walk);

/* Releases the lock and leaves the file at its start. */
void zk_walk_end(const zk_walk_t& walk);
