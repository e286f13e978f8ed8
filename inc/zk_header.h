/* SPDX-License-Identifier: MIT */
/* zk_header.h - the control header of an Error Stack: reading it, and what a reader and a recorder ask of it. */
#pragma once

#include "zk_layout.h"

struct zk_damage_t;
struct zk_trace_t;

/* Reads and checks the control header and leaves the file at the earliest record; `*stack_version` (not null) and
 * `*hbuf` are set on success only.
 * Returns 0; ZELK_INV_PARAM3 `fildes` -1; ZELK_INV_PARAM4 null `hbuf`; ZELK_FILE_CORRUPT. */
extern "C" int zk_read_header(int debug_active, const char* debug_file, int fildes, int* stack_version,
                              zk_estack_v1_header_t* hbuf);

/* The work of zk_read_header. Returns what is wrong; the outputs are not to be used then. Nothing is traced on success: see
 * zk_trace_good_header. */
zk_damage_t zk_read_good_header(const zk_trace_t& trace, int fildes, int* stack_version, zk_estack_v1_header_t* hbuf);

/* Traces where the file stands after that: apart, since a trace file that is the stack drops the stack's lock. */
void zk_trace_good_header(const zk_trace_t& trace, const zk_estack_v1_header_t& header);

/* What keeps a recorder from a stack of `size` bytes that has this version code and header. */
zk_damage_t zk_check_header_for_recorder(int32_t version, const zk_estack_v1_header_t& header, int32_t size);
