/* SPDX-License-Identifier: MIT */
/* lock_wait.h - waiting for the lock of a stack without leaving its user in the dark. */
#pragma once

#include <string>

/* Waits for the whole-file lock of a stack, which the process then holds: by `command`, F_SETLKW or F_OFD_SETLKW. After a
 * second it says once on standard error, for the command `name`, who holds the lock of `stack`, a path. A lock that cannot be had
 * is left to whoever takes it next, who says why. Uses SIGALRM. */
void wait_for_lock(const std::string& name, const std::string& stack, int fildes, int command);

/* What is told of the lock of an open stack that is waited for: who holds it. */
std::string waiting_text(int fildes);
