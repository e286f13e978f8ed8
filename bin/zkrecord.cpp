/* SPDX-License-Identifier: MIT */
/* zkrecord.cpp - takes a record apart. Whatever it holds, nothing outside its memory is read but the zero byte behind
 * it. */
#include "zkrecord.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

/* ---- The cursor ---------------------------------------------------------------------------------------------------- */

static zk_cursor_t cursor_of(void** buffer, const size_t* remaining_len) {
  return {static_cast<const char*>(*buffer), static_cast<ptrdiff_t>(*remaining_len)};
}

/* Hands the cursor back to the caller of a routine of zk_int.h. */
static void store(const zk_cursor_t& cursor, void** buffer, size_t* remaining_len) {
  *buffer = const_cast<char*>(cursor.at); /* the caller's own record */
  *remaining_len = static_cast<size_t>(cursor.unread);
}

static void advance(zk_cursor_t* cursor, size_t size) {
  cursor->at += size;
  cursor->unread -= static_cast<ptrdiff_t>(size);
}

static void take_bytes(zk_cursor_t* cursor, void* bytes, size_t size) {
  if (cursor->unread >= static_cast<ptrdiff_t>(size)) {
    std::memcpy(bytes, cursor->at, size);
  } else {
    size_t inside = static_cast<size_t>(std::max(cursor->unread, ptrdiff_t{0}));
    std::memcpy(bytes, cursor->at, inside);
    std::memset(static_cast<char*>(bytes) + inside, 0, size - inside);
  }
  advance(cursor, size);
}

/* Length of the text at the cursor, -1 when there is none. A text that starts past the record's end is empty. */
static int text_length(const zk_cursor_t& cursor) {
  if (cursor.unread < 0) return 0;
  return zk_obtain_strlen(const_cast<char*>(cursor.at), static_cast<size_t>(cursor.unread)); /* it only reads */
}

int32_t zk_take_int(zk_cursor_t* cursor) {
  int32_t value;
  take_bytes(cursor, &value, sizeof value);
  return value;
}

void zk_take_eid(zk_cursor_t* cursor, zk_eid_t eid) {
  take_bytes(cursor, eid, ZELK_EID_SIZE);
  eid[ZELK_EID_LENGTH] = '\0';
}

int32_t zk_record_length(const void* record) {
  int32_t length;
  std::memcpy(&length, record, sizeof length);
  return length;
}

zk_cursor_t zk_record_cursor(const void* record, int position) {
  ptrdiff_t size = ptrdiff_t{ZK_REC_LENGTH_SIZE} + std::max(zk_record_length(record), 0);
  return {static_cast<const char*>(record) + position, size - position};
}

void zk_record_eid(const void* record, int position, zk_eid_t eid) {
  zk_cursor_t cursor = zk_record_cursor(record, position);
  zk_take_eid(&cursor, eid);
}

/* ---- Texts and the description ------------------------------------------------------------------------------------- */

int zk_obtain_strlen(void* buffer, size_t buflen) {
  const char* text = static_cast<const char*>(buffer);
  const ptrdiff_t limit = static_cast<ptrdiff_t>(buflen);
  if (text == nullptr || limit > ZK_REC_STRING_MAX) return -1;
  if (*text == '\0') return 0;
  if (limit < 0) return -1;
  size_t length = strnlen(text, buflen + 1); /* one byte more than the count: the NUL may lie right behind it */
  return length <= buflen ? static_cast<int>(length) : -1;
}

/* Takes the text at the cursor where it lies; null when it is corrupt. Traces as zk_get_rec_substring. */
static const char* take_text(const zk_trace_t& caller, zk_cursor_t* cursor) {
  const zk_trace_t trace = {caller.active, caller.file, "zk_get_rec_substring"};
  int length = text_length(*cursor);
  if (length == -1) {
    zk_failed(trace, ZELK_REC_CORRUPT,
              "Could not find a NULL terminated string in buffer\nReturning %s(%d) to caller\n");
    return nullptr;
  }
  const char* text = cursor->unread >= 0 ? cursor->at : "";
  advance(cursor, static_cast<size_t>(length) + 1);
  return text;
}

