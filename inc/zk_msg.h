/* SPDX-License-Identifier: MIT */
/* zk_msg.h - the texts that the command prints: their numbers, the built-in table and the one way to print them. */
#pragma once

#include <nl_types.h>

#include <cstdio>
#include <initializer_list>

#include "qx_cu.h"

/* Messages of the set, by name, in the order of their numbers from 1 on. The numbers, with the texts and their arguments,
 * are in bin/zkview_cmd.msg. */
enum {
  ZK_MSG_USAGE = 1,
  ZK_MSG_HELP,
  ZK_MSG_EID,
  ZK_MSG_EID_UNKNOWN,
  ZK_MSG_RELATED_EID,
  ZK_MSG_REC_CORRUPT,
  ZK_MSG_PROCESS_NAME,
  ZK_MSG_PROCESS_ID,
  ZK_MSG_PARENT_ID,
  ZK_MSG_THREAD_ID,
  ZK_MSG_FILE_NAME,
  ZK_MSG_FILE_VERSION,
  ZK_MSG_PRODUCT,
  ZK_MSG_LINE,
  ZK_MSG_DESCRIPTION_LABEL,
  ZK_MSG_DETAILS_LABEL,
  ZK_MSG_DETAILS,
  ZK_MSG_FORMAT_ONE,
  ZK_MSG_FORMAT_UNKNOWN,
  ZK_MSG_CONTROL_INFO,
  ZK_MSG_HAS_WRAPPED,
  ZK_MSG_SEPARATOR,
  ZK_MSG_TIMESTAMP,
  ZK_MSG_DESCRIPTION,
  ZK_MSG_HEADING,
  ZK_MSG_BRIEF_LINE,
  ZK_MSG_NO_MEMORY,
  ZK_MSG_PRINT_FAILURE,
  ZK_MSG_NO_OPTIONS,
  ZK_MSG_REPEATED,
  ZK_MSG_UNKNOWN_OPTION,
  ZK_MSG_EXCLUDED,
  ZK_MSG_NEEDS_OTHER,
  ZK_MSG_LATER_VERSION,
  ZK_MSG_ID_OF_A_LOG,
  ZK_MSG_NOT_A_STACK_ID,
  ZK_MSG_ID_OF_A_STACK,
  ZK_MSG_STACK_MISSING,
  ZK_MSG_UNEXPECTED,
  ZK_MSG_NO_STACK_NAME,
  ZK_MSG_ID_STACK_GONE,
  ZK_MSG_NEEDS_STACK,
  ZK_MSG_REMOTE,
  ZK_MSG_NOT_LOCKED,
  ZK_MSG_STACK_CORRUPT,
  ZK_MSG_ID_NO_ACCESS,
  ZK_MSG_STACK_NO_ACCESS,
  ZK_MSG_COUNT, /* entries of the table; entry 0 is reserved */

  ZK_MSG_SET = 6
};

#define ZK_CATALOG_NAME "zelk.cat"

/* A catalog descriptor that stands for no catalog, as catopen returns it. */
inline const nl_catd ZK_NO_CATALOG = reinterpret_cast<nl_catd>(-1); /* NOLINT(performance-no-int-to-ptr) */

extern "C" {

/* The built-in texts by message number, and the text for a number that has none. */
extern const char* const zk_mesgtbl_zkview_cmd[ZK_MSG_COUNT];
extern const char zk_badid_zkview_cmd[44];

/* Sets the locale from the environment, copies `catstring` to `dstring` (ZELK_PATH_SIZE bytes) and returns `dstring`. */
char* zk_get_msgcat_name(char* dstring, const char* catstring);

} /* extern "C" */

/* Opens the message catalog `name` for zk_print_message, of which one at a time is in use: by the locale of the
 * messages or, where that finds none, by LANG. Returns its descriptor, or ZK_NO_CATALOG, which is no error: the built-in
 * texts are then printed. The texts of this one catalog are taken apart once, not each time they are printed. */
nl_catd zk_open_catalog(const char* name);
void zk_close_catalog(nl_catd catfd);

/* Arguments of a message. A null text prints as nothing. */
cu_error_arg_t zk_msg_arg(int value);
cu_error_arg_t zk_msg_arg(const char* text);

/* Prints the message `number` on `stream`, standard output or standard error: the text of the catalog `catfd` when it
 * has one that takes the built-in text's arguments or fewer, else the built-in text. A number that has no text prints
 * zk_badid_zkview_cmd, or what the catalog has under that number. On a terminal, control characters of text arguments
 * are shown as "?". Before anything goes to standard error, standard output is flushed; the message then leaves in one
 * write. */
void zk_print_message(FILE* stream, nl_catd catfd, int number, std::initializer_list<cu_error_arg_t> args = {});

/* Prints the message `number` on standard output with a text that the C library made, which a terminal gets as it is. */
void zk_print_own_text(nl_catd catfd, int number, const char* text);

/* Gathers what is printed on standard output in `block` (fixed, `size` bytes) from here on, and writes it when the
 * block is full or zk_flush_report is called. Without it each message is written at once. */
void zk_buffer_report(char* block, size_t size);

/* Writes what has been gathered. Returns 0, or the error number of the first write that failed since the start; what
 * follows that is dropped. */
int zk_flush_report();
