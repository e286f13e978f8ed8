/* zkview2.cpp - the grouped views: copies a stack's records into lists, by process or by related incident,
 * and prints the lists. */
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zk_int.h"
#include "zk_msg.h"
#include "zk_trace.h"
#include "zkindex.h"
#include "zkrecord.h"
#include "zkwalk.h"

static bool is_list_head(const zk_proc_list_t* head) {
  return head != nullptr && head->process_id == 0 && head->parent_id == 0 && head->records == nullptr;
}

static bool is_listed_length(int32_t length) {
  return length >= 1 && length <= ZK_REC_LISTED_MAX;
}

static size_t record_size(const void* record) {
  return ZK_REC_LENGTH_SIZE + static_cast<size_t>(zk_record_length(record));
}

/* A copy of the record with a zero byte behind it. */
static void* copy_record(const void* record) {
  size_t size = record_size(record);
  char* copy = static_cast<char*>(malloc(size + 1));
  if (copy == nullptr) return nullptr;
  std::memcpy(copy, record, size);
  copy[size] = '\0';
  return copy;
}

static zk_stack_rec_t* new_element() {
  return static_cast<zk_stack_rec_t*>(calloc(1, sizeof(zk_stack_rec_t)));
}

/* Makes the element of a group, for the routine `routine`. */
static int make_group_element(int debug_active, const char* debug_file, const char* routine, const void* record,
                              zk_stack_rec_t** made) {
  constexpr char NO_MEMORY[] = "Memory allocation failure attempting to get %d bytes\nErrno is %d\nReturning %s(%d)";
  zk_stack_rec_t* element = new_element();
  if (element == nullptr) {
    ZK_RETURN_AS(routine, ZELK_NO_MEMORY, NO_MEMORY, static_cast<int>(sizeof *element), errno);
  }
  element->record = copy_record(record);
  if (element->record == nullptr) {
    ZK_TRACE_RC_AS(routine, ZELK_NO_MEMORY, NO_MEMORY, static_cast<int>(record_size(record)), errno);
    free(element);
    return ZELK_NO_MEMORY;
  }
  zk_record_eid(record, ZK_REC_EID_POS, element->fid);
  *made = element;
  return ZELK_SUCCESS;
}

/* What a walk knows of its lists, so that placing a record does not go through them from their start. */
struct placed_records {
  zk_index items;               /* groups' elements by their Error ID, or processes by their identifier */
  zk_index ends;                /* last record of each process, by the process's node */
  zk_proc_list_t** process_end; /* where the next process goes */
  zk_stack_rec_t* last_group;
};

static uint64_t key_of(const void* node) {
  return reinterpret_cast<uintptr_t>(node);
}

static uint64_t key_of(const zk_eid_t eid) {
  return zk_index_key(eid, ZELK_EID_LENGTH);
}

/* Appends a copy of the record to its process, for zk_add_rec_to_proc. */
static int add_to_process(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head,
                          placed_records* placed) {
  static constexpr char ROUTINE[] = "zk_add_rec_to_proc";
  if (record == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM3, "record parameter is invalid - returning %s(%d)");
  if (head == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM4, "head parameter is invalid - returning %s(%d)");
  if (head->process_id == 0)
    ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM4, "head parameter not properly initialized - returning %s(%d)");
  int32_t length = zk_record_length(record);
  if (!is_listed_length(length))
    ZK_RETURN_AS(ROUTINE, ZELK_REC_CORRUPT, "size obtained from record (%d) is invalid - returning %s(%d)", length);

  zk_stack_rec_t* element = new_element();
  if (element == nullptr)
    ZK_RETURN_AS(ROUTINE, ZELK_NO_MEMORY,
                 "Unable to allocate memory for record element - errno %d\nSize requested %d bytes\n"
                 "Returning %s(%d)",
                 errno, static_cast<int>(sizeof *element));
  element->record = copy_record(record);
  if (element->record == nullptr) {
    ZK_TRACE_RC_AS(ROUTINE, ZELK_NO_MEMORY,
                   "Unable to allocate memory for record info - errno %d\nSize requested %d bytes\n"
                   "Returning %s(%d)",
                   errno, static_cast<int>(record_size(record)));
    free(element);
    return ZELK_NO_MEMORY;
  }

  void* last = nullptr;
  zk_stack_rec_t** link = &head->records;
  if (placed != nullptr && zk_index_find(placed->ends, key_of(head), &last) == ZK_INDEX_ONE)
    link = &static_cast<zk_stack_rec_t*>(last)->next;
  while (*link != nullptr) link = &(*link)->next;
  *link = element;
  if (placed != nullptr) zk_index_set(&placed->ends, key_of(head), element);
  ZK_RETURN_AS(ROUTINE, ZELK_SUCCESS, "Record added to list for process %d - returning %s(%d)", head->process_id);
}