int zk_get_rec_substring(int debug_active, const char* debug_file, void** buffer, char* substring,
                         size_t* remaining_len) {
  zk_cursor_t cursor = cursor_of(buffer, remaining_len);
  const char* text = take_text({debug_active, debug_file, __func__}, &cursor);
  if (text == nullptr) return ZELK_REC_CORRUPT;
  std::copy_n(text, std::strlen(text), substring); /* without a terminator */
  store(cursor, buffer, remaining_len);
  return ZELK_SUCCESS;
}

static void release_arguments(cu_error_arg_t* arguments, int count) {
  for (int i = 0; i < count; ++i)
    if (arguments[i].cu_arg_type == CU_ERROR_ARG_CHAR_STR) free(arguments[i].cu_arg_value.cu_arg_char_str);
  free(arguments);
}

/* Takes one argument. Returns 0; ZELK_REC_CORRUPT; ZELK_NO_MEMORY. */
static int take_argument(const zk_trace_t& trace, zk_cursor_t* cursor, cu_error_arg_t* argument) {
  if (cursor->unread <= 0) return ZELK_REC_CORRUPT;
  argument->cu_arg_type = zk_take_int(cursor);
  if (argument->cu_arg_type != CU_ERROR_ARG_CHAR_STR) {
    take_bytes(cursor, &argument->cu_arg_value, ZK_REC_ARG_SIZE);
    return ZELK_SUCCESS;
  }
  argument->cu_arg_value.cu_arg_char_str = nullptr;
  int length = text_length(*cursor);
  if (length == -1) return ZELK_REC_CORRUPT;
  size_t size = static_cast<size_t>(length) + 1;
  char* text = static_cast<char*>(malloc(size));
  if (text == nullptr)
    return zk_failed(trace, ZELK_NO_MEMORY, "Memory allocation failure of %d bytes\nReturning %s(%d) to caller",
                     static_cast<int>(size));
  std::memcpy(text, cursor->at, size - 1);
  text[size - 1] = '\0';
  argument->cu_arg_value.cu_arg_char_str = text;
  advance(cursor, size);
  return ZELK_SUCCESS;
}

int zk_extract_arg_values(int debug_active, const char* debug_file, void** buffer, size_t* remaining_len, int* num_args,
                          cu_error_arg_t** args) {
  constexpr ptrdiff_t SIZE_MIN = 5; /* a type, and an empty text */
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  zk_cursor_t cursor = cursor_of(buffer, remaining_len);
  int32_t count = zk_take_int(&cursor);
  if (count <= 0) {
    store(cursor, buffer, remaining_len);
    *args = nullptr;
    return ZELK_SUCCESS;
  }
  /* What the record cannot hold would start at or past its end. */
  if (count > (cursor.unread + SIZE_MIN - 1) / SIZE_MIN) return ZELK_REC_CORRUPT;

  size_t size = static_cast<size_t>(count) * sizeof(cu_error_arg_t);
  cu_error_arg_t* arguments = static_cast<cu_error_arg_t*>(malloc(size));
  if (arguments == nullptr)
    return zk_failed(trace, ZELK_NO_MEMORY, "Memory allocation failure of %d bytes\nReturning %s(%d) to caller",
                     static_cast<int>(size));
  for (int taken = 0; taken < count; ++taken) {
    int result = take_argument(trace, &cursor, &arguments[taken]);
    if (result != ZELK_SUCCESS) {
      release_arguments(arguments, taken);
      return result;
    }
  }
  store(cursor, buffer, remaining_len);
  *num_args = count;
  *args = arguments;
  return ZELK_SUCCESS;
}

