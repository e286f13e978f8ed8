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

damage_t read_unread(const zk_trace_t& trace, const open_stack_t& stack, const std::string& name,
                     const selection_t& selection, const mark_t* mark, mark_t* moved, std::string* lines) {
  struct stat status = {};
  fstat(stack.fildes, &status);
  *moved = {status.st_ino, 0, 0};
  std::string unread;
  incident_t incident;
  bool is_found = false;       /* the record of the mark */
  bool is_overwritten = false; /* the stack no longer holds all that it ever held */
  stack_reader_t reader;
  begin_open_stack(&reader, trace, stack, name);
  while (next_incident(&reader, &incident)) {
    const zk_walk_t& walk = reader.walk;
    is_overwritten = walk.header.has_wrapped == 1 || walk.header.earliest_rec > walk.header.records_start;
    if (is_selected(selection, incident)) write_json(incident, &unread);
    moved->offset = walk.record_position;
    moved->fingerprint = fingerprint_of(walk);
    if (mark == nullptr || moved->offset != mark->offset || moved->fingerprint != mark->fingerprint) continue;
    is_found = true;
    unread.clear();
  }
  damage_t damage = end_stack(&reader);

  if (mark != nullptr && !is_found) {
    const bool is_same_file = mark->inode == moved->inode && mark->offset != 0;
    if (damage.code != ZELK_SUCCESS && is_same_file) { /* the walk did not come to what was given out */
      *moved = *mark;
      return damage;
    }
    if (is_overwritten) write_json_gap(name, lines);
  }
  *lines += unread;
  return damage;
}