/* Appends a copy of the record as a group of its own, for zk_add_unrelated_rec. */
static int add_group(int debug_active, const char* debug_file, void* record, zk_stack_rec_t** table,
                     placed_records* placed) {
  static constexpr char ROUTINE[] = "zk_add_unrelated_rec";
  zk_stack_rec_t* element = nullptr;
  if (record == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM3, "record parameter is invalid - returning %s(%d)");
  if (table == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM4, "table parameter is invalid - returning %s(%d)");
  int32_t length = zk_record_length(record);
  if (!is_listed_length(length))
    ZK_RETURN_AS(ROUTINE, ZELK_REC_CORRUPT, "size obtained from record (%d) is invalid - returning %s(%d)", length);
  int result = make_group_element(debug_active, debug_file, ROUTINE, record, &element);
  if (result != ZELK_SUCCESS) return result;

  zk_stack_rec_t* last = placed != nullptr && placed->last_group != nullptr ? placed->last_group : *table;
  if (placed != nullptr) {
    placed->last_group = element;
    zk_index_add(&placed->items, key_of(element->fid), element);
  }
  if (last == nullptr) {
    *table = element;
    ZK_RETURN_AS(ROUTINE, ZELK_SUCCESS, "Added ZELK ID %s as first in table\nReturning %s(%d)", element->fid);
  }
  while (last->next != nullptr) last = last->next;
  last->next = element;
  ZK_RETURN_AS(ROUTINE, ZELK_SUCCESS, "Added ZELK ID %s to list\nafter %.42s\nReturning %s(%d)", element->fid,
               last->fid);
}

