/* SPDX-License-Identifier: MIT */
/* zkopen.h - which stack files of this node an Error ID can mean. */
#ifndef ZKOPEN_H
#define ZKOPEN_H

#include <array>

#include "zk_int.h"
#include "zk_trace.h"

/* Names of stack files, each in a slot of ZELK_FILE_SLOT_SIZE bytes; an empty slot ends the list. */
enum { ZK_CANDIDATES_MAX = 4 };
using zk_candidates_t = std::array<char, size_t{ZK_CANDIDATES_MAX} * ZELK_FILE_SLOT_SIZE>;

/* Lists the stack files with the i-node that the Error ID `fid` names, at least one on success.
 * Returns 0 and the codes of zk_open_stack_with_fid, less those of opening a file. */
int zk_find_candidates(const zk_trace_t& trace, const char* fid, zk_candidates_t* candidates);

#endif
