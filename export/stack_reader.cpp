/* SPDX-License-Identifier: MIT */
/* stack_reader.cpp - finds stacks, and reads one without printing. */
#include "stack_reader.h"

#include <dirent.h>
#include <sys/mman.h>

#include <ctime>
#include <map>
#include <set>
#include <utility>

#include "export.h"
#include "lock_wait.h"
#include "zk_header.h"
#include "zk_io.h"
#include "zk_stack_file.h"
#include "zkfields.h"
#include "zkopen.h"

/* ---- Reading ------------------------------------------------------------------------------------------------------- */

/* Reads what a file holds. Returns false when that cannot be done. */
static bool read_whole(int fildes, std::string* bytes) {
  constexpr off_t LARGEST = 64 * 1024 * 1024; /* bytes; a stack of version one has 16 KiB */
  struct stat status;
  if (fstat(fildes, &status) != 0 || status.st_size > LARGEST) return false;
  bytes->resize(static_cast<size_t>(status.st_size));
  bytes->resize(zk_read(fildes, bytes->data(), bytes->size(), 0));
  return errno == 0;
}

/* Whether the walk over a stack would begin. */
static bool has_header(int fildes) {
  int version = 0;
  zk_estack_v1_header_t header;
  return zk_read_good_header({0, nullptr, ""}, fildes, &version, &header).reason == nullptr;
}

/* Copies a stack that changes under its reader: what two readings in a row agree on was a state of it. Returns 0 with the
 * copy in a file without a name; ZELK_LOCK when it never comes to rest; ZELK_NO_MEMORY; ZELK_FAILURE. */
static int copy_stack(int fildes, int* copy) {
  constexpr int READINGS_MAX = 100;
  constexpr timespec PAUSE = {0, 1000000}; /* a recorder is done in less */
  std::string last, bytes;
  bool is_equal = false;
  for (int reading = 0; reading < READINGS_MAX && !(is_equal && has_header(fildes)); ++reading) {
    if (reading > 1) nanosleep(&PAUSE, nullptr);
    std::swap(last, bytes);
    if (!read_whole(fildes, &bytes)) return ZELK_FAILURE;
    is_equal = reading > 0 && bytes == last;
  }
  if (!is_equal) return ZELK_LOCK; /* a header that is damaged stays so */
  *copy = memfd_create("stack", MFD_CLOEXEC);
  if (*copy == -1) return ZELK_NO_MEMORY;
  return zk_write(*copy, bytes.data(), bytes.size()) ? ZELK_SUCCESS : ZELK_NO_MEMORY;
}

int open_stack(const zk_trace_t& trace, const std::string& name, open_stack_t* stack) {
  *stack = {-1, false};
  const int result = zk_open_stack_by_name(trace.active, trace.file, &stack->fildes, name.c_str());
  if (result != ZELK_NO_ACCESS && result != ZELK_FAILURE) return result;
  const int fildes = zk_open_regular(zk_stack_path(name.c_str()).data(), O_RDONLY);
  struct stat status;
  const bool is_file = fildes != -1 && fstat(fildes, &status) == 0 && S_ISREG(status.st_mode);
  if (!is_file && fildes != -1) close(fildes);
  if (is_file) *stack = {fildes, true};
  return is_file ? ZELK_SUCCESS : result;
}

void begin_open_stack(stack_reader_t* reader, const zk_trace_t& trace, const open_stack_t& stack,
                      const std::string& name) {
  reader->name = name;
  reader->id = "";
  reader->owned = {-1, false};
  reader->copy = -1;
  reader->is_walking = reader->is_at_record = reader->is_any_read = false;
  reader->is_over = true;
  reader->damage = {};
  if (stack.fildes == -1) return;
  int result = ZELK_SUCCESS;
  if (stack.is_read_only)
    result = copy_stack(stack.fildes, &reader->copy);
  else
    wait_for_lock(EXPORT_NAME, zk_stack_path(name.c_str()).data(), stack.fildes,
                  F_SETLKW); /* what cannot be locked fails below */
  if (result == ZELK_SUCCESS)
    result = zk_walk_begin(&reader->walk, trace, stack.is_read_only ? reader->copy : stack.fildes);
  reader->is_walking = result == ZELK_SUCCESS;
  reader->is_over = !reader->is_walking;
  if (reader->is_walking) return;
  reader->damage = damage_of(result);
  if (result != ZELK_FILE_CORRUPT) return;
  zk_walk_end(reader->walk);
  reader->damage = {result, reader->walk.damage.offset, reader->walk.damage.reason};
}

