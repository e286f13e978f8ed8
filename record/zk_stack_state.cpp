/* SPDX-License-Identifier: MIT */
/* zk_stack_state.cpp - follows the records of a stack as a reader does, and finds room for the next one.
 *
 * The records lie in one of two shapes. Offsets grow to the right; S is records_start, E earliest_rec, W write_pos:
 *
 *   one run    S....E======W.......    from E to W; where nothing was overwritten yet, E is at S
 *   two runs   S=====W...E======0..    from E to the length word of 0, or the end of the file, and from S to W; E may be
 *                                      at W: the stack is then full */
#include "zk_stack_state.h"

#include <algorithm>
#include <cstring>

#include "qx_cu.h"
#include "qx_zelk.h"

static int32_t word_at(const zk_stack_state_t& state, int32_t position) {
  int32_t word;
  std::memcpy(&word, state.bytes.data() + position, sizeof word);
  return word;
}

/* ---- What a reader can read ---------------------------------------------------------------------------------------- */

/* The rest of a record that is looked through as a reader does: bytes past its end count as zeros. */
struct rest_t {
  const char* at;
  int32_t unread; /* below zero past the end */
};

static int32_t take_int(rest_t* rest) {
  int32_t value = 0;
  if (rest->unread > 0) std::memcpy(&value, rest->at, static_cast<size_t>(std::min(rest->unread, int32_t{4})));
  rest->at += sizeof value;
  rest->unread -= static_cast<int32_t>(sizeof value);
  return value;
}

/* Passes a text; false when a reader would not find its end. */
static bool pass_text(rest_t* rest) {
  if (rest->unread > ZK_REC_STRING_MAX) return false;
  size_t length = rest->unread > 0 ? strnlen(rest->at, static_cast<size_t>(rest->unread)) : 0;
  rest->at += length + 1;
  rest->unread -= static_cast<int32_t>(length) + 1;
  return true;
}

static bool pass_arguments(rest_t* rest) {
  for (int32_t count = take_int(rest); count > 0; --count) {
    if (rest->unread <= 0) return false;
    if (take_int(rest) == CU_ERROR_ARG_CHAR_STR) {
      if (!pass_text(rest)) return false;
    } else {
      rest->at += ZK_REC_ARG_SIZE;
      rest->unread -= ZK_REC_ARG_SIZE;
    }
  }
  return true;
}

/* Whether every view can show the record whose body of `length` bytes is at `body`. */
static bool is_readable(const char* body, int32_t length) {
  enum field_t { VERSION, EID, INT, TEXT, ARGUMENTS };
  static constexpr field_t FIELDS[] = {VERSION, EID,  EID, INT,  TEXT, INT, INT,  INT,       TEXT,
                                       TEXT,    TEXT, INT, TEXT, INT,  INT, TEXT, ARGUMENTS, TEXT};
  rest_t rest = {body, length};
  for (field_t field : FIELDS) {
    bool is_good = true;
    if (field == VERSION) is_good = zk_is_known_version(take_int(&rest));
    if (field == INT) take_int(&rest);
    if (field == TEXT) is_good = pass_text(&rest);
    if (field == ARGUMENTS) is_good = pass_arguments(&rest);
    if (field == EID) rest = {rest.at + ZELK_EID_SIZE, rest.unread - ZELK_EID_SIZE};
    if (!is_good) return false;
  }
  return true;
}

/* ---- Following the records ----------------------------------------------------------------------------------------- */

/* Length of the body of the record at `position`; 0 where the lap ends, -1 for what cannot be read. */
static int32_t body_length(const zk_stack_state_t& state, int32_t position) {
  if (position > state.size - ZK_REC_LENGTH_SIZE) return 0;
  int32_t length = word_at(state, position);
  if (length == 0) return 0;
  const bool is_whole = length > 0 && length <= ZK_REC_BODY_MAX && length <= state.size - ZK_REC_LENGTH_SIZE - position;
  return is_whole && is_readable(state.bytes.data() + position + ZK_REC_LENGTH_SIZE, length) ? length : -1;
}

/* Offset behind the record at `position`, which is known to be one. */
static int32_t behind_record(const zk_stack_state_t& state, int32_t position) {
  return position + ZK_REC_LENGTH_SIZE + word_at(state, position);
}

bool zk_take_stack_header(zk_stack_state_t* state) {
  zk_estack_v1_header_t& header = state->header;
  std::memcpy(&header, state->bytes.data() + ZK_STACK_HEADER_POS, sizeof header);
  auto is_in_area = [&](int32_t offset) { return offset >= header.records_start && offset <= header.file_size; };
  if (word_at(*state, 0) != 0) return false;
  if (header.file_size < ZK_STACK_SIZE_MIN || header.file_size > ZK_STACK_SIZE_MAX) return false;
  if (header.file_size != state->size) return false;
  if (header.records_start < ZK_STACK_RECORDS_MIN || !is_in_area(header.records_start)) return false;
  if (!is_in_area(header.write_pos) || !is_in_area(header.earliest_rec)) return false;
  if (header.has_wrapped == 1) return header.write_pos > header.records_start; /* a lap begins with its first record */
  return header.has_wrapped == 0 && header.earliest_rec <= header.write_pos;
}

static bool has_two_runs(const zk_estack_v1_header_t& header) {
  return header.has_wrapped == 1 && header.earliest_rec >= header.write_pos;
}

/* Follows the records from `position` to write_pos or to the end of their lap. Returns where that is, -1 for a record
 * that cannot be read. */
static int32_t follow_run(zk_stack_state_t* state, int32_t position) {
  for (;;) {
    const int32_t length = body_length(*state, position);
    if (length < 0) return -1;
    if (length == 0) return position;
    state->newest = position;
    position = behind_record(*state, position);
    if (position == state->header.write_pos) return position;
  }
}

bool zk_take_stack_records(zk_stack_state_t* state) {
  zk_estack_v1_header_t& header = state->header;
  state->newest = 0;
  int32_t end = follow_run(state, header.earliest_rec);
  if (end != -1 && has_two_runs(header)) end = follow_run(state, header.records_start);
  if (end == -1) return false;
  if (header.has_wrapped == 0 && header.earliest_rec == header.write_pos) header.write_pos = end; /* without records */
  return end == header.write_pos;
}

size_t zk_longest_body(const zk_stack_state_t& state) {
  /* Where a record starts a lap, the newest one ends less than its size before the end of the file. */
  int32_t room = state.size - state.header.records_start;
  if (state.newest != 0) room -= behind_record(state, state.newest) - state.newest;
  room = (room - ZK_REC_LENGTH_SIZE) / 2 - ZK_REC_LENGTH_SIZE; /* a length word of 0 between them; its own */
  return room > 0 ? static_cast<size_t>(room) : 0;
}

zk_placement_t zk_place_record(const zk_stack_state_t& state, int32_t size) {
  const zk_estack_v1_header_t& header = state.header;
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
    const bool is_lap_end = place.earliest > state.size - ZK_REC_LENGTH_SIZE || word_at(state, place.earliest) == 0;
    if (!place.is_wrap && is_lap_end) {
      place.earliest = header.records_start; /* the older run is used up: what remains is the run before the record */
      break;
    }
    place.earliest = behind_record(state, place.earliest);
  }
  return place;
}
