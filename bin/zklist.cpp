/* SPDX-License-Identifier: MIT */
/* zklist.cpp - copies a stack's records into lists, by process or by related incident. */
#include "zklist.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "zk_msg.h"
#include "zk_record.h"
#include "zk_walk.h"

bool zk_is_list_head(const zk_proc_list_t* head) {
  return head != nullptr && head->process_id == 0 && head->parent_id == 0 && head->records == nullptr;
}

static constexpr char INVALID_PARAMETER[] = "%s parameter is invalid - returning %s(%d)";

/* Checks the length of a record that is to be listed. */
static int check_length(const zk_trace_t& trace, const void* record) {
  int32_t length = zk_record_length(record);
  if (length >= 1 && length <= ZK_REC_LISTED_MAX) return ZELK_SUCCESS;
  return zk_failed(trace, ZELK_REC_CORRUPT, "size obtained from record (%d) is invalid - returning %s(%d)", length);
}

/* Where the records of the lists stand in the stack, for the trace alone: an element of a list has no room for it. All
 * records of any stack of version one have a place. */
struct place_t {
  const void* record;
  off_t position;
};
static std::array<place_t, ZK_STACK_SIZE_MAX / (ZK_REC_LENGTH_SIZE + 1)> places;
static size_t place_count;
static off_t walked_position = -1; /* of the record that is being listed, -1 for none */

/* A copy may have the memory of one that was freed: of its places the newest counts. */
off_t zk_listed_position(const void* record) {
  for (size_t number = place_count; number-- > 0;)
    if (places[number].record == record) return places[number].position;
  return -1;
}

/* What a copy could not have: bytes, and for which part. */
struct shortage_t {
  const char* part;
  int size;
};

/* Makes a list element with a copy of the record, a zero byte behind it, and no Error ID. Returns null with errno and
 * `*shortage` set. */
static zk_stack_rec_t* copy_record(const void* record, shortage_t* shortage) {
  const size_t size = ZK_REC_LENGTH_SIZE + static_cast<size_t>(zk_record_length(record));
  *shortage = {"element", sizeof(zk_stack_rec_t)};
  zk_stack_rec_t* element = static_cast<zk_stack_rec_t*>(calloc(1, sizeof(zk_stack_rec_t)));
  if (element == nullptr) return nullptr;
  *shortage = {"info", static_cast<int>(size)};
  char* copy = static_cast<char*>(malloc(size + 1));
  if (copy == nullptr) {
    free(element);
    errno = ENOMEM;
    return nullptr;
  }
  std::memcpy(copy, record, size);
  copy[size] = '\0';
  if (place_count == places.size()) place_count = 0; /* whoever lists more than a stack has does without */
  places[place_count++] = {copy, walked_position};
  element->record = copy;
  return element;
}

/* ---- By process ---------------------------------------------------------------------------------------------------- */

/* Finds the process identifier behind the process name. Returns 0; ZELK_REC_CORRUPT. */
static int find_process_id(const zk_trace_t& trace, const void* record, pid_t* process) {
  zk_cursor_t cursor = zk_record_cursor(record, ZK_REC_NAME_POS);
  int length = 0; /* of the name: one that starts past the record's end is empty */
  if (cursor.unread >= 0) {
    /* The name is looked for within a stretch that stops a length word short of the record's end. */
    ptrdiff_t stretch = cursor.unread - ZK_REC_LENGTH_SIZE;
    length = zk_obtain_strlen(const_cast<char*>(cursor.at), static_cast<size_t>(stretch)); /* it only reads */
    if (length == -1)
      return zk_failed(trace, ZELK_REC_CORRUPT, "Error scanning rec for a char string - returning %s(%d)");
  }
  cursor = zk_record_cursor(record, ZK_REC_NAME_POS + length + 1);
  *process = zk_read_int(&cursor);
  return ZELK_SUCCESS;
}