/* Finds or appends the node of the record's process, for zk_find_proc_in_list. */
static int find_process(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head,
                        zk_proc_list_t** proc_list, placed_records* placed) {
  static constexpr char ROUTINE[] = "zk_find_proc_in_list";
  if (record == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM3, "record parameter is invalid - returning %s(%d)");
  if (head == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM4, "head parameter is invalid - returning %s(%d)");
  if (!is_list_head(head))
    ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM4, "head parameter not initialized correctly  - returning %s(%d)");
  if (proc_list == nullptr || *proc_list != nullptr)
    ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM5, "proc_list parameter is invalid - returning %s(%d)");
  int32_t length = zk_record_length(record);
  if (!is_listed_length(length))
    ZK_RETURN_AS(ROUTINE, ZELK_REC_CORRUPT, "size obtained from record (%d) is invalid - returning %s(%d)", length);

  void* cursor = static_cast<char*>(record) + ZK_REC_NAME_POS;
  ptrdiff_t behind_head = ptrdiff_t{ZK_REC_LENGTH_SIZE} + length - ZK_REC_NAME_POS; /* bytes of the record left */
  int name_length = 0;
  if (behind_head >= 0) {
    /* Looked for within a shorter stretch than the record holds: it stops a length word short of the end. */
    name_length = zk_obtain_strlen(cursor, static_cast<size_t>(ptrdiff_t{length} - ZK_REC_NAME_POS));
    if (name_length == -1)
      ZK_RETURN_AS(ROUTINE, ZELK_REC_CORRUPT, "Error scanning rec for a char string - returning %s(%d)");
  }
  size_t remaining = static_cast<size_t>(behind_head - name_length - 1);
  cursor = static_cast<char*>(cursor) + name_length + 1;
  pid_t process = zk_take_int(&cursor, &remaining);
  pid_t parent = process; /* the recorded parent is not kept: processes are grouped by their own identifier */
  ZK_TRACE_AS(ROUTINE, "Proc ID %d and Parent Proc ID %d obtained from record", process, parent);

  zk_proc_list_t** link = &head->next;
  void* known = nullptr;
  zk_proc_list_t* process_known = nullptr;
  zk_index_answer answer =
      placed != nullptr ? zk_index_find(placed->items, static_cast<uint64_t>(process), &known) : ZK_INDEX_UNKNOWN;
  if (answer == ZK_INDEX_NONE) link = placed->process_end;
  if (answer == ZK_INDEX_ONE) {
    process_known = static_cast<zk_proc_list_t*>(known);
    link = &process_known;
  }
  for (; *link != nullptr; link = &(*link)->next) {
    zk_proc_list_t* node = *link;
    if (node->process_id != process) continue;
    if (node->parent_id != parent)
      ZK_RETURN_AS(ROUTINE, ZELK_REC_CORRUPT,
                   "Found an entry for proc ID %d, but parent ID in list (%d) does not agree with %d from rec\n"
                   "Returining %s(%d)",
                   process, node->parent_id, parent);
    ZK_TRACE_RC_AS(ROUTINE, ZELK_SUCCESS, "Found an entry for proc ID %d\nReturning %s(%d)", process);
    *proc_list = node;
    return ZELK_SUCCESS;
  }

  zk_proc_list_t* node = static_cast<zk_proc_list_t*>(calloc(1, sizeof *node));
  if (node == nullptr)
    ZK_RETURN_AS(ROUTINE, ZELK_NO_MEMORY,
                 "Memory allocation failure - errno is %d\nAttempted to allocte %d bytes\nReturning %s(%d)", errno,
                 static_cast<int>(sizeof *node));
  node->process_id = process;
  node->parent_id = parent;
  *link = node;
  *proc_list = node;
  if (placed != nullptr) {
    placed->process_end = &node->next;
    zk_index_add(&placed->items, static_cast<uint64_t>(process), node);
  }
  ZK_TRACE_RC_AS(ROUTINE, ZELK_SUCCESS, "Allocated list entry for proc ID %d (parent %d) - returning %s(%d)", process,
                 parent);
  return ZELK_SUCCESS;
}

static bool is_same_eid(const zk_eid_t a, const zk_eid_t b) {
  return std::strncmp(a, b, ZELK_EID_LENGTH) == 0;
}

/* The first element of that Error ID, group by group; null when there is none. */
static zk_stack_rec_t* first_with_eid(zk_stack_rec_t* table, const zk_eid_t eid) {
  for (zk_stack_rec_t* group = table; group != nullptr; group = group->next)
    for (zk_stack_rec_t* element = group; element != nullptr; element = element->related)
      if (is_same_eid(element->fid, eid)) return element;
  return nullptr;
}

/* Finds the element that the record is associated with, for zk_find_related_rec. */
static int find_related(int debug_active, const char* debug_file, void* record, zk_stack_rec_t* rec_table,
                        zk_stack_rec_t** loc, const placed_records* placed) {
  static constexpr char ROUTINE[] = "zk_find_related_rec";
  zk_eid_t own;
  zk_eid_t wanted;
  zk_stack_rec_t* found = nullptr;
  if (record == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM3, "record parameter is invalid - returning %s(%d)");
  if (loc == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_INV_PARAM5, "loc parameter is invalid - returning %s(%d)");
  if (rec_table == nullptr) ZK_RETURN_AS(ROUTINE, ZELK_FAILURE, "rec_table is empty - returning %s(%d)");

  zk_record_eid(record, ZK_REC_EID_POS, own);
  zk_record_eid(record, ZK_REC_RELATED_POS, wanted);
  if (*wanted == '\0')
    ZK_RETURN_AS(ROUTINE, ZELK_FAILURE, "Rec for ZELK ID %s\ndoes not have a related record\nReturning %s(%d)", own);

  void* known = nullptr;
  zk_index_answer answer = placed != nullptr ? zk_index_find(placed->items, key_of(wanted), &known) : ZK_INDEX_UNKNOWN;
  if (answer == ZK_INDEX_ONE && is_same_eid(static_cast<zk_stack_rec_t*>(known)->fid, wanted))
    found = static_cast<zk_stack_rec_t*>(known);
  if (answer == ZK_INDEX_UNKNOWN) found = first_with_eid(rec_table, wanted);
  if (found == nullptr) return ZELK_FAILURE;
  *loc = found;
  ZK_RETURN_AS(ROUTINE, ZELK_SUCCESS, "Entry for related record %s found\nReturning %s(%d)", wanted);
}

