/* SPDX-License-Identifier: MIT */
/* export.cpp - what all formats of zkexport share. */
#include "export.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "command.h"
#include "zkstatus.h"

/* ---- Formats ------------------------------------------------------------------------------------------------------- */

static constexpr format_t FORMATS[] = {
    {.name = "json", .give = give_json, .can_follow = true, .takes_input = false},
    {.name = "dot", .give = give_dot, .can_follow = false, .takes_input = true},
    {.name = "html", .give = give_html, .can_follow = false, .takes_input = true},
};

std::span<const format_t> formats() {
  return FORMATS;
}

const format_t* find_format(std::string_view name) {
  for (const format_t& format : FORMATS)
    if (format.name == name) return &format;
  return nullptr;
}

/* ---- Output -------------------------------------------------------------------------------------------------------- */

int complain(std::string_view what, std::string_view reason) {
  return report_failure(EXPORT_NAME, std::string(what), std::string(reason));
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
    if (result == ZELK_SUCCESS) return STATUS_DONE;
    complain(ZELK_STACK_DIR, reason_of(result));
    return EXIT_NO_STACK;
  }
  if (!request.id.empty()) {
    const int result = find_stack(trace, request.id, &names->emplace_back());
    if (result == ZELK_SUCCESS) return STATUS_DONE;
    complain(request.id, reason_of(result));
    return status_of(result);
  }
  return STATUS_DONE;
}

damage_t end_reading(stack_reader_t* reader) {
  damage_t damage = end_stack(reader);
  if (damage.code == ZELK_SUCCESS && !reader->id.empty() && !reader->is_any_read)
    complain(reader->id, message_text(TOOL_MSG_OVERWRITTEN)); /* no failure to zkview either */
  return damage;
}
