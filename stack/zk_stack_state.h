/* SPDX-License-Identifier: MIT */
/* zk_stack_state.h - what a recorder has to know of a stack, and where its next record goes. */
#pragma once

#include "zk_walk.h"

/* A stack as it was read under the lock. */
struct zk_stack_state_t {
  int32_t size;   /* of the file, whose bytes begin the walk's window; that of the header is the same */
  int32_t newest; /* offset of the newest record, 0 for none */
  zk_walk_t walk; /* with the header */
};

/* Whether the header that the state's bytes begin with is one that a recorder leaves; fills in the walk's. Returns what
 * is wrong. */
zk_damage_t zk_check_stack_header(zk_stack_state_t* state);

/* The same for the whole stack: every record as a reader meets them can be read, and they end at write_pos. A first
 * record that was completed without the header telling of it is taken as recorded: the header then moves behind it.
 * Fills in `newest` too. */
zk_damage_t zk_check_stack(zk_stack_state_t* state);

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
