/* SPDX-License-Identifier: MIT */
/* zkfields.cpp - decodes the fields of a record, as the trace tells of it, with what takes memory: its arguments and the
 * text of its description. */
#include "zkfields.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "zk_trace.h"

static zk_cursor_t cursor_of(void** buffer, const size_t* remaining_len) {
  return {static_cast<const char*>(*buffer), static_cast<ptrdiff_t>(*remaining_len)};
}

/* Hands the cursor back to the caller. */
static void store(const zk_cursor_t& cursor, void** buffer, size_t* remaining_len) {
  *buffer = const_cast<char*>(cursor.at); /* the caller's own record */
  *remaining_len = static_cast<size_t>(cursor.unread);
}

/* ---- Texts and arguments ------------------------------------------------------------------------------------------- */

/* Traces, as zk_get_rec_substring, that a text has no end. Returns ZELK_REC_CORRUPT. */
static int fail_text(const zk_trace_t& caller) {
  const zk_trace_t trace = {caller.active, caller.file, "zk_get_rec_substring"};
  return zk_failed(trace, ZELK_REC_CORRUPT,
                   "Could not find a NULL terminated string in buffer\nReturning %s(%d) to caller\n");
}

int zk_get_rec_substring(int debug_active, const char* debug_file, void** buffer, char* substring,
                         size_t* remaining_len) {
  zk_cursor_t cursor = cursor_of(buffer, remaining_len);
  const char* text = zk_read_text(&cursor);
  if (text == nullptr) return fail_text({debug_active, debug_file, __func__});
  std::copy_n(text, std::strlen(text), substring); /* without a terminator */
  store(cursor, buffer, remaining_len);
  return ZELK_SUCCESS;
}

static void release_arguments(cu_error_arg_t* arguments, int count) {
  for (int i = 0; i < count; ++i)
    if (arguments[i].cu_arg_type == CU_ERROR_ARG_CHAR_STR) free(arguments[i].cu_arg_value.cu_arg_char_str);
  free(arguments);
}

static constexpr char NO_MEMORY[] = "Memory allocation failure of %d bytes\nReturning %s(%d) to caller";

/* Reads an argument; its text is a copy. Returns 0; ZELK_REC_CORRUPT; ZELK_NO_MEMORY. */
static int extract_argument(const zk_trace_t& trace, zk_cursor_t* cursor, cu_error_arg_t* argument) {
  if (!zk_read_argument(cursor, argument)) return ZELK_REC_CORRUPT;
  if (argument->cu_arg_type != CU_ERROR_ARG_CHAR_STR) return ZELK_SUCCESS;
  const char* text = argument->cu_arg_value.cu_arg_char_str;
  const size_t size = std::strlen(text) + 1;
  char* copy = static_cast<char*>(malloc(size));
  if (copy == nullptr) return zk_failed(trace, ZELK_NO_MEMORY, NO_MEMORY, static_cast<int>(size));
  std::memcpy(copy, text, size);
  argument->cu_arg_value.cu_arg_char_str = copy;
  return ZELK_SUCCESS;
}

int zk_extract_arg_values(int debug_active, const char* debug_file, void** buffer, size_t* remaining_len, int* num_args,
                          cu_error_arg_t** args) {
  constexpr ptrdiff_t SIZE_MIN = 5; /* a type, and an empty text */
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  zk_cursor_t cursor = cursor_of(buffer, remaining_len);
  int32_t count = zk_read_int(&cursor);
  if (count <= 0) {
    store(cursor, buffer, remaining_len);
    *args = nullptr;
    return ZELK_SUCCESS;
  }
  /* What the record cannot hold would start at or past its end. */
  if (count > (cursor.unread + SIZE_MIN - 1) / SIZE_MIN) return ZELK_REC_CORRUPT;

  size_t size = static_cast<size_t>(count) * sizeof(cu_error_arg_t);
  cu_error_arg_t* arguments = static_cast<cu_error_arg_t*>(malloc(size));
  if (arguments == nullptr) return zk_failed(trace, ZELK_NO_MEMORY, NO_MEMORY, static_cast<int>(size));
  for (int extracted = 0; extracted < count; ++extracted) {
    int result = extract_argument(trace, &cursor, &arguments[extracted]);
    if (result != ZELK_SUCCESS) {
      release_arguments(arguments, extracted);
      return result;
    }
  }
  store(cursor, buffer, remaining_len);
  *num_args = count;
  *args = arguments;
  return ZELK_SUCCESS;
}

