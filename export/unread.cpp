/* SPDX-License-Identifier: MIT */
/* unread.cpp - finds where the reading of a stack goes on. A record is known again by its offset and its bytes: writing
 * that comes round puts another one there. */
#include "unread.h"

#include <sys/stat.h>

#include <cstddef>

#include "json_line.h"
#include "zk_record.h"

/* A number that tells records apart (FNV-1a). */
static uint64_t fingerprint_of(const zk_walk_t& walk) {
  const size_t size = ZK_REC_LENGTH_SIZE + static_cast<size_t>(zk_record_length(walk.record.data()));
  uint64_t fingerprint = 0xCBF29CE484222325;
  for (size_t at = 0; at < size; ++at) {
    fingerprint ^= static_cast<unsigned char>(walk.record[at]);
    fingerprint *= 0x100000001B3;
  }
  return fingerprint;
}

/* Goes on to the record of the mark. Returns false where the stack does not have it, or is damaged before it. */
static bool find_marked(stack_reader_t* reader, const mark_t& mark) {
  while (skip_incident(reader))
    if (reader->walk.record_position == mark.offset && fingerprint_of(reader->walk) == mark.fingerprint) return true;
  return false;
}

/* Whether the stack no longer holds all that it ever held. */
static bool is_overwritten(const zk_estack_v1_header_t& header) {
  return header.has_wrapped == 1 || header.earliest_rec > header.records_start;
}

unread_t read_unread(const zk_trace_t& trace, const open_stack_t& stack, const std::string& name,
                     const selection_t& selection, const mark_t* mark) {
  struct stat status = {};
  fstat(stack.fildes, &status);
  unread_t unread = {"", {status.st_ino, 0, 0}, false, {}};
  stack_reader_t reader;
  begin_open_stack(&reader, trace, stack, name);
  const bool is_found = mark != nullptr && find_marked(&reader, *mark);
  const bool is_same_file = mark != nullptr && mark->inode == status.st_ino && mark->offset != 0;
  const bool is_damaged_before = is_same_file && !is_found && reader.damage.code != ZELK_SUCCESS;
  if (is_found || is_damaged_before) unread.mark = {status.st_ino, mark->offset, mark->fingerprint};
  bool may_have_gap = mark != nullptr && !is_found && !is_damaged_before;
  if (may_have_gap) begin_anew(&reader);

  incident_t incident;
  while (unread.lines.size() < UNREAD_SIZE && next_incident(&reader, &incident)) {
    if (may_have_gap && is_overwritten(reader.walk.header)) write_json_gap(name, &unread.lines);
    may_have_gap = false;
    if (is_selected(selection, incident)) write_json(incident, &unread.lines);
    unread.mark.offset = reader.walk.record_position;
    unread.mark.fingerprint = fingerprint_of(reader.walk);
  }
  unread.is_more = unread.lines.size() >= UNREAD_SIZE;
  unread.damage = end_stack(&reader);
  return unread;
}
