/* SPDX-License-Identifier: MIT */
/* stacks.h - which stacks are exported, and how one is read. */
#ifndef STACKS_H
#define STACKS_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "incident.h"
#include "zk_trace.h"
#include "zk_walk.h"

/* Why a stack, or an Error ID, cannot be exported whole. */
struct trouble_t {
  int code = 0;        /* ZELK_..., 0 for no trouble */
  int64_t offset = -1; /* of what is damaged, -1 where there is no such place */
  std::string reason;  /* in English, also where the user reads another language: programs read it */
  bool operator==(const trouble_t&) const = default;
};

/* What a failure of opening, or of an Error ID, means. */
trouble_t trouble_of(int code);

/* The same for the user. */
std::string reason_of(int code);

/* Exit status of zkview for such a code. */
int status_of(int code);

/* The worse of two such statuses: damage, then a lock that cannot be had, then a stack that is missing. */
int worst_status(int one, int other);

/* The names of the stacks of this node, in order. Returns 0; ZELK_DIR_MISSING; ZELK_DIR_NO_ACCESS; ZELK_FAILURE. */
int list_stacks(std::vector<std::string>* names);

/* Finds the stack of this node that holds the Error ID `id`. Returns 0 and the codes of zk_open_stack_with_fid. */
int find_stack(const zk_trace_t& trace, const std::string& id, std::string* name);

/* Whether a record is the one of the Error ID `id`, any record where that is empty. Returns a code of take_incident. */
int select_record(const zk_trace_t& trace, const void* record, const std::string& id, bool* is_wanted);

/* Walks the records of an open stack, waiting for its lock; each is given to `visit`, whose result, if it is a code of
 * take_incident, ends the walk. */
using visitor_t = std::function<int(const zk_walk_t& walk)>;
trouble_t walk_stack(const zk_trace_t& trace, int fildes, const visitor_t& visit);

/* Takes the incident of the record that a walk of the stack `name` is at. Returns a code of take_incident. */
int take_incident_at(const zk_walk_t& walk, const std::string& name, incident_t* incident);

/* Walks a stack that is opened by its name. */
trouble_t read_stack(const zk_trace_t& trace, const std::string& name, const visitor_t& visit);

#endif
