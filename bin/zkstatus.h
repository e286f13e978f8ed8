/* SPDX-License-Identifier: MIT */
/* zkstatus.h - the exit statuses of zkview; commands that read stacks for others end with the same. */
#pragma once

enum {
  EXIT_REPORTED = 0,
  EXIT_HELP = 2,
  EXIT_INCOMPLETE = 10,
  EXIT_LATER_VERSION = 11,
  EXIT_UNKNOWN_OPTION = 12,
  EXIT_NO_MEMORY = 18,
  EXIT_NO_STACK = 20,
  EXIT_NOT_LOCKED = 22,
  EXIT_CORRUPT = 24,
  EXIT_EXCLUDED = 26,
  EXIT_BAD_EID = 27,
  EXIT_REMOTE = 43,
  EXIT_UNEXPECTED = 99
};
