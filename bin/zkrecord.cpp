/* zkrecord.cpp - takes a record apart: its fixed fields, its texts and its description. Whatever a record
 * holds, nothing outside its memory is read but the zero byte behind it. */
#include "zkrecord.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "zk_msg.h"
#include "zk_trace.h"

using string_buffer = std::array<char, ZK_REC_STRING_MAX + 1>;

static ptrdiff_t signed_size(size_t size) {
  return static_cast<ptrdiff_t>(size);
}

/* Length of the text at the cursor, -1 when there is none. A text that starts past the record's end is empty.
 */
static int text_length(void* buffer, size_t remaining_len) {
  return signed_size(remaining_len) < 0 ? 0 : zk_obtain_strlen(buffer, remaining_len);
}

static void advance(void** buffer, size_t* remaining_len, size_t size) {
  *buffer = static_cast<char*>(*buffer) + size;
  *remaining_len -= size;
}

static void release_arguments(cu_error_arg_t* arguments, int count) {
  for (int i = 0; i < count; ++i)
    if (arguments[i].cu_arg_type == CU_ERROR_ARG_CHAR_STR) free(arguments[i].cu_arg_value.cu_arg_char_str);
  free(arguments);
}

int32_t zk_record_length(const void* record) {
  int32_t length;
  std::memcpy(&length, record, sizeof length);
  return length;
}

void zk_record_eid(const void* record, int position, zk_eid_t eid) {
  /* zk_take_eid only reads; the routines of the cursor share one type. */
  void* cursor = const_cast<char*>(static_cast<const char*>(record)) + position;
  ptrdiff_t size = ptrdiff_t{ZK_REC_LENGTH_SIZE} + std::max(zk_record_length(record), 0) - position;
  size_t remaining = static_cast<size_t>(size);
  zk_take_eid(&cursor, &remaining, eid);
}

void zk_take_bytes(void** buffer, size_t* remaining_len, void* bytes, size_t size) {
  size_t inside = std::min(size, static_cast<size_t>(std::max(signed_size(*remaining_len), ptrdiff_t{0})));
  std::memset(bytes, 0, size);
  if (inside > 0) std::memcpy(bytes, *buffer, inside);
  advance(buffer, remaining_len, size);
}

int32_t zk_take_int(void** buffer, size_t* remaining_len) {
  int32_t value;
  zk_take_bytes(buffer, remaining_len, &value, sizeof value);
  return value;
}

void zk_take_eid(void** buffer, size_t* remaining_len, zk_eid_t eid) {
  zk_take_bytes(buffer, remaining_len, eid, ZELK_EID_SIZE);
  eid[ZELK_EID_LENGTH] = '\0';
}

int zk_obtain_strlen(void* buffer, size_t buflen) {
  const char* text = static_cast<const char*>(buffer);
  ptrdiff_t limit = signed_size(buflen);
  if (text == nullptr || limit > ZK_REC_STRING_MAX) return -1;
  if (*text == '\0') return 0;
  for (int i = 0; i <= limit; ++i) /* one byte more than the count: the NUL may lie right behind it */
    if (text[i] == '\0') return i;
  return -1;
}

int zk_get_rec_substring(int debug_active, const char* debug_file, void** buffer, char* substring,
                         size_t* remaining_len) {
  int length = text_length(*buffer, *remaining_len);
  if (length == -1)
    ZK_RETURN(ZELK_REC_CORRUPT, "Could not find a NULL terminated string in buffer\nReturning %s(%d) to caller\n");
  size_t size = static_cast<size_t>(length);
  if (size > 0) std::memcpy(substring, *buffer, size);
  advance(buffer, remaining_len, size + 1);
  return ZELK_SUCCESS;
}

int zk_print_rec_substring(int debug_active, const char* debug_file, nl_catd catfd, int display_msgnum, void** buffer,
                           size_t* remaining_len) {
  string_buffer text = {};
  int result = zk_get_rec_substring(debug_active, debug_file, buffer, text.data(), remaining_len);
  if (result != ZELK_SUCCESS) return result;
  zk_print_message(stdout, catfd, display_msgnum, {zk_msg_arg(text.data())});
  return ZELK_SUCCESS;
}

