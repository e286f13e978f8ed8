/* SPDX-License-Identifier: MIT */
/* gather.cpp - gathers incidents, from stacks or from standard input, for what needs them all together. */
#include "gather.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <unordered_set>
#include <utility>

#include "command.h"
#include "json_line.h"
#include "page.h"
#include "zk_stack_file.h"

/* Limits of standard input, in bytes: far above what a record can become, and what can be kept of it. */
static constexpr size_t LINE_MAX_SIZE = 1024 * 1024;
static constexpr size_t KEPT_MAX_SIZE = 256 * 1024 * 1024;

static constexpr size_t REFUSED_NOTED_MAX = 100; /* lines that are noted one by one; the others by their number */

static constexpr size_t USUAL_COUNT = 128; /* of incidents in a stack */

/* ---- Stacks -------------------------------------------------------------------------------------------------------- */

/* Counts an incident that does not fit. Its Error ID is for those formats that say whether a cause is here. */
static void pass_over(const export_request_t& request, incident_t* incident, chain_t* chain) {
  leave_out(chain, request.format->can_follow ? "" : std::move(incident->id));
}

static int gather_stacks(const zk_trace_t& trace, const export_request_t& request, chain_t* chain,
                         std::string* other_lines) {
  std::vector<std::string> names;
  int status = stacks_to_export(trace, request, &names);
  if (status != STATUS_DONE) return status;
  const std::string wanted_id = request.is_chain ? "" : request.id;
  chain->incidents.reserve(std::min(names.size(), size_t{8}) * USUAL_COUNT);
  std::set<std::pair<dev_t, ino_t>> gathered;
  for (const std::string& name : names) {
    struct stat file;
    const bool is_there = stat(zk_stack_path(name.c_str()).data(), &file) == 0;
    if (is_there && !gathered.insert({file.st_dev, file.st_ino}).second) continue; /* by another name */
    stack_reader_t reader;
    begin_stack(&reader, trace, name, wanted_id);
    while (next_incident(&reader, &chain->incidents.emplace_back())) {
      if (request.is_chain || is_selected(request.selection, chain->incidents.back())) continue;
      pass_over(request, &chain->incidents.back(), chain);
      chain->incidents.pop_back();
    }
    chain->incidents.pop_back(); /* there was none for it */
    const damage_t damage = end_reading(&reader);
    const size_t told = other_lines->size();
    status = report_damage(request, name, damage, status, other_lines);
    if (other_lines->size() > told) chain->notes.push_back(damage_note(name, damage));
  }
  sort_by_time(&chain->incidents);
  return status;
}

/* ---- Standard input ------------------------------------------------------------------------------------------------ */

struct input_t {
  const export_request_t* request;
  chain_t* chain;
  std::string* other_lines;
  std::unordered_set<std::string> known; /* the keys of incidents, and the notes, that have come */
  incident_t incident;                   /* of the last line */
  size_t line;                           /* its number, from 1 on */
  size_t kept;                           /* bytes of lines that are given on */
  size_t refused;                        /* lines that were passed over */
  int status;
};

static void refuse_line(input_t* input, tool_message_t reason) {
  const std::string line = message_text(TOOL_MSG_LINE_NUMBER, {std::to_string(input->line)});
  input->status = complain(line, message_text(reason));
  if (++input->refused > REFUSED_NOTED_MAX) return;
  input->chain->notes.push_back(std::string("standard input, line ") + std::to_string(input->line) + ": " +
                                english_text(reason));
}

/* What lines of one incident have in common: its Error ID or, without one, all that they say, but for the name of the stack
 * where the node is known. */
static std::string key_of(incident_t* incident) {
  if (!incident->id.empty()) return incident->id;
  std::string key, name;
  const bool has_node = !incident->node.empty();
  if (has_node) std::swap(name, incident->stack);
  write_json(*incident, &key);
  if (has_node) std::swap(name, incident->stack);
  return key;
}

/* Counts an incident that does not fit, once, where the format says how many there are. */
static void count_unwanted(input_t* input) {
  incident_t* const incident = &input->incident;
  if (input->request->format->can_follow) return;
  if (incident->id.empty()) /* what no Error ID can be */
    incident->id = std::string(ZELK_EID_SIZE, '#') + std::to_string(std::hash<std::string>{}(key_of(incident)));
  if (input->known.contains(incident->id) || input->chain->left_out_ids.contains(incident->id)) return;
  pass_over(*input->request, incident, input->chain);
}

static void add_incident(input_t* input, size_t size) {
  const export_request_t& request = *input->request;
  incident_t& incident = input->incident;
  const bool is_wanted = request.is_chain || is_selected(request.selection, incident);
  if (!is_wanted) {
    count_unwanted(input);
    return;
  }
  if (!input->known.insert(key_of(&incident)).second) return;
  input->kept += size;
  input->chain->incidents.push_back(std::move(incident));
}

/* Adds damage, which may come twice, too, or a gap: two of stacks of one name are two, and named once. */
static void add_note(input_t* input, const std::string& line, const std::string& note, bool is_gap) {
  const bool is_new = input->known.insert(line).second;
  if (!is_new && !is_gap) return;
  *input->other_lines += line;
  input->kept += line.size();
  if (is_new) input->chain->notes.push_back(note);
}