int zk_find_proc_in_list(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head,
                         zk_proc_list_t** proc_list) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (record == nullptr) return zk_failed(trace, ZELK_INV_PARAM3, INVALID_PARAMETER, "record");
  if (head == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, INVALID_PARAMETER, "head");
  if (!zk_is_list_head(head))
    return zk_failed(trace, ZELK_INV_PARAM4, "head parameter not initialized correctly  - returning %s(%d)");
  if (proc_list == nullptr || *proc_list != nullptr)
    return zk_failed(trace, ZELK_INV_PARAM5, INVALID_PARAMETER, "proc_list");
  if (check_length(trace, record) != ZELK_SUCCESS) return ZELK_REC_CORRUPT;

  pid_t process = 0;
  if (find_process_id(trace, record, &process) != ZELK_SUCCESS) return ZELK_REC_CORRUPT;
  const pid_t parent = process; /* the recorded parent is not kept: processes are grouped by their own identifier */
  zk_trace(trace, "Proc ID %d and Parent Proc ID %d obtained from record", process, parent);

  zk_proc_list_t** link = &head->next;
  while (*link != nullptr && (*link)->process_id != process) link = &(*link)->next;
  zk_proc_list_t* node = *link;
  if (node != nullptr) {
    if (node->parent_id != parent)
      return zk_failed(trace, ZELK_REC_CORRUPT,
                       "Found an entry for proc ID %d, but parent ID in list (%d) does not agree with %d from rec\n"
                       "Returining %s(%d)",
                       process, node->parent_id, parent);
    *proc_list = node;
    return zk_succeeded(trace, "Found an entry for proc ID %d\nReturning %s(%d)", process);
  }

  node = static_cast<zk_proc_list_t*>(calloc(1, sizeof *node));
  if (node == nullptr)
    return zk_failed(trace, ZELK_NO_MEMORY,
                     "Memory allocation failure - errno is %d\nAttempted to allocte %d bytes\nReturning %s(%d)", errno,
                     static_cast<int>(sizeof *node));
  node->process_id = process;
  node->parent_id = parent;
  *link = node;
  *proc_list = node;
  return zk_succeeded(trace, "Allocated list entry for proc ID %d (parent %d) - returning %s(%d)", process, parent);
}

int zk_add_rec_to_proc(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (record == nullptr) return zk_failed(trace, ZELK_INV_PARAM3, INVALID_PARAMETER, "record");
  if (head == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, INVALID_PARAMETER, "head");
  if (head->process_id == 0)
    return zk_failed(trace, ZELK_INV_PARAM4, "head parameter not properly initialized - returning %s(%d)");
  if (check_length(trace, record) != ZELK_SUCCESS) return ZELK_REC_CORRUPT;

  shortage_t shortage;
  zk_stack_rec_t* element = copy_record(record, &shortage);
  if (element == nullptr)
    return zk_failed(trace, ZELK_NO_MEMORY,
                     "Unable to allocate memory for record %s - errno %d\nSize requested %d bytes\nReturning %s(%d)",
                     shortage.part, errno, shortage.size);
  zk_stack_rec_t** link = &head->records;
  while (*link != nullptr) link = &(*link)->next;
  *link = element;
  return zk_succeeded(trace, "Record added to list for process %d - returning %s(%d)", head->process_id);
}

/* ---- By related incident ------------------------------------------------------------------------------------------- */

/* Makes the element of a group. Returns 0; ZELK_REC_CORRUPT; ZELK_NO_MEMORY. */
static int make_group_element(const zk_trace_t& trace, const void* record, zk_stack_rec_t** element) {
  shortage_t shortage;
  if (check_length(trace, record) != ZELK_SUCCESS) return ZELK_REC_CORRUPT;
  *element = copy_record(record, &shortage);
  if (*element == nullptr)
    return zk_failed(trace, ZELK_NO_MEMORY,
                     "Memory allocation failure attempting to get %d bytes\nErrno is %d\nReturning %s(%d)",
                     shortage.size, errno);
  zk_record_eid(record, ZK_REC_EID_POS, (*element)->fid);
  return ZELK_SUCCESS;
}

/* The first element of that Error ID, group by group; null when there is none. */
static zk_stack_rec_t* first_with_eid(zk_stack_rec_t* table, const zk_eid_t eid) {
  for (zk_stack_rec_t* group = table; group != nullptr; group = group->next)
    for (zk_stack_rec_t* element = group; element != nullptr; element = element->related)
      if (std::strncmp(element->fid, eid, ZELK_EID_LENGTH) == 0) return element;
  return nullptr;
}

int zk_find_related_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t* rec_table,
                        zk_stack_rec_t** loc) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  zk_eid_t own;
  zk_eid_t wanted;
  if (record == nullptr) return zk_failed(trace, ZELK_INV_PARAM3, INVALID_PARAMETER, "record");
  if (loc == nullptr) return zk_failed(trace, ZELK_INV_PARAM5, INVALID_PARAMETER, "loc");
  if (rec_table == nullptr) return zk_failed(trace, ZELK_FAILURE, "rec_table is empty - returning %s(%d)");

  zk_record_eid(record, ZK_REC_EID_POS, own);
  zk_record_eid(record, ZK_REC_RELATED_POS, wanted);
  if (*wanted == '\0')
    return zk_failed(trace, ZELK_FAILURE, "Rec for ZELK ID %s\ndoes not have a related record\nReturning %s(%d)", own);
  zk_stack_rec_t* found = first_with_eid(rec_table, wanted);
  if (found == nullptr) return ZELK_FAILURE;
  *loc = found;
  return zk_succeeded(trace, "Entry for related record %s found\nReturning %s(%d)", wanted);
}

