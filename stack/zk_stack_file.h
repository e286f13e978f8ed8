/* SPDX-License-Identifier: MIT */
/* zk_stack_file.h - the one way in which the name of an Error Stack becomes an open file. */
#pragma once

#include <array>

#include "zk_trace.h"

using zk_stack_path_t = std::array<char, ZELK_PATH_SIZE>;

/* The path of the stack file `name`, of which at most `name_max` bytes are read: relative to ZELK_STACK_DIR, and then cut at
 * 4095 characters, unless it begins with "/". */
zk_stack_path_t zk_stack_path(const char* name, int name_max = ZELK_PATH_SIZE);

/* What the name of a stack begins with while it is being made, where the file system needs one then. */
inline constexpr char ZK_STACK_IN_MAKING[] = ".zelk-";

/* Opens a stack for reading, and for writing too: whoever reads it locks it. Waits for nothing but another process's
 * lease. Returns 0 with `*fildes` set; ZELK_FILE_MISSING; ZELK_NO_ACCESS; ZELK_TOO_MANY; ZELK_FAILURE. */
int zk_open_stack_path(const zk_trace_t& trace, const zk_stack_path_t& path, int* fildes);