void begin_stack(stack_reader_t* reader, const zk_trace_t& trace, const std::string& name, const std::string& id) {
  open_stack_t stack;
  const int result = open_stack(trace, name, &stack);
  begin_open_stack(reader, trace, stack, name);
  if (result != ZELK_SUCCESS) reader->damage = damage_of(result);
  reader->id = id;
  reader->owned = stack;
}

/* Ends the reading at a record that cannot be decoded, by the result of that. */
static void refuse_record(stack_reader_t* reader, int result) {
  const zk_walk_t& walk = reader->walk;
  reader->damage = {ZELK_FILE_CORRUPT, walk.record_position, zk_record_damage(result)};
  zk_report_damage(walk.trace, {walk.record_position, reader->damage.reason.c_str()});
  reader->is_over = true;
}

/* Goes on to the next record that is wanted. */
static bool next_record(stack_reader_t* reader, zk_decoded_t* record) {
  zk_walk_t* const walk = &reader->walk;
  while (!reader->is_over) {
    const bool is_newest = reader->is_at_record && zk_walk_at_write_pos(*walk);
    reader->is_at_record = !is_newest && zk_walk_next(walk) == ZELK_SUCCESS;
    if (!reader->is_at_record) {
      if (walk->damage.reason != nullptr)
        reader->damage = {ZELK_FILE_CORRUPT, walk->damage.offset, walk->damage.reason};
      reader->is_over = true;
      return false;
    }
    const int result = zk_open_record(walk->trace, walk->record.data(), record);
    if (result != ZELK_SUCCESS) refuse_record(reader, result);
    if (result == ZELK_SUCCESS && (reader->id.empty() || reader->id == record->fields.eid)) return true;
  }
  return false;
}

bool next_incident(stack_reader_t* reader, incident_t* incident) {
  zk_decoded_t record;
  if (!next_record(reader, &record)) return false;
  incident->stack = reader->name;
  incident->offset = reader->walk.record_position;
  const int result = decode_incident(reader->walk.trace, &record, incident);
  if (result != ZELK_SUCCESS) refuse_record(reader, result);
  reader->is_any_read = reader->is_any_read || result == ZELK_SUCCESS;
  return result == ZELK_SUCCESS;
}

bool skip_incident(stack_reader_t* reader) {
  zk_record_t fields;
  zk_decoded_t record;
  if (!next_record(reader, &record)) return false;
  const int result = zk_parse_record(reader->walk.record.data(), &fields);
  if (result != ZELK_SUCCESS) refuse_record(reader, result);
  return result == ZELK_SUCCESS;
}

void begin_anew(stack_reader_t* reader) {
  if (!reader->is_walking) return;
  const int result = zk_walk_begin(&reader->walk, reader->walk.trace, reader->walk.fildes);
  reader->is_at_record = false;
  reader->is_over = result != ZELK_SUCCESS;
  reader->damage = reader->is_over ? damage_of(result) : damage_t{};
}

damage_t end_stack(stack_reader_t* reader) {
  if (reader->is_walking) zk_walk_end(reader->walk);
  reader->is_walking = false;
  if (reader->owned.fildes != -1) close(reader->owned.fildes);
  if (reader->copy != -1) close(reader->copy);
  reader->copy = -1;
  return reader->damage;
}

/* ---- Finding ------------------------------------------------------------------------------------------------------- */

int list_stacks(std::vector<std::string>* names) {
  static constexpr zk_errno_result_t OPENDIR_RESULTS[] = {
      {EACCES, ZELK_DIR_NO_ACCESS}, {ENOENT, ZELK_DIR_MISSING}, {ENOTDIR, ZELK_DIR_MISSING}};
  names->clear();
  DIR* const directory = opendir(ZELK_STACK_DIR);
  if (directory == nullptr) return zk_result_of_errno(errno, OPENDIR_RESULTS);
  std::map<std::string, ino_t> found;
  while (const dirent* entry = readdir(directory)) {
    const std::string name = entry->d_name;
    struct stat status;
    const bool is_file =
        fstatat(dirfd(directory), entry->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(status.st_mode);
    if (is_file && !name.starts_with(ZK_STACK_IN_MAKING)) found.emplace(name, status.st_ino);
  }
  closedir(directory);
  std::set<ino_t> given; /* a file of several names comes once */
  for (const auto& [name, inode] : found)
    if (given.insert(inode).second) names->push_back(name);
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
    zk_decoded_t record;
    begin_stack(&reader, trace, *name, id);
    const bool is_found = next_record(&reader, &record);
    const damage_t damage = end_stack(&reader);
    if (is_found) return ZELK_SUCCESS;
    if (damage.code == ZELK_FILE_CORRUPT || damage.code == ZELK_LOCK) return ZELK_FAILURE;
    if (damage.code != ZELK_SUCCESS) return damage.code;
  }
  return ZELK_FILE_MISSING;
}
