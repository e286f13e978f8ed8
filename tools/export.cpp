/* SPDX-License-Identifier: MIT */
/* export.cpp - what all formats of zkexport need: the stacks and incidents that are asked for, and output. */
#include "export.h"

#include <unistd.h>

#include "tool.h"
#include "zkstatus.h"

/* ---- Output -------------------------------------------------------------------------------------------------------- */

void complain(std::string_view what, std::string_view reason) {
  tool_fail(EXPORT_NAME, std::string(what), std::string(reason));
}

bool write_out(std::string_view text) {
  if (zk_write_all(STDOUT_FILENO, text.data(), text.size())) return true;
  complain(message_text(TOOL_MSG_STANDARD_OUTPUT), std::strerror(errno));
  return false;
}

/* ---- Stacks -------------------------------------------------------------------------------------------------------- */

int stacks_to_export(const zk_trace_t& trace, const export_request_t& request, std::vector<std::string>* names) {
  *names = request.stacks;
  if (request.is_every) {
    const int result = list_stacks(names);
    if (result == ZELK_SUCCESS) return TOOL_DONE;
    complain(ZELK_STACK_DIR, reason_of(result));
    return EXIT_NO_STACK;
  }
  if (!request.id.empty()) {
    const int result = find_stack(trace, request.id, &names->emplace_back());
    if (result == ZELK_SUCCESS) return TOOL_DONE;
    complain(request.id, reason_of(result));
    return status_of(result);
  }
  return TOOL_DONE;
}

trouble_t read_incidents(const zk_trace_t& trace, const export_request_t& request, const std::string& name,
                         const std::function<void(const incident_t&)>& take) {
  incident_t incident;
  bool is_any_taken = false;
  trouble_t trouble = read_stack(trace, name, [&](const zk_walk_t& walk) {
    bool is_wanted = false;
    int result = select_record(trace, walk.record.data(), request.id, &is_wanted);
    if (result == ZELK_SUCCESS && is_wanted) result = take_incident_at(walk, name, &incident);
    if (result != ZELK_SUCCESS || !is_wanted) return result;
    is_any_taken = true;
    take(incident);
    return result;
  });
  if (trouble.code == ZELK_SUCCESS && !request.id.empty() && !is_any_taken)
    complain(request.id, message_text(TOOL_MSG_OVERWRITTEN)); /* no failure to zkview either */
  return trouble;
}
