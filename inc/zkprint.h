/* SPDX-License-Identifier: MIT */
/* zkprint.h - prints records, brief and in full, stacks in order of recording, and lists of records. */
#pragma once

#include "zk_layout.h"
#include "zklist.h"

extern "C" {

/* ---- Stacks ---------------------------------------------------------------------------------------------------------- */

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

/* ---- Records --------------------------------------------------------------------------------------------------------- */

/* Prints a record as one line. With `fid_to_display` neither null nor empty, only the record of that Error ID.
 * Returns 0; ZELK_INV_FID another record, with `searching` 1 (otherwise that is 0); ZELK_INV_PARAM4 null record;
 * ZELK_INV_RECLEN a length below 1; ZELK_INV_RECVERSN; ZELK_REC_CORRUPT. */
int zk_print_brief_stack_record(int debug_active, const char* debug_file, const char* fid_to_display, int searching,
                                nl_catd catfd, void* record);

/* Prints a record in full; the same results without ZELK_INV_FID. What was printed before a failure stays. */
int zk_print_full_stack_record(int debug_active, const char* debug_file, const char* fid_to_display, nl_catd catfd,
                               void* record);

/* ---- Lists of records ------------------------------------------------------------------------------------------------ */

/* Prints the records process by process. Returns 0; ZELK_INV_PARAM3 bad head; ZELK_FILE_CORRUPT. */
int zk_display_recs_by_proc(int debug_active, const char* debug_file, zk_proc_list_t* proc_list, int all,
                            nl_catd catfd);

/* Prints the records group by group. Returns 0; ZELK_INV_PARAM3 null table; ZELK_FILE_CORRUPT. */
int zk_display_recs_by_rel(int debug_active, const char* debug_file, zk_stack_rec_t* rec_table, int all, nl_catd catfd);

/* ---- Parts of a record ----------------------------------------------------------------------------------------------- *
 * The cursor is as in zkfields.h. */

/* Reads a text and prints it under the message `display_msgnum`. Returns 0; ZELK_REC_CORRUPT, nothing printed. */
int zk_print_rec_substring(int debug_active, const char* debug_file, nl_catd catfd, int display_msgnum, void** buffer,
                           size_t* remaining_len);

/* Reads the description block and prints it. Returns 0; ZELK_REC_CORRUPT, with the message printed. */
int zk_print_description(int debug_active, const char* debug_file, nl_catd catfd, void** buffer, size_t* remaining_len);

/* Cuts `descript` in place so that it fits a line of COLUMNS columns (80 when that is not a number above 0) behind
 * column `start`; a line narrower than that leaves it whole. */
void zk_truncate_description(char* descript, int start);

} /* extern "C" */
