/* SPDX-License-Identifier: MIT */
/* zk_int.h - the command's own routines: opening and walking an Error Stack, decoding and printing its records. For one
 * thread. Unless its comment says otherwise, a routine takes the trace pair first and returns one of the codes of
 * qx_zelk.h. What they print goes through zk_msg.h. */
#ifndef ZK_INT_H
#define ZK_INT_H

#include <nl_types.h>
#include <stddef.h>
#include <sys/types.h>

#include "qx_cu.h"
#include "qx_zelk.h"
#include "zk_layout.h"

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

/* ---- Opening a stack: zkopen.cpp ----------------------------------------------------------------------------- */

/* Opens the Error Stack `stack_file`, relative to ZELK_STACK_DIR unless it begins with "/", for reading and locking.
 * `*fildes` is set on success only, to a descriptor that the caller closes.
 * Returns 0; ZELK_INV_PARAM3 null `fildes`; ZELK_INV_PARAM4 null or empty name; ZELK_FILE_MISSING; ZELK_NO_ACCESS, also
 * for a part of the path that is not a directory; ZELK_TOO_MANY; ZELK_FAILURE. */
int zk_open_stack_by_name(int debug_active, const char* debug_file, int* fildes, const char* stack_file);

/* Opens the Error Stack of this node in which the Error ID `fid` was recorded.
 * Returns the codes of zk_open_stack_by_name; ZELK_INV_FID a length other than 42, or not from an Error Stack;
 * ZELK_REMOTE_FID; ZELK_INV_STACKNAME; ZELK_FILE_MISSING also when no candidate holds it; ZELK_UNSUPPORTED and other
 * codes of decoding from -12 down. */
int zk_open_stack_with_fid(int debug_active, const char* debug_file, int* fildes, const char* fid, nl_catd catfd);

/* ---- Walking a stack: zkwalk.cpp, zkprint.cpp, zklist.cpp ---------------------------------------------------- */

/* Reads and checks the control header and leaves the file at the earliest record; `*stack_version` (not null) and
 * `*hbuf` are set on success only.
 * Returns 0; ZELK_INV_PARAM3 `fildes` -1; ZELK_INV_PARAM4 null `hbuf`; ZELK_FILE_CORRUPT. */
int zk_read_header(int debug_active, const char* debug_file, int fildes, int* stack_version,
                   zk_estack_v1_header_t* hbuf);

/* Prints the control header. Returns 0. */
int zk_dump_header(int debug_active, const char* debug_file, int fildes, nl_catd catfd, int stack_version,
                   zk_estack_v1_header_t cbuf);

/* Prints the records of a stack from the oldest to the newest, in full when `all` is 1, after the control header and
 * in full when `dump_header` is 1; with `fid`, only the record of that Error ID. With `searching` 1, ends at the record
 * of `fid`, whose brief line is printed. The file is locked (waiting) from its start while it is walked, and positioned
 * at 0 afterwards.
 * Returns 0; ZELK_INV_PARAM3 empty `fid`; ZELK_INV_PARAM4 descriptor below 1; ZELK_LOCK; ZELK_FILE_CORRUPT;
 * ZELK_INV_FID nothing found while searching. */
int zk_dump_stack(int debug_active, const char* debug_file, int dump_header, int all, const char* fid, int searching,
                  int fildes, nl_catd catfd);

/* Finds the stack file that holds the Error ID `fid` among `stack_file_list`, up to `stack_list_limit` slots of
 * ZELK_FILE_SLOT_SIZE bytes, ended by an empty one; a single candidate is taken unsearched. With `correct_file`, the
 * slot's address is stored there; otherwise `*fildes_to_use`, then not null, receives the file's descriptor, at
 * position 0, which the caller closes.
 * Returns 0; ZELK_INV_PARAM3 null or empty `fid`; ZELK_INV_PARAM4 null or empty list; ZELK_FILE_MISSING,
 * ZELK_NO_ACCESS, ZELK_TOO_MANY, ZELK_FAILURE a candidate cannot be opened or read; ZELK_INV_FID none holds it. */
int zk_scan_files_for_fid(int debug_active, const char* debug_file, const char* fid, const char* stack_file_list,
                          int stack_list_limit, int* fildes_to_use, char** correct_file, nl_catd catfd);

/* Copies every record of a stack into lists: `order` 0 fills `proc_list`, a head whose first three fields are zero;
 * `order` 1 fills `*rec_table`, null before. The memory is never released. Locks as zk_dump_stack does.
 * Returns 0; ZELK_INV_PARAM3 bad order; ZELK_INV_PARAM4 descriptor below 1; ZELK_INV_PARAM5 bad `proc_list`; ZELK_LOCK;
 * ZELK_FILE_CORRUPT; ZELK_NO_MEMORY; ZELK_FAILURE. */
