/* SPDX-License-Identifier: MIT */
/* stack_reader.cpp - finds stacks, and reads one without printing. */
#include "stack_reader.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "zk_stack_file.h"
#include "zkfields.h"
#include "zkopen.h"

/* ---- Reading ------------------------------------------------------------------------------------------------------- */

void begin_open_stack(stack_reader_t* reader, const zk_trace_t& trace, int fildes, const std::string& name) {
  reader->name = name;
  reader->id = "";
  reader->fildes = -1;
  reader->is_at_record = reader->is_any_read = false;
  reader->damage = {};
  const int result = zk_walk_begin(&reader->walk, trace, fildes);
  reader->is_walking = result == ZELK_SUCCESS;
  if (result == ZELK_LOCK) reader->damage = damage_of(result);
  if (reader->is_walking || result == ZELK_LOCK) return;
  zk_walk_end(reader->walk);
  reader->damage = {ZELK_FILE_CORRUPT, reader->walk.damage.offset, reader->walk.damage.reason};
}

void begin_stack(stack_reader_t* reader, const zk_trace_t& trace, const std::string& name, const std::string& id) {
  int fildes = -1;
  const int result = zk_open_stack_by_name(trace.active, trace.file, &fildes, name.c_str());
  if (result == ZELK_SUCCESS) {
    begin_open_stack(reader, trace, fildes, name);
  } else {
    reader->is_walking = reader->is_at_record = reader->is_any_read = false;
    reader->damage = damage_of(result);
  }
  reader->id = id;
  reader->fildes = fildes;
}

/* Unlocks the stack where that has not been done. */
static void end_walk(stack_reader_t* reader) {
  if (reader->is_walking) zk_walk_end(reader->walk);
  reader->is_walking = false;
}

/* Ends the reading at a record that cannot be decoded, by the result of that. */
static void refuse_record(stack_reader_t* reader, int result) {
  reader->damage = {ZELK_FILE_CORRUPT, reader->walk.record_position, zk_record_damage(result)};
  end_walk(reader);
}

/* Goes on to the next record that is wanted. */
static bool next_record(stack_reader_t* reader) {
  zk_walk_t* const walk = &reader->walk;
  while (reader->is_walking) {
    const bool is_newest = reader->is_at_record && zk_walk_at_write_pos(*walk);
    reader->is_at_record = !is_newest && zk_walk_next(walk) == ZELK_SUCCESS;
    if (!reader->is_at_record) {
      if (walk->damage.reason != nullptr)
        reader->damage = {ZELK_FILE_CORRUPT, walk->damage.offset, walk->damage.reason};
      end_walk(reader);
      return false;
    }
    zk_decoded_t record;
    const int result = zk_open_record(walk->trace, walk->record.data(), &record);
    if (result != ZELK_SUCCESS) refuse_record(reader, result);
    if (result == ZELK_SUCCESS && (reader->id.empty() || reader->id == record.fields.eid)) return true;
  }
  return false;
}

bool next_incident(stack_reader_t* reader, incident_t* incident) {
  if (!next_record(reader)) return false;
  incident->stack = reader->name;
  incident->offset = reader->walk.record_position;
  const int result = decode_incident(reader->walk.trace, reader->walk.record.data(), incident);
  if (result != ZELK_SUCCESS) refuse_record(reader, result);
  reader->is_any_read = reader->is_any_read || result == ZELK_SUCCESS;
  return result == ZELK_SUCCESS;
}

damage_t end_stack(stack_reader_t* reader) {
  end_walk(reader);
  if (reader->fildes != -1) close(reader->fildes);
  return reader->damage;
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

int find_stack(const zk_trace_t& trace, const std::string& id, std::string* name) {
  zk_candidates_t candidates = {};
  const int result = zk_find_candidates(trace, id.c_str(), &candidates);
  if (result != ZELK_SUCCESS) return result;
  auto slot = [&](int index) { return candidates.data() + ptrdiff_t{index} * ZELK_FILE_SLOT_SIZE; };
  *name = slot(0);
  if (*slot(1) == '\0') return ZELK_SUCCESS; /* the only one is taken unsearched */

  for (int index = 0; index < ZK_CANDIDATES_MAX && *slot(index) != '\0'; ++index) {
    *name = slot(index);
    stack_reader_t reader;
    begin_stack(&reader, trace, *name, id);
    const bool is_found = next_record(&reader);
    const damage_t damage = end_stack(&reader);
    if (is_found) return ZELK_SUCCESS;
    if (damage.code == ZELK_FILE_CORRUPT || damage.code == ZELK_LOCK) return ZELK_FAILURE;
    if (damage.code != ZELK_SUCCESS) return damage.code;
  }
  return ZELK_FILE_MISSING;
}
