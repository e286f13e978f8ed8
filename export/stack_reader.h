/* SPDX-License-Identifier: MIT */
/* stack_reader.h - which stacks are exported, and the loop over the incidents of one. */
#pragma once

#include <string>
#include <vector>

#include "damage.h"
#include "incident.h"
#include "zk_walk.h"

/* The names of the stacks of this node, in order: of regular files whose names do not begin with a point, each file once.
 * Returns 0; ZELK_DIR_MISSING; ZELK_DIR_NO_ACCESS; ZELK_FAILURE. */
int list_stacks(std::vector<std::string>* names);

/* Finds the stack of this node that holds the Error ID `id`. Returns 0 and the codes of zk_open_stack_with_fid. */
int find_stack(const zk_trace_t& trace, const std::string& id, std::string* name);

/* An open stack. One that may not be written to, by this user or at all, is read without its lock: who only looks holds
 * nobody up. */
struct open_stack_t {
  int fildes; /* -1 for none */
  bool is_read_only;
};

/* Opens a stack by its name. Returns 0 and the codes of zk_open_stack_by_name. */
int open_stack(const zk_trace_t& trace, const std::string& name, open_stack_t* stack);

/* The reading of a stack, which is locked from its beginning to its end, or a copy of which is read. */
struct stack_reader_t {
  zk_walk_t walk;
  std::string name;
  std::string id;     /* of the one incident that is wanted, empty for all */
  open_stack_t owned; /* a stack that was opened by its name */
  int copy;           /* the file that is read in place of a read-only one, else -1 */
  bool is_walking;    /* and the stack is locked */
  bool is_over;
  bool is_at_record; /* the walk's */
  bool is_any_read;  /* of the incidents that are wanted */
  damage_t damage;   /* what ended the reading too early */
};

/* Begin to read the stack `name`, which is open or is opened here. They wait for its lock, and say so where that takes
 * long. `id` as in stack_reader_t. end_stack has to follow. */
void begin_open_stack(stack_reader_t* reader, const zk_trace_t& trace, const open_stack_t& stack,
                      const std::string& name);
void begin_stack(stack_reader_t* reader, const zk_trace_t& trace, const std::string& name, const std::string& id);

/* Reads the next incident. Returns false at the end, and where damage ends the reading. */
bool next_incident(stack_reader_t* reader, incident_t* incident);

/* The same without decoding it. */
bool skip_incident(stack_reader_t* reader);

/* Goes back to before the oldest incident. The stack stays locked. */
void begin_anew(stack_reader_t* reader);

/* Unlocks the stack. Returns what is wrong with it. */
damage_t end_stack(stack_reader_t* reader);
