/* SPDX-License-Identifier: MIT */
/* json.cpp - gives out what stacks hold as lines of JSON. */
#include <unistd.h>

#include "command.h"
#include "cursor.h"
#include "export.h"
#include "json_line.h"
#include "unread.h"
#include "zk_stack_file.h"
#include "zkopen.h"

/* What is gathered before it is written; more than a stack of version one can give. */
static constexpr size_t BLOCK_SIZE = 1024 * 1024;

/* Gathers the incidents of a stack. What a stack of a later format has in excess of the block is written under way. */
static damage_t gather_all(const zk_trace_t& trace, const export_request_t& request, const std::string& name,
                           bool* is_written, std::string* lines) {
  stack_reader_t reader;
  incident_t incident;
  begin_stack(&reader, trace, name, request.id);
  while (next_incident(&reader, &incident)) {
    write_json(incident, lines);
    if (lines->size() < BLOCK_SIZE) continue;
    *is_written = *is_written && write_out(*lines);
    lines->clear();
  }
  return end_reading(&reader);
}

/* Gathers what the cursor does not have yet, and moves it on. */
static damage_t gather_unread(const zk_trace_t& trace, const std::string& name, cursor_t* cursor, std::string* lines) {
  int fildes = -1;
  const int result = zk_open_stack_by_name(trace.active, trace.file, &fildes, name.c_str());
  if (result != ZELK_SUCCESS) return damage_of(result);
  const std::string path = zk_stack_path(name.c_str()).data();
  const auto known = cursor->marks.find(path);
  const mark_t* const mark = known != cursor->marks.end() ? &known->second : nullptr;
  mark_t moved;
  damage_t damage = read_unread(trace, fildes, name, mark, &moved, lines);
  close(fildes);
  if (damage.code != ZELK_LOCK) cursor->marks[path] = moved;
  return damage;
}

static int give_stacks(const zk_trace_t& trace, const export_request_t& request) {
  cursor_t cursor = {request.cursor_file, {}};
  std::string reason;
  if (!cursor.file.empty() && !load_cursor(&cursor, &reason)) return complain(request.cursor_file, reason);
  std::vector<std::string> names;
  int status = stacks_to_export(trace, request, &names);
  if (status != STATUS_DONE) return status;

  std::string lines;
  for (const std::string& name : names) {
    bool is_written = true;
    const damage_t damage = cursor.file.empty() ? gather_all(trace, request, name, &is_written, &lines)
                                                : gather_unread(trace, name, &cursor, &lines);
    if (damage.code != ZELK_SUCCESS) {
      write_json_damage(name, damage, &lines);
      if (damage.offset < 0) complain(name, reason_of(damage.code));
      status = worst_status(status, status_of(damage.code));
    }
    if (!is_written || !write_out(lines)) return STATUS_FAILED;
    lines.clear();
    if (!cursor.file.empty() && !save_cursor(cursor, &reason)) return complain(cursor.file, reason);
  }
  return status;
}

int give_json(const zk_trace_t& trace, const export_request_t& request) {
  return request.is_follow ? follow_json(trace, request) : give_stacks(trace, request);
}
