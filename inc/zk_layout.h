/* SPDX-License-Identifier: MIT */
/* zk_layout.h - the layout of an Error Stack file: the one place that its readers and writers share.
 *
 *   offset  bytes
 *        0      4  stack version code: 0, or 8, 16 .. 56 for a later format that is read as version one
 *        4      4  records_start   offset of the first record slot, where writing starts again after a wrap
 *        8      4  write_pos       offset just past the newest record
 *       12      4  earliest_rec    offset of the oldest record
 *       16      4  file_size       8192 to 16384
 *       20      1  has_wrapped     1 when writing has gone back to records_start, else 0
 *       21      3  not used
 *       24         records, one after another; a length of 0, or the end of the file, ends a lap
 *
 *   record  bytes
 *        0      4  length: bytes of the body, that is of all that follows
 *        4      4  record version code, values as above
 *        8     43  Error ID, empty for none
 *       51     43  associated Error ID, that of an earlier incident, empty for none
 *       94      4  time stamp, seconds since the Epoch
 *       98         process name (text), process, parent and thread identifier (4 bytes each),
 *                  detecting file, its version, product (texts), line (4 bytes),
 *                  message catalog (text), message set, message number (4 bytes each), default message (text),
 *                  argument count (4 bytes), arguments, details (text)
 *
 *   argument    4  kind (CU_ERROR_ARG_...), then a text for CU_ERROR_ARG_CHAR_STR, else 8 bytes of value
 *
 * Integers are 32-bit, signed, in the byte order of the host that wrote the file, and stand at any offset; texts end
 * with a NUL. */
#ifndef ZK_LAYOUT_H
#define ZK_LAYOUT_H

#include <assert.h>
#include <stdbool.h>
#include <stdint.h>

/* The control header: bytes 4 to 23 of the file. */
typedef struct {
  int32_t records_start;
  int32_t write_pos;
  int32_t earliest_rec;
  int32_t file_size;
  uint8_t has_wrapped;
} zk_estack_v1_header_t;

static_assert(sizeof(zk_estack_v1_header_t) == 20, "the control header is an image of the file");

enum {
  ZK_STACK_HEADER_POS = 4, /* the control header, behind the version code */
  ZK_STACK_RECORDS_MIN = 24,
  ZK_STACK_SIZE_MIN = 8192,
  ZK_STACK_SIZE_MAX = 16384,

  ZK_REC_LENGTH_SIZE = 4,
  ZK_REC_VERSION_POS = 4,
  ZK_REC_EID_POS = 8,
  ZK_REC_RELATED_POS = 51,
  ZK_REC_TIME_POS = 94,
  ZK_REC_NAME_POS = 98,

  ZK_REC_SIZE_MAX = 2048,                                 /* a record with its length word */
  ZK_REC_BODY_MAX = ZK_REC_SIZE_MAX - ZK_REC_LENGTH_SIZE, /* more is a corrupt record */
  ZK_REC_LISTED_MAX = 1024,                               /* longest body that the grouped views take */
  ZK_REC_STRING_MAX = 1024,                               /* longest text, and most unread bytes at its start */
  ZK_REC_ARG_SIZE = 8                                     /* value of an argument that is not a text */
};

/* Whether a stack or a record has a version code that can be read. */
static inline bool zk_is_known_version(int32_t code) {
  return code >= 0 && code <= 56 && code % 8 == 0;
}

#endif
