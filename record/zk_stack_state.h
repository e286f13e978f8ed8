/* SPDX-License-Identifier: MIT */
/* zk_stack_state.h - what a recorder has to know of a stack, and where its next record goes. */
#ifndef ZK_STACK_STATE_H
#define ZK_STACK_STATE_H

#include <array>
#include <cstddef>
#include <cstdint>

#include "zk_layout.h"

/* A stack as it was read under the lock. */
struct zk_stack_state_t {
  zk_estack_v1_header_t header;
  int32_t size;   /* of the file; that of the header is the same */
  int32_t newest; /* offset of the newest record, 0 for none */
  std::array<char, ZK_STACK_SIZE_MAX> bytes;
};

/* Whether the header at the start of `state.bytes` is one that a recorder leaves in a file of `state.size` bytes;
 * fills in `state.header`. */
bool zk_take_stack_header(zk_stack_state_t* state);

/* Whether the records, as a reader meets them, are whole and end at the header's write_pos; fills in `state.newest`. A
 * first record that was completed without the header telling of it is taken as recorded: the header then moves behind
 * it. */
bool zk_take_stack_records(zk_stack_state_t* state);

/* Longest body that a record can have, so that it fits beside the newest one. */
size_t zk_longest_body(const zk_stack_state_t& state);

/* Where the next record goes. */
struct zk_placement_t {
  int32_t position;
  int32_t earliest; /* the oldest record that remains */
  bool is_wrap;     /* the lap ends before it */
};

/* Finds the place for a record of `size` bytes, its length word included. */
zk_placement_t zk_place_record(const zk_stack_state_t& state, int32_t size);

#endif
