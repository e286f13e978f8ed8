/* SPDX-License-Identifier: MIT */
/* unread.h - the records of a stack that have not been given out yet, as lines of JSON. */
#ifndef UNREAD_H
#define UNREAD_H

#include <cstdint>
#include <string>

#include "selection.h"
#include "stack_reader.h"

/* How far a stack has been given out: its newest record that was. */
struct mark_t {
  uint64_t inode; /* of the file */
  int64_t offset; /* of the record, 0 when the stack had none */
  uint64_t fingerprint;
  bool operator==(const mark_t&) const = default;
};

/* Appends what the stack `name` holds behind `mark` and is selected, and moves the mark on. A null mark gives everything,
 * and `*moved` is what it would have been. Where records were overwritten before they could be read, the line that says so
 * comes first. */
damage_t read_unread(const zk_trace_t& trace, const open_stack_t& stack, const std::string& name,
                     const selection_t& selection, const mark_t* mark, mark_t* moved, std::string* lines);

#endif