int zk_add_related_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t* related) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (record == nullptr) return zk_failed(trace, ZELK_INV_PARAM3, INVALID_PARAMETER, "record");
  if (related == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, INVALID_PARAMETER, "related");
  zk_stack_rec_t* element = nullptr;
  int result = make_group_element(trace, record, &element);
  if (result != ZELK_SUCCESS) return result;

  element->related = related->related;
  related->related = element;
  return zk_succeeded(trace, "Added ZELK ID %s to list as\nrelated to %.42s\nReturning %s(%d)", element->fid,
                      related->fid);
}

int zk_add_unrelated_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t** table) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (record == nullptr) return zk_failed(trace, ZELK_INV_PARAM3, INVALID_PARAMETER, "record");
  if (table == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, INVALID_PARAMETER, "table");
  zk_stack_rec_t* element = nullptr;
  int result = make_group_element(trace, record, &element);
  if (result != ZELK_SUCCESS) return result;

  if (*table == nullptr) {
    *table = element;
    return zk_succeeded(trace, "Added ZELK ID %s as first in table\nReturning %s(%d)", element->fid);
  }
  zk_stack_rec_t* last = *table;
  while (last->next != nullptr) last = last->next;
  last->next = element;
  return zk_succeeded(trace, "Added ZELK ID %s to list\nafter %.42s\nReturning %s(%d)", element->fid, last->fid);
}

/* ---- The walk that fills them -------------------------------------------------------------------------------------- */

/* What a list routine's result means for the walk. */
static int walk_result(int result) {
  if (result == ZELK_SUCCESS || result == ZELK_NO_MEMORY) return result;
  return result == ZELK_REC_CORRUPT ? ZELK_FILE_CORRUPT : ZELK_FAILURE;
}

static int place_by_process(const zk_trace_t& trace, void* record, zk_proc_list_t* head) {
  zk_proc_list_t* process = nullptr;
  int result = zk_find_proc_in_list(trace.active, trace.file, record, head, &process);
  if (result == ZELK_SUCCESS) result = zk_add_rec_to_proc(trace.active, trace.file, record, process);
  return result;
}

static int place_by_relation(const zk_trace_t& trace, void* record, zk_stack_rec_t** table) {
  zk_stack_rec_t* related = nullptr;
  zk_stack_rec_t* groups = table != nullptr ? *table : nullptr;
  if (zk_find_related_rec(trace.active, trace.file, record, groups, &related) == ZELK_SUCCESS)
    return zk_add_related_rec(trace.active, trace.file, record, related);
  return zk_add_unrelated_rec(trace.active, trace.file, record, table);
}

int zk_read_stack(int debug_active, const char* debug_file, int order, int fildes, nl_catd catfd,
                  zk_proc_list_t* proc_list, zk_stack_rec_t** rec_table) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (order != 0 && order != 1)
    return zk_failed(trace, ZELK_INV_PARAM3, "Invalid ordering selected %d  - Returning %s(%d)", order);
  if (fildes < 1) return zk_failed(trace, ZELK_INV_PARAM4, "Invalid file descriptor %d\nReturning %s(%d)", fildes);
  if (order == 0 && !zk_is_list_head(proc_list))
    return zk_failed(trace, ZELK_INV_PARAM5, "proc_list parameter invalid or improperly initialized\nReturning %s(%d)");

  zk_walk_t walk;
  int result = zk_walk_begin(&walk, trace, fildes);
  if (result == ZELK_LOCK) return result;
  place_count = 0;
  while (result == ZELK_SUCCESS && (result = zk_walk_next(&walk)) == ZELK_SUCCESS) {
    void* record = walk.record.data();
    walked_position = walk.record_position;
    result = order == 0 ? place_by_process(trace, record, proc_list) : place_by_relation(trace, record, rec_table);
    result = walk_result(result);
    if (result == ZELK_SUCCESS && zk_walk_at_write_pos(walk)) break;
  }
  walked_position = -1;
  if (result == ZELK_FILE_CORRUPT && walk.damage.reason == nullptr) {
    const bool is_too_long = zk_record_length(walk.record.data()) > ZK_REC_LISTED_MAX;
    zk_report_damage(trace, {walk.record_position, is_too_long ? ZK_NOT_FOR_LISTS : ZK_BAD_FIELD});
  }
  if (walk.is_record_lost) zk_print_message(stdout, catfd, ZK_MSG_REC_CORRUPT);
  zk_walk_end(walk);
  return result == ZK_WALK_END ? int{ZELK_SUCCESS} : result;
}
