/* SPDX-License-Identifier: MIT */
/* zklist.h - the records of a stack in memory, by process or by related incident. The memory is never released. */
#pragma once

#include <nl_types.h>

#include "qx_zelk.h"

/* One record in memory. */
typedef struct zk_stack_rec {
  zk_eid_t fid;                 /* its Error ID; empty in the list of a process */
  void* record;                 /* the whole record with its length word, and a zero byte behind it */
  struct zk_stack_rec* related; /* next record of the same incident group */
  struct zk_stack_rec* next;    /* first record of the next group, or next record of the same process */
} zk_stack_rec_t;

/* One process and its records, oldest first. A list hangs from the `next` of a head whose other fields are zero. */
typedef struct zk_proc_list {
  pid_t process_id;
  pid_t parent_id; /* the process identifier again: processes are told apart by it alone */
  zk_stack_rec_t* records;
  struct zk_proc_list* next;
} zk_proc_list_t;

extern "C" {

/* Copies every record of a stack into lists: `order` 0 fills `proc_list`, a head whose first three fields are zero;
 * `order` 1 fills `*rec_table`, null before. The memory is never released. Locks as zk_dump_stack does.
 * Returns 0; ZELK_INV_PARAM3 bad order; ZELK_INV_PARAM4 descriptor below 1; ZELK_INV_PARAM5 bad `proc_list`; ZELK_LOCK;
 * ZELK_FILE_CORRUPT; ZELK_NO_MEMORY; ZELK_FAILURE. */
int zk_read_stack(int debug_active, const char* debug_file, int order, int fildes, nl_catd catfd,
                  zk_proc_list_t* proc_list, zk_stack_rec_t** rec_table);

/* In what follows a `record` starts with its length word; bytes of fixed fields that lie past its end count as zeros. A
 * length outside 1 to 1024 is ZELK_REC_CORRUPT. */

/* Finds the node of the record's process in the list behind `head`, or appends one, and stores it in `*proc_list`, null
 * before. Returns 0; ZELK_INV_PARAM3 null record; ZELK_INV_PARAM4 bad head; ZELK_INV_PARAM5 bad `proc_list`;
 * ZELK_REC_CORRUPT, also when a node of that process disagrees about the parent; ZELK_NO_MEMORY. */
int zk_find_proc_in_list(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head,
                         zk_proc_list_t** proc_list);

/* Appends a copy of the record to the process node `head`.
 * Returns 0; ZELK_INV_PARAM3 null record; ZELK_INV_PARAM4 null node or one of process 0; ZELK_REC_CORRUPT;
 * ZELK_NO_MEMORY. */
int zk_add_rec_to_proc(int debug_active, const char* debug_file, void* record, zk_proc_list_t* head);

/* Stores in `*loc` the first element, group by group, whose Error ID is the record's associated one.
 * Returns 0; ZELK_FAILURE there is none; ZELK_INV_PARAM3 null record; ZELK_INV_PARAM5 null `loc`. */
int zk_find_related_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t* rec_table,
                        zk_stack_rec_t** loc);

/* Inserts a copy of the record directly behind the element `related`, in its group.
 * Returns 0; ZELK_INV_PARAM3 null record; ZELK_INV_PARAM4 null element; ZELK_REC_CORRUPT; ZELK_NO_MEMORY. */
int zk_add_related_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t* related);

/* Appends a copy of the record to `*table` as a group of its own.
 * Returns 0; ZELK_INV_PARAM3 null record; ZELK_INV_PARAM4 null table; ZELK_REC_CORRUPT; ZELK_NO_MEMORY. */
int zk_add_unrelated_rec(int debug_active, const char* debug_file, void* record, zk_stack_rec_t** table);

} /* extern "C" */

/* Whether `head` can be the head of a process list: its first three fields are zero. */
bool zk_is_list_head(const zk_proc_list_t* head);

/* Where a record of a list stands in the stack: the offset of its length word, or -1 where the last zk_read_stack has not
 * put it into the list, or was not traced. */
off_t zk_listed_position(const void* record);