/* What a list routine's result means for the walk. */
static int walk_result(int result) {
  switch (result) {
    case ZELK_SUCCESS:
    case ZELK_NO_MEMORY:
      return result;
    case ZELK_REC_CORRUPT:
      return ZELK_FILE_CORRUPT;
    default:
      return ZELK_FAILURE;
  }
}

static int place_by_process(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head,
                            placed_records* placed) {
  zk_proc_list_t* process = nullptr;
  int result = find_process(debug_active, debug_file, record, head, &process, placed);
  if (result == ZELK_SUCCESS) result = add_to_process(debug_active, debug_file, record, process, placed);
  return walk_result(result);
}

static int place_by_relation(int debug_active, const char* debug_file, void* record, zk_stack_rec_t** table,
                             placed_records* placed) {
  zk_stack_rec_t* related = nullptr;
  zk_stack_rec_t* groups = table != nullptr ? *table : nullptr;
  int result = find_related(debug_active, debug_file, record, groups, &related, placed);
  if (result == ZELK_SUCCESS) {
    result = zk_add_related_rec(debug_active, debug_file, record, related);
    if (result == ZELK_SUCCESS) zk_index_add(&placed->items, key_of(related->related->fid), related->related);
  } else if (result == ZELK_FAILURE) {
    result = add_group(debug_active, debug_file, record, table, placed);
  }
  return walk_result(result);
}

/* Takes note of what the caller's lists hold already. */
static placed_records note_lists(int order, zk_proc_list_t* proc_list, zk_stack_rec_t** rec_table) {
  placed_records placed = {};
  if (order == 0) {
    placed.process_end = &proc_list->next;
    for (; *placed.process_end != nullptr; placed.process_end = &(*placed.process_end)->next)
      zk_index_add(&placed.items, static_cast<uint64_t>((*placed.process_end)->process_id), *placed.process_end);
  } else if (rec_table != nullptr) {
    for (zk_stack_rec_t* group = *rec_table; group != nullptr; group = group->next)
      for (zk_stack_rec_t* element = group; element != nullptr; element = element->related)
        zk_index_add(&placed.items, key_of(element->fid), element);
  }
  return placed;
}

/* Prints one record of a list; what is not a record's fault lets the report go on. */
static int display_record(int debug_active, const char* debug_file, void* record, int all, nl_catd catfd) {
  int result = all == 1 ? zk_print_full_stack_record(debug_active, debug_file, nullptr, catfd, record)
                        : zk_print_brief_stack_record(debug_active, debug_file, nullptr, 0, catfd, record);
  switch (result) {
    case ZELK_NO_MEMORY:
      return ZELK_NO_MEMORY;
    case ZELK_REC_CORRUPT:
    case ZELK_INV_RECVERSN:
    case ZELK_INV_RECLEN:
      return ZELK_FILE_CORRUPT;
    default:
      if (all == 1) zk_print_message(stdout, catfd, ZK_MSG_SEPARATOR);
      return ZELK_SUCCESS;
  }
}

