/* SPDX-License-Identifier: MIT */
/* stacks.cpp - finds stacks, and walks them without printing. */
#include "stacks.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "message.h"
#include "zk_stack_file.h"
#include "zkfields.h"
#include "zkopen.h"
#include "zkstatus.h"

/* ---- Failures ------------------------------------------------------------------------------------------------------ */

struct trouble_row_t {
  int code;
  int status;
  tool_message_t reason;
};
static constexpr trouble_row_t TROUBLES[] = {{ZELK_LOCK, EXIT_NOT_LOCKED, TOOL_MSG_NOT_LOCKED},
                                             {ZELK_FILE_CORRUPT, EXIT_CORRUPT, TOOL_MSG_DAMAGED},
                                             {ZELK_NO_MEMORY, EXIT_NO_MEMORY, TOOL_MSG_NO_MEMORY},
                                             {ZELK_FILE_MISSING, EXIT_NO_STACK, TOOL_MSG_NO_STACK},
                                             {ZELK_NO_ACCESS, EXIT_NO_STACK, TOOL_MSG_NO_ACCESS},
                                             {ZELK_UNSUPPORTED, EXIT_LATER_VERSION, TOOL_MSG_STACK_OF_LATER_VERSION},
                                             {ZELK_INV_FID, EXIT_BAD_EID, TOOL_MSG_NOT_A_STACK_ID},
                                             {ZELK_INV_STACKNAME, EXIT_BAD_EID, TOOL_MSG_NO_STACK_NAME},
                                             {ZELK_REMOTE_FID, EXIT_REMOTE, TOOL_MSG_OTHER_NODE},
                                             {ZELK_TOO_MANY, EXIT_UNEXPECTED, TOOL_MSG_TOO_MANY_FILES},
                                             {ZELK_DIR_MISSING, EXIT_UNEXPECTED, TOOL_MSG_DIRECTORY_MISSING},
                                             {ZELK_DIR_NO_ACCESS, EXIT_UNEXPECTED, TOOL_MSG_DIRECTORY_NOT_READ}};
static constexpr trouble_row_t UNEXPECTED = {ZELK_FAILURE, EXIT_UNEXPECTED, TOOL_MSG_CANNOT_READ};

static const trouble_row_t& row_of(int code) {
  for (const trouble_row_t& row : TROUBLES)
    if (row.code == code) return row;
  return UNEXPECTED;
}

trouble_t trouble_of(int code) {
  return {code, -1, english_text(row_of(code).reason)};
}

std::string reason_of(int code) {
  return message_text(row_of(code).reason);
}

int status_of(int code) {
  return row_of(code).status;
}

int worst_status(int one, int other) {
  for (int status : {EXIT_CORRUPT, EXIT_NOT_LOCKED, EXIT_NO_STACK})
    if (one == status || other == status) return status;
  return std::max(one, other);
}

/* ---- Finding ------------------------------------------------------------------------------------------------------- */

int list_stacks(std::vector<std::string>* names) {
  static constexpr zk_errno_result OPENDIR_RESULTS[] = {
      {EACCES, ZELK_DIR_NO_ACCESS}, {ENOENT, ZELK_DIR_MISSING}, {ENOTDIR, ZELK_DIR_MISSING}};
  names->clear();
  DIR* const directory = opendir(ZELK_STACK_DIR);
  if (directory == nullptr) return zk_result_of_errno(errno, OPENDIR_RESULTS);
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    struct stat status;
    const bool is_file = fstatat(dirfd(directory), entry->d_name, &status, 0) == 0 && S_ISREG(status.st_mode);
    if (is_file && !name.starts_with(ZK_STACK_IN_MAKING)) names->push_back(name);
  }
  closedir(directory);
  std::sort(names->begin(), names->end());
  return ZELK_SUCCESS;
}

int select_record(const zk_trace_t& trace, const void* record, const std::string& id, bool* is_wanted) {
  zk_decoded_t opened;
  const int result = zk_open_record(trace, record, &opened);
  *is_wanted = result == ZELK_SUCCESS && (id.empty() || id == opened.fields.eid);
  return result;
}

int find_stack(const zk_trace_t& trace, const std::string& id, std::string* name) {
  zk_candidates_t candidates = {};
  const int result = zk_find_candidates(trace, id.c_str(), &candidates);
  if (result != ZELK_SUCCESS) return result;
  auto slot = [&](int index) { return candidates.data() + ptrdiff_t{index} * ZELK_FILE_SLOT_SIZE; };
  *name = slot(0);
  if (*slot(1) == '\0') return ZELK_SUCCESS; /* the only one is taken unsearched */

  for (int index = 0; index < ZK_CANDIDATES_MAX && *slot(index) != '\0'; ++index) {
    bool is_found = false;
    *name = slot(index);
    const trouble_t trouble = read_stack(trace, *name, [&](const zk_walk_t& walk) {
      bool is_wanted = false;
      const int opened = select_record(trace, walk.record.data(), id, &is_wanted);
      is_found = is_found || is_wanted;
      return opened;
    });
    if (is_found) return ZELK_SUCCESS;
    if (trouble.code == ZELK_FILE_CORRUPT || trouble.code == ZELK_LOCK) return ZELK_FAILURE;
    if (trouble.code != ZELK_SUCCESS) return trouble.code;
  }
  return ZELK_FILE_MISSING;
}

/* ---- Reading ------------------------------------------------------------------------------------------------------- */

trouble_t walk_stack(const zk_trace_t& trace, int fildes, const visitor_t& visit) {
  zk_walk_t walk;
  trouble_t trouble;
  const int begun = zk_walk_begin(&walk, trace, fildes);
  if (begun == ZELK_LOCK) return trouble_of(begun);
  while (begun == ZELK_SUCCESS && zk_walk_next(&walk) == ZELK_SUCCESS) {
    const int result = visit(walk);
    if (result != ZELK_SUCCESS) trouble = {ZELK_FILE_CORRUPT, walk.record_position, zk_record_damage(result)};
    if (result != ZELK_SUCCESS || zk_walk_at_write_pos(walk)) break;
  }
  zk_walk_end(walk);
  if (walk.damage.reason != nullptr) trouble = {ZELK_FILE_CORRUPT, walk.damage.offset, walk.damage.reason};
  return trouble;
}

int take_incident_at(const zk_walk_t& walk, const std::string& name, incident_t* incident) {
  incident->stack = name;
  incident->offset = walk.record_position;
  return take_incident(walk.trace, walk.record.data(), incident);
}

trouble_t read_stack(const zk_trace_t& trace, const std::string& name, const visitor_t& visit) {
  int fildes = -1;
  const int result = zk_open_stack_by_name(trace.active, trace.file, &fildes, name.c_str());
  if (result != ZELK_SUCCESS) return trouble_of(result);
  trouble_t trouble = walk_stack(trace, fildes, visit);
  close(fildes);
  return trouble;
}
