/* SPDX-License-Identifier: MIT */
/* zkwalk.h - one reading of an Error Stack: the lock, the control header, and the step from record to record. Every
 * view walks a stack through it. */
#ifndef ZKWALK_H
#define ZKWALK_H

#include <sys/types.h>

#include <array>

#include "zk_int.h"
#include "zk_trace.h"

/* Result of zk_walk_next beside the codes of qx_zelk.h. */
enum { ZK_WALK_END = 1 };

/* What a walk found damaged. */
struct zk_damage_t {
  off_t position;     /* of the record's length word, or of the field of the control header */
  const char* reason; /* a phrase; null for no damage */
  bool is_record;     /* a record that cannot be had whole */
};

struct zk_walk_t {
  zk_trace_t trace;
  int fildes;

  int stack_version;
  zk_estack_v1_header_t header;
  bool may_wrap;  /* the one return to records_start is still to come */
  off_t position; /* of the next byte to take */
  zk_damage_t damage;

  /* The record that the last step took, with its length word and a zero byte behind it. */
  std::array<char, ZK_REC_SIZE_MAX + 1> record;
  off_t record_position;

  /* A stretch of the file that has been read. The area that a stack of version one can have fits whole, so that its
   * report is one snapshot even if the lock is lost meanwhile (closing any other descriptor of the file drops it). */
  std::array<char, ZK_STACK_SIZE_MAX + ZK_REC_SIZE_MAX> window;
  off_t window_start;
  off_t window_end;
  bool window_is_last; /* the file ends with it */
};

/* Locks the stack, waiting as long as it takes, and reads its header. The walk need not be cleared before. Unless the
 * result is ZELK_LOCK, zk_walk_end must follow. Returns 0; ZELK_LOCK; ZELK_FILE_CORRUPT, `damage` then says where. */
int zk_walk_begin(zk_walk_t* walk, const zk_trace_t& trace, int fildes);

/* Takes the next record, going back to records_start once where the stack has wrapped. Returns 0; ZK_WALK_END no
 * record is left; ZELK_FILE_CORRUPT, `damage` then says where. */
int zk_walk_next(zk_walk_t* walk);

/* Whether the last record taken is the newest one. */
bool zk_walk_at_write_pos(const zk_walk_t& walk);

/* Releases the lock and leaves the file at its start. */
void zk_walk_end(const zk_walk_t& walk);

#endif
