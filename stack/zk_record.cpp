/* SPDX-License-Identifier: MIT */
/* zk_record.cpp - takes a record apart. */
#include "zk_record.h"

#include <algorithm>
#include <cstring>

#include "zk_damage.h"

/* ---- The cursor ---------------------------------------------------------------------------------------------------- */

static void advance(zk_cursor_t* cursor, size_t size) {
  cursor->at += size;
  cursor->unread -= static_cast<ptrdiff_t>(size);
}

static void read_bytes(zk_cursor_t* cursor, void* bytes, size_t size) {
  if (cursor->unread >= static_cast<ptrdiff_t>(size)) {
    std::memcpy(bytes, cursor->at, size);
  } else {
    const size_t inside = static_cast<size_t>(std::max(cursor->unread, ptrdiff_t{0}));
    std::memcpy(bytes, cursor->at, inside);
    std::memset(static_cast<char*>(bytes) + inside, 0, size - inside);
  }
  advance(cursor, size);
}

int32_t zk_read_int(zk_cursor_t* cursor) {
  int32_t value;
  read_bytes(cursor, &value, sizeof value);
  return value;
}

void zk_read_eid(zk_cursor_t* cursor, zk_eid_t eid) {
  read_bytes(cursor, eid, ZELK_EID_SIZE);
  eid[ZELK_EID_LENGTH] = '\0';
}

int zk_obtain_strlen(void* buffer, size_t buflen) {
  const char* text = static_cast<const char*>(buffer);
  const ptrdiff_t limit = static_cast<ptrdiff_t>(buflen);
  if (text == nullptr || limit > ZK_REC_STRING_MAX) return -1;
  if (*text == '\0') return 0;
  if (limit < 0) return -1;
  size_t length = strnlen(text, buflen + 1); /* one byte more than the count: the NUL may lie right behind it */
  return length <= buflen ? static_cast<int>(length) : -1;
}

const char* zk_read_text(zk_cursor_t* cursor) {
  const char* text = "";
  int length = 0;
  if (cursor->unread >= 0) {
    text = cursor->at;
    length = zk_obtain_strlen(const_cast<char*>(text), static_cast<size_t>(cursor->unread)); /* it only reads */
    if (length == -1) return nullptr;
  }
  advance(cursor, static_cast<size_t>(length) + 1);
  return text;
}

bool zk_read_argument(zk_cursor_t* cursor, cu_error_arg_t* argument) {
  if (cursor->unread <= 0) return false; /* the count asks for more than the record holds */
  argument->cu_arg_type = zk_read_int(cursor);
  if (argument->cu_arg_type != CU_ERROR_ARG_CHAR_STR) {
    read_bytes(cursor, &argument->cu_arg_value, ZK_REC_ARG_SIZE);
    return true;
  }
  const char* text = zk_read_text(cursor);
  argument->cu_arg_value.cu_arg_char_str = const_cast<char*>(text); /* only read */
  return text != nullptr;
}

/* ---- Records ------------------------------------------------------------------------------------------------------- */

int32_t zk_record_length(const void* record) {
  int32_t length;
  std::memcpy(&length, record, sizeof length);
  return length;
}

zk_cursor_t zk_record_cursor(const void* record, int position) {
  const ptrdiff_t size = ptrdiff_t{ZK_REC_LENGTH_SIZE} + std::max(zk_record_length(record), 0);
  return {static_cast<const char*>(record) + position, size - position};
}

void zk_record_eid(const void* record, int position, zk_eid_t eid) {
  zk_cursor_t cursor = zk_record_cursor(record, position);
  zk_read_eid(&cursor, eid);
}

bool zk_read_description(zk_cursor_t* cursor, zk_record_t* fields) {
  zk_incident_t* const incident = &fields->incident;
  if ((incident->catalog = zk_read_text(cursor)) == nullptr) return false;
  incident->message_set = zk_read_int(cursor);
  incident->message_number = zk_read_int(cursor);
  if ((incident->default_message = zk_read_text(cursor)) == nullptr) return false;
  fields->arguments = *cursor;
  cu_error_arg_t argument;
  for (int32_t count = zk_read_int(cursor); count > 0; --count)
    if (!zk_read_argument(cursor, &argument)) return false;
  return true;
}

int zk_parse_record(const void* record, zk_record_t* fields) {
  *fields = {};
  if (zk_record_length(record) <= 0) return ZELK_INV_RECLEN;
  zk_cursor_t cursor = zk_record_cursor(record, ZK_REC_VERSION_POS);
  fields->version = zk_read_int(&cursor);
  if (!zk_is_known_version(fields->version)) return ZELK_INV_RECVERSN;

  zk_incident_t* const incident = &fields->incident;
  zk_read_eid(&cursor, fields->eid);
  zk_read_eid(&cursor, fields->related_eid);
  fields->time = zk_read_int(&cursor);
  if ((incident->process_name = zk_read_text(&cursor)) == nullptr) return ZELK_REC_CORRUPT;
  incident->process_id = zk_read_int(&cursor);
  incident->parent_id = zk_read_int(&cursor);
  incident->thread_id = zk_read_int(&cursor);
  if ((incident->detecting_file = zk_read_text(&cursor)) == nullptr) return ZELK_REC_CORRUPT;
  if ((incident->file_version = zk_read_text(&cursor)) == nullptr) return ZELK_REC_CORRUPT;
  if ((incident->product = zk_read_text(&cursor)) == nullptr) return ZELK_REC_CORRUPT;
  incident->line = zk_read_int(&cursor);
  if (!zk_read_description(&cursor, fields)) return ZELK_REC_CORRUPT;
  if ((incident->details = zk_read_text(&cursor)) == nullptr) return ZELK_REC_CORRUPT;
  return ZELK_SUCCESS;
}

const char* zk_record_damage(int result) {
  if (result == ZELK_SUCCESS) return nullptr;
  if (result == ZELK_INV_RECLEN) return ZK_BAD_LENGTH;
  return result == ZELK_INV_RECVERSN ? ZK_BAD_RECORD_VERSION : ZK_BAD_FIELD;
}

void zk_report_bad_record(const zk_trace_t& trace, const void* record, off_t offset) {
  zk_record_t fields;
  const char* reason = zk_record_damage(zk_parse_record(record, &fields));
  if (reason != nullptr) zk_report_damage(trace, {offset, reason}); /* null where there was no memory to print it */
}
