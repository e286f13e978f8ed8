/* SPDX-License-Identifier: MIT */
/* zk_record_image.cpp - makes the bytes of a record. */
#include "zk_record_image.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

/* A record in the making. What does not fit is counted and not stored. */
struct writer_t {
  char* bytes;
  size_t size_max;
  size_t size;
};

static void put_bytes(writer_t* writer, const void* bytes, size_t size) {
  if (size <= writer->size_max && writer->size <= writer->size_max - size)
    std::memcpy(writer->bytes + writer->size, bytes, size);
  writer->size += size;
}

static void put_int(writer_t* writer, int32_t value) {
  put_bytes(writer, &value, sizeof value);
}

static void put_text(writer_t* writer, const char* text) {
  if (text == nullptr) text = "";
  put_bytes(writer, text, std::strlen(text) + 1);
}

/* An argument: its kind, and a text or the 8 bytes of its value. Those that an integer leaves over are zeros. */
static void put_argument(writer_t* writer, const cu_error_arg_t& argument) {
  put_int(writer, argument.cu_arg_type);
  if (argument.cu_arg_type == CU_ERROR_ARG_CHAR_STR) {
    put_text(writer, argument.cu_arg_value.cu_arg_char_str);
    return;
  }
  size_t size = ZK_REC_ARG_SIZE;
  if (argument.cu_arg_type == CU_ERROR_ARG_INT || argument.cu_arg_type == CU_ERROR_ARG_LONG) size = sizeof(int32_t);
  if (argument.cu_arg_type == CU_ERROR_ARG_VOID_PTR) size = sizeof(void*);
  std::array<char, ZK_REC_ARG_SIZE> value = {};
  std::memcpy(value.data(), &argument.cu_arg_value, size);
  put_bytes(writer, value.data(), value.size());
}

/* Bytes of the UTF-8 character that starts with `lead`. */
static size_t character_size(unsigned char lead) {
  if (lead < 0xc2 || lead > 0xf4) return 1;
  return lead < 0xe0 ? 2 : lead < 0xf0 ? 3 : 4;
}

/* How many bytes of `text`, which is longer, to keep so that they are at most `size_max` and do not end within a UTF-8
 * character. */
static size_t whole_characters(const char* text, size_t size_max) {
  constexpr size_t BEHIND_LEAD_MAX = 3;
  auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
  size_t start = size_max;
  while (start > 0 && size_max - start < BEHIND_LEAD_MAX && (byte(start) & 0xc0) == 0x80) --start;
  return start + character_size(byte(start)) > size_max ? start : size_max;
}

/* Details that do not fit into `room` bytes, terminator included, are cut. */
static void put_details(writer_t* writer, const char* details, size_t room) {
  constexpr char CUT[] = "...";
  constexpr size_t CUT_SIZE = sizeof CUT - 1;
  if (details == nullptr) details = "";
  if (std::strlen(details) < room) {
    put_text(writer, details);
  } else if (room > CUT_SIZE) {
    put_bytes(writer, details, whole_characters(details, room - 1 - CUT_SIZE));
    put_text(writer, CUT);
  } else {
    put_text(writer, "");
  }
}

int zk_make_record_image(const zk_incident_t& incident, size_t body_max, zk_record_image_t* image) {
  const size_t size_max = ZK_REC_LENGTH_SIZE + std::min(body_max, size_t{ZK_REC_LISTED_MAX});
  writer_t writer = {image->bytes.data(), size_max, 0};
  zk_eid_t eid = {};
  auto own_if_zero = [](int32_t recorded, int32_t own) { return recorded != 0 ? recorded : own; };

  put_int(&writer, 0); /* length, when it is known */
  put_int(&writer, 0); /* version */
  put_bytes(&writer, eid, sizeof eid);
  if (incident.associated_eid != nullptr)
    std::memcpy(eid, incident.associated_eid, strnlen(incident.associated_eid, ZELK_EID_LENGTH));
  put_bytes(&writer, eid, sizeof eid);
  put_int(&writer, 0); /* time */
  put_text(&writer, incident.process_name != nullptr ? incident.process_name : program_invocation_short_name);
  put_int(&writer, own_if_zero(incident.process_id, getpid()));
  put_int(&writer, own_if_zero(incident.parent_id, getppid()));
  put_int(&writer, own_if_zero(incident.thread_id, gettid()));
  put_text(&writer, incident.detecting_file);
  put_text(&writer, incident.file_version);
  put_text(&writer, incident.product);
  put_int(&writer, incident.line);
  put_text(&writer, incident.catalog);
  put_int(&writer, incident.message_set);
  put_int(&writer, incident.message_number);
  put_text(&writer, incident.default_message);
  put_int(&writer, static_cast<int32_t>(incident.argument_count));
  for (uint32_t i = 0; i < incident.argument_count && writer.size < size_max; ++i)
    put_argument(&writer, incident.arguments[i]);
  if (writer.size >= size_max) return ZELK_INV_RECLEN; /* the terminator of the details takes a byte at the least */
  put_details(&writer, incident.details, size_max - writer.size);

  const int32_t length = static_cast<int32_t>(writer.size - ZK_REC_LENGTH_SIZE);
  std::memcpy(image->bytes.data(), &length, sizeof length);
  image->size = writer.size;
  return ZELK_SUCCESS;
}

void zk_stamp_record_image(zk_record_image_t* image, const zk_eid_t eid, int32_t seconds) {
  std::memcpy(image->bytes.data() + ZK_REC_EID_POS, eid, ZELK_EID_SIZE);
  std::memcpy(image->bytes.data() + ZK_REC_TIME_POS, &seconds, sizeof seconds);
}
