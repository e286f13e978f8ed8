/* SPDX-License-Identifier: MIT */
/* zkopen.h - opens an Error Stack: by its name, or by an Error ID that was recorded in it. */
#pragma once

#include <nl_types.h>

#include <array>

#include "qx_zelk.h"

struct zk_trace_t;

extern "C" {

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

/* Finds the stack file that holds the Error ID `fid` among `stack_file_list`, up to `stack_list_limit` slots of
 * ZELK_FILE_SLOT_SIZE bytes, ended by an empty one; a single candidate is taken unsearched. With `correct_file`, the
 * slot's address is stored there; otherwise `*fildes_to_use`, then not null, receives the file's descriptor, at
 * position 0, which the caller closes.
 * Returns 0; ZELK_INV_PARAM3 null or empty `fid`; ZELK_INV_PARAM4 null or empty list; ZELK_FILE_MISSING,
 * ZELK_NO_ACCESS, ZELK_TOO_MANY, ZELK_FAILURE a candidate cannot be opened or read; ZELK_INV_FID none holds it. */
int zk_scan_files_for_fid(int debug_active, const char* debug_file, const char* fid, const char* stack_file_list,
                          int stack_list_limit, int* fildes_to_use, char** correct_file, nl_catd catfd);

} /* extern "C" */

/* Names of stack files, each in a slot of ZELK_FILE_SLOT_SIZE bytes; an empty slot ends the list. */
enum { ZK_CANDIDATES_MAX = 4 };
using zk_candidates_t = std::array<char, size_t{ZK_CANDIDATES_MAX} * ZELK_FILE_SLOT_SIZE>;

/* Lists the stack files with the i-node that the Error ID `fid` names, at least one on success.
 * Returns 0 and the codes of zk_open_stack_with_fid, less those of opening a file. */
int zk_find_candidates(const zk_trace_t& trace, const char* fid, zk_candidates_t* candidates);