static void add_line(input_t* input, std::string_view line) {
  damage_t damage;
  std::string other;
  if (line.empty() || line == "\r") return;
  switch (parse_json_line(line, &input->incident, &damage)) {
    case line_kind_t::INCIDENT:
      add_incident(input, line.size());
      break;
    case line_kind_t::GAP:
      write_json_gap(input->incident.stack, &other);
      add_note(input, other, gap_note(input->incident.stack), true);
      break;
    case line_kind_t::DAMAGE:
      write_json_damage(input->incident.stack, damage, &other);
      add_note(input, other, damage_note(input->incident.stack, damage), false);
      break;
    default:
      refuse_line(input, TOOL_MSG_NO_INCIDENT);
  }
}

/* Adds the lines of what has been read, and leaves the last one, which has no end yet, in `*rest`. */
static void add_lines(input_t* input, std::string_view bytes, std::string* rest) {
  for (size_t end; (end = bytes.find('\n')) != bytes.npos; ++input->line) {
    const std::string_view line = bytes.substr(0, end);
    bytes.remove_prefix(end + 1);
    if (rest->size() + line.size() > LINE_MAX_SIZE)
      refuse_line(input, TOOL_MSG_LINE_TOO_LONG);
    else
      add_line(input, rest->empty() ? line : * rest += line);
    rest->clear();
  }
  *rest +=
      bytes.substr(0, LINE_MAX_SIZE + 1 - std::min(rest->size(), LINE_MAX_SIZE + 1)); /* enough to see it is too long */
}

static int gather_input(const export_request_t& request, chain_t* chain, std::string* other_lines) {
  input_t input = {&request, chain, other_lines, {}, {}, 1, 0, 0, STATUS_DONE};
  std::vector<char> block(262144);
  std::string rest;
  size_t size = block.size();
  while (size == block.size() && input.kept <= KEPT_MAX_SIZE) {
    size = zk_read(STDIN_FILENO, block.data(), block.size());
    if (errno != 0) input.status = complain(message_text(TOOL_MSG_STANDARD_INPUT), std::strerror(errno));
    add_lines(&input, {block.data(), size}, &rest);
  }
  const bool has_ended = size < block.size() || (zk_read(STDIN_FILENO, block.data(), 1) == 0 && errno == 0);
  if (has_ended && !rest.empty()) add_lines(&input, "\n", &rest); /* of what goes on it may be half a line */
  if (input.refused > REFUSED_NOTED_MAX)
    chain->notes.push_back("standard input: " + std::to_string(input.refused - REFUSED_NOTED_MAX) +
                           " more lines were passed over");
  input.refused = 0; /* the last one is noted in any case */
  if (!has_ended) refuse_line(&input, TOOL_MSG_TOO_MANY_INCIDENTS);
  std::stable_sort(chain->incidents.begin(), chain->incidents.end(),
                   [](const incident_t& one, const incident_t& other) { return exact_time(one) < exact_time(other); });
  return input.status;
}

/* ---- Both ---------------------------------------------------------------------------------------------------------- */

int gather(const zk_trace_t& trace, const export_request_t& request, chain_t* chain, std::string* other_lines) {
  int status =
      request.is_input ? gather_input(request, chain, other_lines) : gather_stacks(trace, request, chain, other_lines);
  if (request.is_chain) {
    keep_chain(request.id, &chain->incidents);
    if (chain->incidents.empty() && status == STATUS_DONE)
      status = complain(request.id, message_text(TOOL_MSG_NO_CHAIN));
    std::erase_if(chain->incidents, [&](const incident_t& incident) {
      const bool is_wanted = is_selected(request.selection, incident);
      if (!is_wanted) leave_out(chain, incident.id);
      return !is_wanted;
    });
  }
  if (request.selection.newest >= 0) keep_newest(static_cast<size_t>(request.selection.newest), chain);
  chain->is_part = !request.id.empty() && !request.is_chain;
  return status;
}

/* What was asked for, and how many incidents that left out. */
static std::string selection_note(const selection_t& selection, size_t left_out) {
  const std::string newest = selection.newest >= 0 ? std::to_string(selection.newest) : "";
  const struct {
    const char* option;
    const std::string& value;
  } OPTIONS[] = {{"--since", selection.since},
                 {"--until", selection.until},
                 {"--process", selection.process},
                 {"--product", selection.product},
                 {"--node", selection.node},
                 {"--grep", selection.pattern},
                 {"--lines", newest}};
  std::string note = "left out: " + std::to_string(left_out) + (left_out == 1 ? " incident, by" : " incidents, by");
  for (const auto& [option, value] : OPTIONS)
    if (!value.empty()) note.append(" ").append(option).append("=").append(value);
  return note;
}

int give_text(const zk_trace_t& trace, const export_request_t& request, std::string (*make)(const chain_t&)) {
  chain_t chain;
  std::string other_lines;
  const int status = gather(trace, request, &chain, &other_lines);
  if (status != STATUS_DONE && chain.incidents.empty() && chain.notes.empty()) return status; /* no stack at all */
  if (chain.left_out > 0) chain.notes.push_back(selection_note(request.selection, chain.left_out));
  chain.asked_id = request.id;
  find_causes(&chain);
  find_lanes(&chain);
  return write_out(make(chain)) ? status : int{STATUS_FAILED};
}

int give_dot(const zk_trace_t& trace, const export_request_t& request) {
  return give_text(trace, request, make_dot);
}

int give_html(const zk_trace_t& trace, const export_request_t& request) {
  return give_text(trace, request, make_html);
}
