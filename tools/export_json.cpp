/* SPDX-License-Identifier: MIT */
/* export_json.cpp - gives out what stacks hold as lines of JSON. */
#include <unistd.h>

#include "cursor.h"
#include "export.h"
#include "json.h"
#include "tool.h"
#include "unread.h"
#include "zk_stack_file.h"
#include "zkopen.h"

/* What is gathered before it is written; more than a stack of version one can give. */
static constexpr size_t BLOCK_SIZE = 1024 * 1024;

/* Gathers the incidents of a stack. What a stack of a later format has in excess of the block is written under way. */
static trouble_t gather_all(const zk_trace_t& trace, const export_request_t& request, const std::string& name,
                            bool* is_written, std::string* lines) {
  return read_incidents(trace, request, name, [&](const incident_t& incident) {
    write_json(incident, lines);
    if (lines->size() < BLOCK_SIZE) return;
    *is_written = *is_written && write_out(*lines);
    lines->clear();
  });
}

/* Gathers what the cursor does not have yet, and moves it on. */
static trouble_t gather_unread(const zk_trace_t& trace, const std::string& name, cursor_t* cursor, std::string* lines) {
  int fildes = -1;
  const int result = zk_open_stack_by_name(trace.active, trace.file, &fildes, name.c_str());
  if (result != ZELK_SUCCESS) return trouble_of(result);
  const auto known = cursor->marks.find(zk_stack_path(name.c_str()).data());
  const mark_t* const mark = known != cursor->marks.end() ? &known->second : nullptr;
  mark_t moved;
  trouble_t trouble = read_unread(trace, fildes, name, mark, &moved, lines);
  close(fildes);
  if (trouble.code != ZELK_LOCK) cursor->marks[zk_stack_path(name.c_str()).data()] = moved;
  return trouble;
}

int export_json(const zk_trace_t& trace, const export_request_t& request) {
  cursor_t cursor = {request.cursor_file, {}};
  std::string problem;
  if (!cursor.file.empty() && !load_cursor(&cursor, &problem)) {
    complain(request.cursor_file, problem);
    return TOOL_FAILED;
  }
  std::vector<std::string> names;
  int status = stacks_to_export(trace, request, &names);
  if (status != TOOL_DONE) return status;

  std::string lines;
  for (const std::string& name : names) {
    bool is_written = true;
    const trouble_t trouble = cursor.file.empty() ? gather_all(trace, request, name, &is_written, &lines)
                                                  : gather_unread(trace, name, &cursor, &lines);
    if (trouble.code != ZELK_SUCCESS) {
      write_json_trouble(name, trouble, &lines);
      if (trouble.offset < 0) complain(name, reason_of(trouble.code));
      status = worst_status(status, status_of(trouble.code));
    }
    if (!is_written || !write_out(lines)) return TOOL_FAILED;
    lines.clear();
    if (!cursor.file.empty() && !save_cursor(cursor, &problem)) {
      complain(cursor.file, problem);
      return TOOL_FAILED;
    }
  }
  return status;
}
