/* SPDX-License-Identifier: MIT */
/* unread.h - the records of a stack that have not been given out yet, as lines of JSON. */
#pragma once

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

/* Lines of JSON that are kept at a time, in bytes: there may be one more. */
inline constexpr size_t UNREAD_SIZE = 1024 * 1024;

struct unread_t {
  std::string lines;
  mark_t mark;     /* behind them */
  bool is_more;    /* there may be more behind it */
  damage_t damage; /* that ends what can be read */
};

/* Reads what the stack `name` holds behind `mark` and is selected. A null mark gives everything. Where records were
 * overwritten before they could be read, the line that says so comes first. What was given out before is passed over
 * without being decoded. */
unread_t read_unread(const zk_trace_t& trace, const open_stack_t& stack, const std::string& name,
                     const selection_t& selection, const mark_t* mark);