int zk_read_stack(int debug_active, const char* debug_file, int order, int fildes, nl_catd catfd,
                  zk_proc_list_t* proc_list, zk_stack_rec_t** rec_table) {
  if (order != 0 && order != 1) ZK_RETURN(ZELK_INV_PARAM3, "Invalid ordering selected %d  - Returning %s(%d)", order);
  if (fildes < 1) ZK_RETURN(ZELK_INV_PARAM4, "Invalid file descriptor %d\nReturning %s(%d)", fildes);
  if (order == 0 && !is_list_head(proc_list))
    ZK_RETURN(ZELK_INV_PARAM5, "proc_list parameter invalid or improperly initialized\nReturning %s(%d)");

  zk_walk walk = {
      .debug_active = debug_active, .debug_file = debug_file, .routine = __func__, .fildes = fildes, .catfd = catfd};
  int result = zk_walk_begin(&walk);
  if (result == ZELK_LOCK) return result;
  if (result == ZELK_INV_PARAM4) result = ZELK_FAILURE;

  placed_records placed = note_lists(order, proc_list, rec_table);
  while (result == ZELK_SUCCESS && (result = zk_walk_next(&walk)) == ZELK_SUCCESS) {
    void* record = walk.record.data();
    result = order == 0 ? place_by_process(debug_active, debug_file, record, proc_list, &placed)
                        : place_by_relation(debug_active, debug_file, record, rec_table, &placed);
    if (result == ZELK_SUCCESS && zk_walk_at_write_pos(&walk)) break;
  }
  if (result == ZK_WALK_END) result = ZELK_SUCCESS;
  zk_index_release(&placed.items);
  zk_index_release(&placed.ends);
  zk_walk_end(&walk);
  return result;
}

int zk_find_proc_in_list(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head,
                         zk_proc_list_t** proc_list) {
  return find_process(debug_active, debug_file, record, head, proc_list, nullptr);
}

int zk_add_rec_to_proc(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head) {
  return add_to_process(debug_active, debug_file, record, head, nullptr);
}

int zk_find_related_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t* rec_table,
                        zk_stack_rec_t** loc) {
  return find_related(debug_active, debug_file, record, rec_table, loc, nullptr);
}

int zk_add_related_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t* related) {
  zk_stack_rec_t* element = nullptr;
  if (record == nullptr) ZK_RETURN(ZELK_INV_PARAM3, "record parameter is invalid - returning %s(%d)");
  if (related == nullptr) ZK_RETURN(ZELK_INV_PARAM4, "related parameter is invalid - returning %s(%d)");
  int32_t length = zk_record_length(record);
  if (!is_listed_length(length))
    ZK_RETURN(ZELK_REC_CORRUPT, "size obtained from record (%d) is invalid - returning %s(%d)", length);
  int result = make_group_element(debug_active, debug_file, __func__, record, &element);
  if (result != ZELK_SUCCESS) return result;

  element->related = related->related;
  related->related = element;
  ZK_TRACE_RC(ZELK_SUCCESS, "Added ZELK ID %s to list as\nrelated to %.42s\nReturning %s(%d)", element->fid,
              related->fid);
  return ZELK_SUCCESS;
}

int zk_add_unrelated_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t** table) {
  return add_group(debug_active, debug_file, record, table, nullptr);
}

int zk_display_recs_by_proc(int debug_active, const char* debug_file, zk_proc_list_t* proc_list, int all,
                            nl_catd catfd) {
  if (!is_list_head(proc_list))
    ZK_RETURN(ZELK_INV_PARAM3, "proc_list parameter invalid or improperly initialized\nReturning %s(%d)");
  if (all == 0) zk_print_message(stdout, catfd, ZK_MSG_HEADING);

  for (const zk_proc_list_t* process = proc_list->next; process != nullptr; process = process->next) {
    ZK_TRACE("Displaying records for process %d", process->process_id);
    for (const zk_stack_rec_t* element = process->records; element != nullptr; element = element->next) {
      int result = display_record(debug_active, debug_file, element->record, all, catfd);
      if (result != ZELK_SUCCESS) return result;
    }
  }
  return ZELK_SUCCESS;
}

int zk_display_recs_by_rel(int debug_active, const char* debug_file, zk_stack_rec_t* rec_table, int all,
                           nl_catd catfd) {
  if (rec_table == nullptr)
    ZK_RETURN(ZELK_INV_PARAM3, "rec_table parameter invalid or improperly initialized\nReturning %s(%d)");
  if (all == 0) zk_print_message(stdout, catfd, ZK_MSG_HEADING);

  for (const zk_stack_rec_t* group = rec_table; group != nullptr; group = group->next) {
    ZK_TRACE("Displaying record for ZELK ID %.42s\nand any related to it", group->fid);
    for (const zk_stack_rec_t* element = group; element != nullptr; element = element->related) {
      int result = display_record(debug_active, debug_file, element->record, all, catfd);
      if (result != ZELK_SUCCESS) return result;
    }
  }
  return ZELK_SUCCESS;
}
