/* SPDX-License-Identifier: MIT */
/* zkrecord.h - takes a record apart: the cursor over its fields, and all of them as one structure. */
#ifndef ZKRECORD_H
#define ZKRECORD_H

#include <cstddef>
#include <cstdint>

#include "zk_int.h"
#include "zk_trace.h"

/* Where the reading of a record stands. Fixed fields may reach past the record's end: the count is then below zero. */
struct zk_cursor_t {
  const char* at;
  ptrdiff_t unread; /* bytes of the record from there on */
};

/* What a description is made of. The texts are the record's own, the arguments are released by
 * zk_release_description. */
struct zk_description_t {
  const char* catalog;
  int32_t set;
  int32_t number;
  const char* default_text;
  int argument_count;
  cu_error_arg_t* arguments; /* null without any */
};

/* A record by its fields, in their order. The texts are the record's own, where they end with a NUL. */
struct zk_record_t {
  zk_eid_t eid;         /* empty for none */
  zk_eid_t related_eid; /* empty for none */
  int32_t time;         /* seconds since the Epoch */
  const char* process_name;
  int32_t process_id;
  int32_t parent_id;
  int32_t thread_id;
  const char* detecting_file;
  const char* file_version;
  const char* product;
  int32_t line;
  zk_description_t description;
  const char* details;

  zk_cursor_t cursor;          /* behind what has been taken */
  bool is_description_corrupt; /* it is why the record could not be decoded */
};

/* The length word of a record. */
int32_t zk_record_length(const void* record);

/* The Error ID field at `position` of a record: at most 42 characters, whatever the 43rd byte holds. */
void zk_record_eid(const void* record, int position, zk_eid_t eid);

/* A cursor at `position` of a record. */
zk_cursor_t zk_record_cursor(const void* record, int position);

/* Take a 4-byte integer and an Error ID at the cursor. Bytes past the record's end count as zeros and are not read, but
 * are counted as taken. */
int32_t zk_take_int(zk_cursor_t* cursor);
void zk_take_eid(zk_cursor_t* cursor, zk_eid_t eid);

/* Takes the head of a record, up to its own Error ID.
 * Returns 0; ZELK_INV_PARAM4 null record; ZELK_INV_RECLEN a length below 1; ZELK_INV_RECVERSN. */
int zk_open_record(const zk_trace_t& trace, const void* record, zk_record_t* opened);

/* Takes the rest of an opened record. On success zk_release_description must follow. Returns 0; ZELK_REC_CORRUPT. */
int zk_decode_record(const zk_trace_t& trace, zk_record_t* opened);

/* The text of a description, filled in, to be released with free(); null without memory. */
char* zk_describe(const zk_description_t& description);

void zk_release_description(zk_description_t* description);

/* The cursor as the routines of zk_int.h move it, for the time of one call `take(void** buffer, size_t* remaining)`. */
template <typename Take>
int zk_take_by(zk_cursor_t* cursor, Take take) {
  void* buffer = const_cast<char*>(cursor->at); /* they only read */
  size_t remaining = static_cast<size_t>(cursor->unread);
  int result = take(&buffer, &remaining);
  *cursor = {static_cast<const char*>(buffer), static_cast<ptrdiff_t>(remaining)};
  return result;
}

#endif