/* ---- The description ----------------------------------------------------------------------------------------------- */

/* Loads the arguments of a description that has been read. Traces as zk_get_description, whose work it is. Returns 0;
 * ZELK_REC_CORRUPT. */
static int load_arguments(const zk_trace_t& caller, zk_decoded_t* decoded) {
  const zk_trace_t trace = {caller.active, caller.file, "zk_get_description"};
  zk_incident_t* const incident = &decoded->fields.incident;
  if (incident->catalog == nullptr || incident->default_message == nullptr) return fail_text(trace);
  void* buffer = const_cast<char*>(decoded->fields.arguments.at); /* it is only read */
  size_t remaining = static_cast<size_t>(decoded->fields.arguments.unread);
  int count = 0;
  cu_error_arg_t* arguments = nullptr;
  int result = zk_extract_arg_values(trace.active, trace.file, &buffer, &remaining, &count, &arguments);
  if (result == ZELK_NO_MEMORY) { /* lost with its record, as a corrupt one is */
    zk_failed(trace, result, "Unable to allocate memory to store arguments\nReturning %s(%d) to caller");
    return ZELK_REC_CORRUPT;
  }
  if (result != ZELK_SUCCESS)
    return zk_failed(trace, result,
                     "Possible corruption where description args are supposed to be\nReturning %s(%d)\n");
  incident->arguments = arguments;
  incident->argument_count = static_cast<uint32_t>(count);
  decoded->has_description = true;
  return ZELK_SUCCESS;
}

char* zk_describe(const zk_decoded_t& decoded) {
  const zk_incident_t& incident = decoded.fields.incident;
  const cu_error_t error = {.cu_error_id = 1,
                            .cu_zelk_id = nullptr,
                            .cu_msg_cat = incident.catalog,
                            .cu_msg_set = incident.message_set,
                            .cu_msg_num = incident.message_number,
                            .cu_msg_default = incident.default_message,
                            .cu_arg_cnt = incident.argument_count,
                            .cu_args = const_cast<cu_error_arg_t*>(incident.arguments)}; /* only read */
  char* text = nullptr;
  cu_get_errmsg_1(&error, &text);
  return text;
}

int zk_get_description(int debug_active, const char* debug_file, char** descript, void** buffer,
                       size_t* remaining_len) {
  zk_decoded_t decoded = {};
  zk_cursor_t cursor = cursor_of(buffer, remaining_len);
  zk_read_description(&cursor, &decoded.fields); /* what is damaged is found, and traced, in order */
  int result = load_arguments({debug_active, debug_file, __func__}, &decoded);
  if (result != ZELK_SUCCESS) return result;
  *descript = zk_describe(decoded);
  zk_release_arguments(&decoded);
  store(cursor, buffer, remaining_len);
  return ZELK_SUCCESS;
}

/* ---- Whole records ------------------------------------------------------------------------------------------------- */

int zk_open_record(const zk_trace_t& trace, const void* record, zk_decoded_t* decoded) {
  if (record == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "Called with null ZELK Stack Record pointer\nreturning %s(%d) to the caller");
  decoded->has_description = false;
  const int result = zk_parse_record(record, &decoded->fields);
  if (result == ZELK_INV_RECLEN)
    return zk_failed(trace, result, "Length of record (%d) appears invalid\nReturning %s(%d) to caller",
                     zk_record_length(record));
  if (result == ZELK_INV_RECVERSN)
    return zk_failed(trace, result, "Record version (0x%x) appears invalid\nReturning %s(%d) to caller",
                     static_cast<unsigned int>(decoded->fields.version));
  return ZELK_SUCCESS;
}

int zk_decode_record(const zk_trace_t& trace, zk_decoded_t* decoded) {
  if (decoded->fields.incident.product == nullptr) return fail_text(trace);
  int result = load_arguments(trace, decoded);
  if (result != ZELK_SUCCESS) return result;
  return decoded->fields.incident.details != nullptr ? int{ZELK_SUCCESS} : fail_text(trace);
}

void zk_release_arguments(zk_decoded_t* decoded) {
  zk_incident_t* const incident = &decoded->fields.incident;
  release_arguments(const_cast<cu_error_arg_t*>(incident->arguments), static_cast<int>(incident->argument_count));
  incident->arguments = nullptr;
  incident->argument_count = 0;
}
