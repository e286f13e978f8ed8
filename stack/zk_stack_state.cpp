/* SPDX-License-Identifier: MIT */
/* zk_stack_state.cpp - follows the records of a stack as a reader does, and finds room for the next one.
 *
 * The records lie in one of two shapes. Offsets grow to the right; S is records_start, E earliest_rec, W write_pos:
 *
 *   one run    S....E======W.......    from E to W; where nothing was overwritten yet, E is at S
 *   two runs   S=====W...E======0..    from E to the length word of 0, or the end of the file, and from S to W; E may be
 *                                      at W: the stack is then full */
#include "zk_stack_state.h"

#include "zk_record.h"

/* The length word at `position`; 0 ends a lap. */
static int32_t length_at(const zk_stack_state_t& state, int32_t position) {
  return zk_record_length(state.walk.window.data() + position);
}

static bool has_two_runs(const zk_estack_v1_header_t& header) {
  return header.has_wrapped == 1 && header.earliest_rec >= header.write_pos;
}

zk_damage_t zk_check_stack_header(zk_stack_state_t* state) {
  zk_walk_begin_in_memory(&state->walk, state->size);
  return zk_check_header_for_recorder(state->walk.stack_version, state->walk.header, state->size);
}

zk_damage_t zk_check_stack(zk_stack_state_t* state) {
  zk_walk_t* const walk = &state->walk;
  zk_damage_t damage = zk_check_stack_header(state);
  if (damage.reason != nullptr) return damage;

  walk->may_wrap = has_two_runs(walk->header); /* a reader goes back to records_start wherever a lap ends early */
  state->newest = 0;
  int result;
  while ((result = zk_walk_next(walk)) == ZELK_SUCCESS) {
    zk_record_t fields;
    const char* reason = zk_record_damage(zk_parse_record(walk->record.data(), &fields));
    if (reason != nullptr) return {walk->record_position, reason};
    state->newest = static_cast<int32_t>(walk->record_position);
    if (zk_walk_at_write_pos(*walk)) return {};
  }
  if (result != ZK_WALK_END) return walk->damage;

  /* Where no lap has ended yet, and the header tells of no record, there may be one all the same. */
  zk_estack_v1_header_t* const header = &walk->header;
  const bool is_empty = header->has_wrapped == 0 && header->earliest_rec == header->write_pos;
  if (is_empty) header->write_pos = static_cast<int32_t>(walk->record_position);
  if (walk->record_position != header->write_pos) return {walk->record_position, ZK_OTHER_END};
  return {};
}

size_t zk_longest_body(const zk_stack_state_t& state) {
  /* Where a record starts a lap, the newest one ends less than its size before the end of the file. */
  int32_t room = state.size - state.walk.header.records_start;
  if (state.newest != 0) room -= ZK_REC_LENGTH_SIZE + length_at(state, state.newest);
  room = (room - ZK_REC_LENGTH_SIZE) / 2 - ZK_REC_LENGTH_SIZE; /* a length word of 0 between them; its own */
  return room > 0 ? static_cast<size_t>(room) : 0;
}

zk_placement_t zk_place_record(const zk_stack_state_t& state, int32_t size) {
  const zk_estack_v1_header_t& header = state.walk.header;
  zk_placement_t place = {header.write_pos, header.earliest_rec, size > state.size - header.write_pos};
  if (place.is_wrap) {
    place.position = header.records_start;
    if (has_two_runs(header)) place.earliest = header.records_start; /* the older run ends where the lap does */
  } else if (!has_two_runs(header)) {
    return place;
  }

  /* Behind the record comes the oldest one, or a length word of 0 and then the oldest one. */
  const int32_t end = place.position + size;
  while (place.earliest != end && place.earliest < end + ZK_REC_LENGTH_SIZE) {
    const bool is_lap_end = place.earliest > state.size - ZK_REC_LENGTH_SIZE || length_at(state, place.earliest) == 0;
    if (!place.is_wrap && is_lap_end) {
      place.earliest = header.records_start; /* the older run is used up: what remains is the run before the record */
      break;
    }
    place.earliest += ZK_REC_LENGTH_SIZE + length_at(state, place.earliest);
  }
  return place;
}
