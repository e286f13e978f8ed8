/* SPDX-License-Identifier: MIT */
/* gather.cpp - gathers incidents, from stacks or from standard input, for the formats that show them all together. */
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "chain.h"
#include "command.h"
#include "export.h"
#include "json_line.h"

/* Limits of standard input, in bytes: far above what a record can become, and what a page can show. */
static constexpr size_t LINE_MAX_SIZE = 1024 * 1024;
static constexpr size_t INPUT_MAX_SIZE = 256 * 1024 * 1024;

/* Gathers what the stacks hold. Returns the exit status. */
static int gather_stacks(const zk_trace_t& trace, const export_request_t& request, chain_t* chain) {
  std::vector<std::string> names;
  int status = stacks_to_export(trace, request, &names);
  for (const std::string& name : names) {
    stack_reader_t reader;
    incident_t incident;
    begin_stack(&reader, trace, name, request.id);
    while (next_incident(&reader, &incident)) chain->incidents.push_back(incident);
    const damage_t damage = end_reading(&reader);
    if (damage.code == ZELK_SUCCESS) continue;
    chain->notes.push_back(damage_note(name, damage));
    complain(name, damage.offset < 0 ? reason_of(damage.code) : damage_text(damage));
    status = worst_status(status, status_of(damage.code));
  }
  return status;
}

/* Adds what a line of standard input holds. Returns false when it is not one that json gives. */
static bool add_line(const std::string& line, chain_t* chain) {
  incident_t incident;
  damage_t damage;
  switch (parse_json_line(line, &incident, &damage)) {
    case line_t::INCIDENT:
      chain->incidents.push_back(incident);
      return true;
    case line_t::GAP:
      chain->notes.push_back(gap_note(incident.stack));
      return true;
    case line_t::DAMAGE:
      chain->notes.push_back(damage_note(incident.stack, damage));
      return true;
    default:
      return false;
  }
}

static int fail_at(size_t line, tool_message_t reason) {
  return complain(message_text(TOOL_MSG_LINE_NUMBER, {std::to_string(line)}), message_text(reason));
}

/* Gathers the incidents of standard input. Returns the exit status. */
static int gather_input(chain_t* chain) {
  std::array<char, 65536> block;
  std::string line;
  size_t number = 1, total = 0;
  for (;;) {
    const size_t size = zk_read_on(STDIN_FILENO, block.data(), block.size());
    if (errno != 0) return complain(message_text(TOOL_MSG_STANDARD_INPUT), std::strerror(errno));
    std::string_view rest(block.data(), size);
    for (size_t end; (end = rest.find('\n')) != rest.npos; ++number) {
      line += rest.substr(0, end);
      rest.remove_prefix(end + 1);
      if (!add_line(line, chain)) return fail_at(number, TOOL_MSG_NO_INCIDENT);
      line.clear();
    }
    line += rest;
    total += size;
    if (line.size() > LINE_MAX_SIZE) return fail_at(number, TOOL_MSG_LINE_TOO_LONG);
    if (total > INPUT_MAX_SIZE) return fail_at(number, TOOL_MSG_TOO_MANY_INCIDENTS);
    if (size < block.size()) break;
  }
  if (!line.empty() && !add_line(line, chain)) return fail_at(number, TOOL_MSG_NO_INCIDENT);
  return STATUS_DONE;
}

/* Gives out the text that `make` makes of the incidents that are asked for. Returns the exit status. */
static int give_text(const zk_trace_t& trace, const export_request_t& request, std::string (*make)(const chain_t&)) {
  chain_t chain;
  const int status = request.is_input ? gather_input(&chain) : gather_stacks(trace, request, &chain);
  if (request.is_input && status != STATUS_DONE) return status;
  if (status != STATUS_DONE && chain.incidents.empty() && chain.notes.empty()) return status; /* no stack at all */
  find_causes(&chain);
  return write_out(make(chain)) ? status : int{STATUS_FAILED};
}

int give_dot(const zk_trace_t& trace, const export_request_t& request) {
  return give_text(trace, request, make_dot);
}

int give_html(const zk_trace_t& trace, const export_request_t& request) {
  return give_text(trace, request, make_html);
}