int zk_read_stack(int debug_active, const char* debug_file, int order, int fildes, nl_catd catfd,
                  zk_proc_list_t* proc_list, zk_stack_rec_t** rec_table);

/* ---- Lists of records: zklist.cpp ---------------------------------------------------------------------------- *
 * A `record` starts with its length word; bytes of fixed fields that lie past its end count as zeros. A length outside
 * 1 to 1024 is ZELK_REC_CORRUPT. */

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

/* ---- Decoding a record: zkrecord.cpp, zkprint.cpp ------------------------------------------------------------ *
 * `*buffer` is the cursor, `*remaining_len` the count of unread body bytes, which goes below zero (as a signed
 * number) when fixed fields reach past the record's end. A field that is taken moves both; a failure leaves both
 * alone. The record must be followed by one zero byte; nothing behind that is read. */

/* Length of the text at `buffer`, whose NUL is looked for in `buflen` + 1 bytes; -1 when there is none, `buffer` is
 * null or `buflen` above 1024. A `buflen` below zero (as a signed number): 0 when the first byte is NUL, else -1. */
int zk_obtain_strlen(void* buffer, size_t buflen);

/* Takes a text of at most 1024 bytes into `substring`, zero-filled by the caller: no terminator is written.
 * Returns 0; ZELK_REC_CORRUPT. */
int zk_get_rec_substring(int debug_active, const char* debug_file, void** buffer, char* substring,
                         size_t* remaining_len);

/* Takes a text and prints it under the message `display_msgnum`. Returns 0; ZELK_REC_CORRUPT, nothing printed. */
int zk_print_rec_substring(int debug_active, const char* debug_file, nl_catd catfd, int display_msgnum, void** buffer,
                           size_t* remaining_len);

/* Takes the argument count and the arguments. The caller releases the array `*args` and the text of each of its
 * CU_ERROR_ARG_CHAR_STR entries. Without arguments `*args` is null and `*num_args` left alone.
 * Returns 0; ZELK_NO_MEMORY; ZELK_REC_CORRUPT, also when the count asks for more than the record can hold. */
int zk_extract_arg_values(int debug_active, const char* debug_file, void** buffer, size_t* remaining_len, int* num_args,
                          cu_error_arg_t** args);

/* Takes the description block and stores its text in `*descript`, which the caller releases; it stays null when
 * cu_get_errmsg_1 gives none. Returns 0; ZELK_REC_CORRUPT. */
int zk_get_description(int debug_active, const char* debug_file, char** descript, void** buffer, size_t* remaining_len);

/* Takes the description block and prints it. Returns 0; ZELK_REC_CORRUPT, with the message printed. */
int zk_print_description(int debug_active, const char* debug_file, nl_catd catfd, void** buffer, size_t* remaining_len);

/* Cuts `descript` in place so that it fits a line of COLUMNS columns (80 when that is not a number above 0) behind
 * column `start`; a line narrower than that leaves it whole. */
void zk_truncate_description(char* descript, int start);

/* ---- Printing records: zkprint.cpp --------------------------------------------------------------------------- */

/* Prints a record as one line. With `fid_to_display` neither null nor empty, only the record of that Error ID.
 * Returns 0; ZELK_INV_FID another record, with `searching` 1 (otherwise that is 0); ZELK_INV_PARAM4 null record;
 * ZELK_INV_RECLEN a length below 1; ZELK_INV_RECVERSN; ZELK_REC_CORRUPT. */
int zk_print_brief_stack_record(int debug_active, const char* debug_file, const char* fid_to_display, int searching,
                                nl_catd catfd, void* record);

/* Prints a record in full; the same results without ZELK_INV_FID. What was printed before a failure stays. */
int zk_print_full_stack_record(int debug_active, const char* debug_file, const char* fid_to_display, nl_catd catfd,
                               void* record);

/* Prints the records process by process. Returns 0; ZELK_INV_PARAM3 bad head; ZELK_FILE_CORRUPT. */
int zk_display_recs_by_proc(int debug_active, const char* debug_file, zk_proc_list_t* proc_list, int all,
                            nl_catd catfd);

/* Prints the records group by group. Returns 0; ZELK_INV_PARAM3 null table; ZELK_FILE_CORRUPT. */
int zk_display_recs_by_rel(int debug_active, const char* debug_file, zk_stack_rec_t* rec_table, int all, nl_catd catfd);

} /* extern "C" */

#endif
