/* SPDX-License-Identifier: MIT */
/* export.h - what zkexport is asked for, and the ways in which it answers. */
#ifndef EXPORT_H
#define EXPORT_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "incident.h"
#include "stacks.h"
#include "zk_trace.h"

inline constexpr char EXPORT_NAME[] = "zkexport";

/* The command line. */
struct export_request_t {
  std::string format;
  std::vector<std::string> stacks;
  std::string id; /* of the one incident that is wanted, empty for all */
  bool is_every;  /* all stacks of this node */
  bool is_input;  /* incidents come from standard input */
  bool is_follow;
  std::string cursor_file; /* empty for none */
};

/* Each gives out what the request asks for and returns the exit status. */
int export_json(const zk_trace_t& trace, const export_request_t& request);
int follow_json(const zk_trace_t& trace, const export_request_t& request); /* until SIGTERM or SIGINT */
int export_page(const zk_trace_t& trace, const export_request_t& request); /* dot and html */

/* The names of the stacks that are asked for. Returns the exit status, not 0 when they cannot be had, which has been
 * said. */
int stacks_to_export(const zk_trace_t& trace, const export_request_t& request, std::vector<std::string>* names);

/* Reads the stack `name`, and gives each of the incidents that are asked for to `take`. */
trouble_t read_incidents(const zk_trace_t& trace, const export_request_t& request, const std::string& name,
                         const std::function<void(const incident_t&)>& take);

/* Writes on standard output, at once. Returns false when that fails, which has been said. */
bool write_out(std::string_view text);

/* Says in one line on standard error what is wrong with `what`. */
void complain(std::string_view what, std::string_view reason);

#endif
