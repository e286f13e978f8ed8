/* SPDX-License-Identifier: MIT */
/* json.cpp - gives out what stacks hold as lines of JSON. */

#include "command.h"
#include "cursor.h"
#include "export.h"
#include "gather.h"
#include "json_line.h"
#include "unread.h"
#include "zk_stack_file.h"

/* What is gathered before it is written; more than a stack of version one can give. */
static constexpr size_t BLOCK_SIZE = 1024 * 1024;

/* Gathers the incidents of a stack. What a stack of a later format has in excess of the block is written under way. */
static damage_t gather_all(const zk_trace_t& trace, const export_request_t& request, const std::string& name,
                           bool* is_written, std::string* lines) {
  stack_reader_t reader;
  incident_t incident;
  begin_stack(&reader, trace, name, request.id);
  while (next_incident(&reader, &incident)) {
    if (is_selected(request.selection, incident)) write_json(incident, lines);
    if (lines->size() < BLOCK_SIZE) continue;
    *is_written = *is_written && write_out(*lines);
    lines->clear();
  }
  return end_reading(&reader);
}

/* Gathers what the cursor does not have yet, and moves it on. What is more than can be kept is written under way. */
static damage_t gather_unread(const zk_trace_t& trace, const export_request_t& request, const std::string& name,
                              cursor_t* cursor, bool* is_written, std::string* lines) {
  open_stack_t stack;
  const int result = open_stack(trace, name, &stack);
  if (result != ZELK_SUCCESS) return damage_of(result);
  const std::string path = zk_stack_path(name.c_str()).data();
  unread_t unread = {};
  do {
    *is_written = lines->empty() || write_out(*lines);
    unread = read_unread(trace, stack, name, request.selection, find_mark(*cursor, path, stack.fildes));
    if (unread.damage.code != ZELK_LOCK) cursor->marks[path] = unread.mark;
    *lines = unread.lines;
  } while (unread.is_more && *is_written);
  close(stack.fildes);
  return unread.damage;
}

/* Gives stack by stack, so that nothing has to be kept. */
static int give_stacks(const zk_trace_t& trace, const export_request_t& request) {
  cursor_t cursor = {request.cursor_file, {}};
  std::string reason;
  if (!cursor.file.empty() && !load_cursor(&cursor, &reason)) return complain(full_path(request.cursor_file), reason);
  std::vector<std::string> names;
  int status = stacks_to_export(trace, request, &names);
  if (status != STATUS_DONE) return status;
  std::vector<std::string> paths;
  paths.reserve(names.size());
  for (const std::string& name : names) paths.push_back(zk_stack_path(name.c_str()).data());
  move_marks(&cursor, paths);
  if (request.is_every) forget_gone(&cursor, names);
  if (!save_cursor(cursor)) return STATUS_FAILED;

  std::string lines;
  for (const std::string& name : names) {
    bool is_written = true;
    const damage_t damage = cursor.file.empty() ? gather_all(trace, request, name, &is_written, &lines)
                                                : gather_unread(trace, request, name, &cursor, &is_written, &lines);
    status = report_damage(request, name, damage, status, &lines);
    if (!is_written || !write_out(lines)) return STATUS_FAILED;
    lines.clear();
    if (!save_cursor(cursor)) return STATUS_FAILED;
  }
  return status;
}

/* Gives what has to be known all together before the first line can be given. */
static int give_gathered(const zk_trace_t& trace, const export_request_t& request) {
  chain_t chain;
  std::string lines, other_lines;
  const int status = gather(trace, request, &chain, &other_lines);
  for (const incident_t& incident : chain.incidents) {
    write_json(incident, &lines);
    if (lines.size() < BLOCK_SIZE) continue;
    if (!write_out(lines)) return STATUS_FAILED;
    lines.clear();
  }
  return write_out(lines += other_lines) ? status : int{STATUS_FAILED};
}

int give_json(const zk_trace_t& trace, const export_request_t& request) {
  if (request.is_follow) return follow_json(trace, request);
  const bool is_together = request.is_input || request.is_chain || request.selection.newest >= 0;
  return is_together ? give_gathered(trace, request) : give_stacks(trace, request);
}
