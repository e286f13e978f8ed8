/* SPDX-License-Identifier: MIT */
/* export_page.cpp - gathers incidents, from stacks or from standard input, and gives them out as one file. */
#include <unistd.h>

#include "chain.h"
#include "export.h"
#include "json.h"
#include "stacks.h"
#include "tool.h"

/* Limits of standard input, in bytes: far above what a record can become, and what a page can show. */
static constexpr size_t LINE_MAX_SIZE = 1024 * 1024;
static constexpr size_t INPUT_MAX_SIZE = 256 * 1024 * 1024;

/* Gathers what the stacks hold. Returns the exit status. */
static int gather(const zk_trace_t& trace, const export_request_t& request, chain_t* chain) {
  std::vector<std::string> names;
  int status = stacks_to_export(trace, request, &names);
  for (const std::string& name : names) {
    const trouble_t trouble =
        read_incidents(trace, request, name, [&](const incident_t& incident) { chain->incidents.push_back(incident); });
    if (trouble.code == ZELK_SUCCESS) continue;
    chain->notes.push_back(trouble_note(name, trouble));
    complain(name, trouble.offset < 0 ? reason_of(trouble.code) : chain->notes.back().substr(name.size() + 2));
    status = worst_status(status, status_of(trouble.code));
  }
  return status;
}

/* Takes one line of standard input. Returns false when it is not one that json gives. */
static bool take_line(const std::string& line, chain_t* chain) {
  incident_t incident = {};
  std::string note;
  if (!parse_json(line, &incident, &note)) return false;
  if (note.empty())
    chain->incidents.push_back(incident);
  else
    chain->notes.push_back(note);
  return true;
}

static int fail(const std::string& what, const std::string& reason) {
  complain(what, reason);
  return TOOL_FAILED;
}
static int fail_at(size_t line, const std::string& reason) {
  return fail(message_text(TOOL_MSG_LINE_NUMBER, {std::to_string(line)}), reason);
}

/* Gathers the incidents of standard input. Returns the exit status. */
static int gather_input(chain_t* chain) {
  std::array<char, 65536> block;
  std::string line;
  size_t number = 1, total = 0;
  for (;;) {
    const size_t size = zk_read_on(STDIN_FILENO, block.data(), block.size());
    if (errno != 0) return fail(message_text(TOOL_MSG_STANDARD_INPUT), std::strerror(errno));
    std::string_view rest(block.data(), size);
    for (size_t end; (end = rest.find('\n')) != rest.npos; ++number) {
      line += rest.substr(0, end);
      rest.remove_prefix(end + 1);
      if (!take_line(line, chain)) return fail_at(number, message_text(TOOL_MSG_NO_INCIDENT));
      line.clear();
    }
    line += rest;
    total += size;
    if (line.size() > LINE_MAX_SIZE) return fail_at(number, message_text(TOOL_MSG_LINE_TOO_LONG));
    if (total > INPUT_MAX_SIZE) return fail_at(number, message_text(TOOL_MSG_TOO_MANY_INCIDENTS));
    if (size < block.size()) break;
  }
  if (!line.empty() && !take_line(line, chain)) return fail_at(number, message_text(TOOL_MSG_NO_INCIDENT));
  return TOOL_DONE;
}

int export_page(const zk_trace_t& trace, const export_request_t& request) {
  chain_t chain;
  const int status = request.is_input ? gather_input(&chain) : gather(trace, request, &chain);
  if (request.is_input && status != TOOL_DONE) return status;
  if (status != TOOL_DONE && chain.incidents.empty() && chain.notes.empty()) return status; /* no stack at all */
  find_causes(&chain);
  return write_out(request.format == "dot" ? make_dot(chain) : make_html(chain)) ? status : int{TOOL_FAILED};
}