/* Takes the description block. Traces as zk_get_description, whose work it is. Returns 0; ZELK_REC_CORRUPT. */
static int take_description(const zk_trace_t& caller, zk_cursor_t* cursor, zk_description_t* description) {
  const zk_trace_t trace = {caller.active, caller.file, "zk_get_description"};
  description->catalog = take_text(trace, cursor);
  if (description->catalog == nullptr) return ZELK_REC_CORRUPT;
  description->set = zk_take_int(cursor);
  description->number = zk_take_int(cursor);
  description->default_text = take_text(trace, cursor);
  if (description->default_text == nullptr) return ZELK_REC_CORRUPT;

  description->argument_count = 0;
  description->arguments = nullptr;
  int result = zk_take_by(cursor, [&](void** buffer, size_t* remaining) {
    return zk_extract_arg_values(trace.active, trace.file, buffer, remaining, &description->argument_count,
                                 &description->arguments);
  });
  if (result == ZELK_NO_MEMORY) { /* lost with its record, as a corrupt one is */
    zk_failed(trace, result, "Unable to allocate memory to store arguments\nReturning %s(%d) to caller");
    return ZELK_REC_CORRUPT;
  }
  if (result != ZELK_SUCCESS)
    return zk_failed(trace, result,
                     "Possible corruption where description args are supposed to be\nReturning %s(%d)\n");
  return ZELK_SUCCESS;
}

char* zk_describe(const zk_description_t& description) {
  const cu_error_t error = {.cu_error_id = 1,
                            .cu_zelk_id = nullptr,
                            .cu_msg_cat = description.catalog,
                            .cu_msg_set = description.set,
                            .cu_msg_num = description.number,
                            .cu_msg_default = description.default_text,
                            .cu_arg_cnt = static_cast<uint32_t>(description.argument_count),
                            .cu_args = description.arguments};
  char* text = nullptr;
  cu_get_errmsg_1(&error, &text);
  return text;
}

void zk_release_description(zk_description_t* description) {
  release_arguments(description->arguments, description->argument_count);
  description->arguments = nullptr;
  description->argument_count = 0;
}

int zk_get_description(int debug_active, const char* debug_file, char** descript, void** buffer,
                       size_t* remaining_len) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  zk_description_t description;
  zk_cursor_t cursor = cursor_of(buffer, remaining_len);
  int result = take_description(trace, &cursor, &description);
  if (result != ZELK_SUCCESS) return result;
  *descript = zk_describe(description);
  zk_release_description(&description);
  store(cursor, buffer, remaining_len);
  return ZELK_SUCCESS;
}

/* ---- Whole records ------------------------------------------------------------------------------------------------- */

int zk_open_record(const zk_trace_t& trace, const void* record, zk_record_t* opened) {
  if (record == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "Called with null ZELK Stack Record pointer\nreturning %s(%d) to the caller");
  int32_t length = zk_record_length(record);
  if (length <= 0)
    return zk_failed(trace, ZELK_INV_RECLEN, "Length of record (%d) appears invalid\nReturning %s(%d) to caller",
                     length);
  opened->cursor = zk_record_cursor(record, ZK_REC_VERSION_POS);
  int32_t version = zk_take_int(&opened->cursor);
  if (!zk_is_known_version(version))
    return zk_failed(trace, ZELK_INV_RECVERSN, "Record version (0x%x) appears invalid\nReturning %s(%d) to caller",
                     static_cast<unsigned int>(version));
  zk_take_eid(&opened->cursor, opened->eid);
  return ZELK_SUCCESS;
}

int zk_decode_record(const zk_trace_t& trace, zk_record_t* opened) {
  zk_cursor_t* cursor = &opened->cursor;
  auto take = [&] { return take_text(trace, cursor); };
  opened->is_description_corrupt = false;

  zk_take_eid(cursor, opened->related_eid);
  opened->time = zk_take_int(cursor);
  if ((opened->process_name = take()) == nullptr) return ZELK_REC_CORRUPT;
  opened->process_id = zk_take_int(cursor);
  opened->parent_id = zk_take_int(cursor);
  opened->thread_id = zk_take_int(cursor);
  if ((opened->detecting_file = take()) == nullptr) return ZELK_REC_CORRUPT;
  if ((opened->file_version = take()) == nullptr) return ZELK_REC_CORRUPT;
  if ((opened->product = take()) == nullptr) return ZELK_REC_CORRUPT;
  opened->line = zk_take_int(cursor);

  int result = take_description(trace, cursor, &opened->description);
  if (result != ZELK_SUCCESS) {
    opened->is_description_corrupt = true;
    return result;
  }
  if ((opened->details = take()) == nullptr) {
    zk_release_description(&opened->description);
    return ZELK_REC_CORRUPT;
  }
  return ZELK_SUCCESS;
}