int zk_extract_arg_values(int debug_active, const char* debug_file, void** buffer, size_t* remaining_len, int* num_args,
                          cu_error_arg_t** args) {
  constexpr ptrdiff_t SIZE_MIN = 5; /* a type, and an empty text */
  void* cursor = *buffer;
  size_t remaining = *remaining_len;
  int32_t count = zk_take_int(&cursor, &remaining);
  cu_error_arg_t* arguments = nullptr;
  int taken = 0;
  int result = ZELK_SUCCESS;

  if (count > 0) {
    /* What the record cannot hold would start at or past its end. */
    if (count > (signed_size(remaining) + SIZE_MIN - 1) / SIZE_MIN) return ZELK_REC_CORRUPT;
    size_t size = static_cast<size_t>(count) * sizeof *arguments;
    arguments = static_cast<cu_error_arg_t*>(calloc(static_cast<size_t>(count), sizeof *arguments));
    if (arguments == nullptr)
      ZK_RETURN(ZELK_NO_MEMORY, "Memory allocation failure of %d bytes\nReturning %s(%d) to caller",
                static_cast<int>(size));
  }

  for (; taken < count; ++taken) {
    cu_error_arg_t* argument = &arguments[taken];
    if (signed_size(remaining) <= 0) {
      result = ZELK_REC_CORRUPT;
      break;
    }
    argument->cu_arg_type = zk_take_int(&cursor, &remaining);
    if (argument->cu_arg_type != CU_ERROR_ARG_CHAR_STR) {
      zk_take_bytes(&cursor, &remaining, &argument->cu_arg_value, ZK_REC_ARG_SIZE);
      continue;
    }
    int length = text_length(cursor, remaining);
    if (length == -1) {
      result = ZELK_REC_CORRUPT;
      break;
    }
    size_t size = static_cast<size_t>(length) + 1;
    argument->cu_arg_value.cu_arg_char_str = static_cast<char*>(calloc(size, 1));
    if (argument->cu_arg_value.cu_arg_char_str == nullptr) {
      result = ZELK_NO_MEMORY;
      ZK_TRACE_RC(result, "Memory allocation failure of %d bytes\nReturning %s(%d) to caller", static_cast<int>(size));
      break;
    }
    if (length > 0) std::memcpy(argument->cu_arg_value.cu_arg_char_str, cursor, static_cast<size_t>(length));
    advance(&cursor, &remaining, size);
  }
  if (result != ZELK_SUCCESS) {
    release_arguments(arguments, taken);
    return result;
  }

  *buffer = cursor;
  *remaining_len = remaining;
  if (count > 0) *num_args = count;
  *args = arguments;
  return ZELK_SUCCESS;
}

int zk_get_description(int debug_active, const char* debug_file, char** descript, void** buffer,
                       size_t* remaining_len) {
  std::array<char, ZELK_PATH_SIZE> catalog = {};
  string_buffer default_text = {};
  void* cursor = *buffer;
  size_t remaining = *remaining_len;
  cu_error_arg_t* arguments = nullptr;
  int count = 0;

  if (zk_get_rec_substring(debug_active, debug_file, &cursor, catalog.data(), &remaining) != ZELK_SUCCESS)
    return ZELK_REC_CORRUPT;
  int32_t set = zk_take_int(&cursor, &remaining);
  int32_t number = zk_take_int(&cursor, &remaining);
  if (zk_get_rec_substring(debug_active, debug_file, &cursor, default_text.data(), &remaining) != ZELK_SUCCESS)
    return ZELK_REC_CORRUPT;

  int result = zk_extract_arg_values(debug_active, debug_file, &cursor, &remaining, &count, &arguments);
  if (result == ZELK_NO_MEMORY) {
    ZK_TRACE_RC(result, "Unable to allocate memory to store arguments\nReturning %s(%d) to caller");
    return ZELK_REC_CORRUPT;
  }
  if (result == ZELK_REC_CORRUPT)
    ZK_RETURN(result, "Possible corruption where description args are supposed to be\nReturning %s(%d)\n");

  cu_error_t error = {.cu_error_id = 1,
                      .cu_zelk_id = nullptr,
                      .cu_msg_cat = catalog.data(),
                      .cu_msg_set = set,
                      .cu_msg_num = number,
                      .cu_msg_default = default_text.data(),
                      .cu_arg_cnt = static_cast<uint32_t>(count),
                      .cu_args = arguments};
  cu_get_errmsg_1(&error, descript);
  release_arguments(arguments, count);
  *buffer = cursor;
  *remaining_len = remaining;
  return ZELK_SUCCESS;
}

int zk_print_description(int debug_active, const char* debug_file, nl_catd catfd, void** buffer,
                         size_t* remaining_len) {
  char* description = nullptr;
  int result = zk_get_description(debug_active, debug_file, &description, buffer, remaining_len);
  if (result == ZELK_SUCCESS) {
    zk_print_message(stdout, catfd, ZK_MSG_DESCRIPTION, {zk_msg_arg(description)});
    free(description);
    return ZELK_SUCCESS;
  }
  if (result == ZELK_NO_MEMORY)
    zk_print_message(stderr, catfd, ZK_MSG_NO_MEMORY);
  else
    zk_print_message(stdout, catfd, ZK_MSG_REC_CORRUPT);
  return ZELK_REC_CORRUPT;
}

void zk_truncate_description(char* descript, int start) {
  constexpr long DEFAULT_WIDTH = 80;
  const char* columns = getenv("COLUMNS");
  long width = columns != nullptr ? std::strtol(columns, nullptr, 10) : 0;
  width = width >= 1 ? std::min(width, long{INT_MAX}) : DEFAULT_WIDTH;
  /* A limit below zero is a huge one and leaves the text whole. */
  unsigned long long limit = static_cast<unsigned long long>(static_cast<long long>(width) - start);
  if (std::strlen(descript) > limit) descript[limit] = '\0';
}
