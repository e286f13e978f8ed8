/* SPDX-License-Identifier: MIT */
/* zk_record.h - takes a record apart: the cursor over its fields, and all of them as one structure. Whatever a record
 * holds, nothing outside its memory is read but the zero byte that must stand behind it. */
#pragma once

#include <stddef.h>

#include "qx_record.h"
#include "zk_layout.h"

struct zk_trace_t;

/* Length of the text at `buffer`, whose NUL is looked for in `buflen` + 1 bytes; -1 when there is none, `buffer` is
 * null or `buflen` above 1024. A `buflen` below zero (as a signed number): 0 when the first byte is NUL, else -1. */
extern "C" int zk_obtain_strlen(void* buffer, size_t buflen);

/* Where the reading of a record stands. Fixed fields may reach past the record's end: the count is then below zero. */
struct zk_cursor_t {
  const char* at;
  ptrdiff_t unread; /* bytes of the record from there on */
};

/* A cursor at `position` of a record. */
zk_cursor_t zk_record_cursor(const void* record, int position);

/* Read a field and move behind it: an integer; an Error ID, at most 42 characters whatever the 43rd byte holds; a text,
 * which is the record's own, null when its end is not found; an argument, whose text is the record's own, false when it
 * is damaged. Bytes past the record's end count as zeros; a text that starts there is empty. */
int32_t zk_read_int(zk_cursor_t* cursor);
void zk_read_eid(zk_cursor_t* cursor, zk_eid_t eid);
const char* zk_read_text(zk_cursor_t* cursor);
bool zk_read_argument(zk_cursor_t* cursor, cu_error_arg_t* argument);

/* A record by its fields. */
struct zk_record_t {
  int32_t version;
  zk_eid_t eid;           /* empty for none */
  zk_eid_t related_eid;   /* empty for none */
  int32_t time;           /* seconds since the Epoch */
  zk_incident_t incident; /* what was recorded of it; the texts are the record's own, from the damaged one on null */
  zk_cursor_t arguments;  /* of it, at their count: the incident has none before they are read */
};

/* Reads the description block; false when a text, which is then null, or an argument is damaged. */
bool zk_read_description(zk_cursor_t* cursor, zk_record_t* fields);

/* Takes a record apart. Returns 0; ZELK_INV_RECLEN a length below 1, ZELK_INV_RECVERSN: no fields are set but the version;
 * ZELK_REC_CORRUPT. */
int zk_parse_record(const void* record, zk_record_t* fields);

/* Such a result as the reason of damage, null for 0. */
const char* zk_record_damage(int result);

/* Traces what is wrong with a record that ends a view, by its fields. */
void zk_report_bad_record(const zk_trace_t& trace, const void* record, off_t offset);

/* The length word of a record. */
int32_t zk_record_length(const void* record);

/* The Error ID field at `position` of a record. */
void zk_record_eid(const void* record, int position, zk_eid_t eid);
