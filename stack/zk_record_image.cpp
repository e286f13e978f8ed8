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
  writer->size += std::min(size, SIZE_MAX - writer->size);
}

static void put_int(writer_t* writer, int32_t value) {
  put_bytes(writer, &value, sizeof value);
}

static void put_text(writer_t* writer, const char* text) {
  if (text == nullptr) text = "";
  put_bytes(writer, text, std::strlen(text) + 1);
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

/* What stands at the end of a text that was cut. */
static constexpr char CUT[] = "...";
static constexpr size_t CUT_SIZE = sizeof CUT - 1;

/* A text of which `kept` bytes are recorded, with CUT behind them when that is not all. */
static void put_text_cut(writer_t* writer, const char* text, size_t kept) {
  if (text[kept] == '\0') return put_text(writer, text);
  put_bytes(writer, text, kept);
  put_text(writer, CUT);
}

/* Details that do not fit into `room` bytes, terminator included, are cut. */
static void put_details(writer_t* writer, const char* details, size_t room) {
  if (details == nullptr) details = "";
  const size_t length = std::strlen(details);
  if (length < room) return put_text(writer, details);
  if (room <= CUT_SIZE) return put_text(writer, "");
  put_text_cut(writer, details, whole_characters(details, room - 1 - CUT_SIZE));
}

/* ---- Arguments ----------------------------------------------------------------------------------------------------- */

/* More do not fit into a record, even of empty texts. */
static constexpr size_t ARGUMENTS_MAX = ZK_REC_LISTED_MAX / (sizeof(int32_t) + 1);

/* How many bytes of each text argument are recorded; 0 for other arguments. */
using kept_t = std::array<size_t, ARGUMENTS_MAX>;

static bool is_text(const cu_error_arg_t& argument) {
  return argument.cu_arg_type == CU_ERROR_ARG_CHAR_STR;
}

static kept_t keep_all(const zk_incident_t& incident) {
  kept_t kept;
  for (uint32_t i = 0; i < incident.argument_count; ++i)
    kept[i] = is_text(incident.arguments[i]) ? std::strlen(incident.arguments[i].cu_arg_value.cu_arg_char_str) : 0;
  return kept;
}

/* An argument: its kind, and a text, of which `kept` bytes are recorded, or the 8 bytes of its value. Those that an integer
 * leaves over are zeros. */
static void put_argument(writer_t* writer, const cu_error_arg_t& argument, size_t kept) {
  put_int(writer, argument.cu_arg_type);
  if (is_text(argument)) return put_text_cut(writer, argument.cu_arg_value.cu_arg_char_str, kept);
  size_t size = ZK_REC_ARG_SIZE;
  if (argument.cu_arg_type == CU_ERROR_ARG_INT || argument.cu_arg_type == CU_ERROR_ARG_LONG) size = sizeof(int32_t);
  if (argument.cu_arg_type == CU_ERROR_ARG_VOID_PTR) size = sizeof(void*);
  std::array<char, ZK_REC_ARG_SIZE> value = {};
  std::memcpy(value.data(), &argument.cu_arg_value, size);
  put_bytes(writer, value.data(), value.size());
}

/* Cuts text arguments so that a record gets smaller by `excess` bytes or a little more: the longest one, of equal ones the
 * last, as far as it takes, and when only CUT is left of it the longest one of the others. Returns false when all that does
 * not do. */
static bool cut_arguments(const zk_incident_t& incident, size_t excess, kept_t* kept) {
  kept_t lengths = *kept; /* with CUT where that has been put */
  while (excess > 0) {
    size_t longest = 0;
    for (size_t i = 1; i < incident.argument_count; ++i)
      if (lengths[i] >= lengths[longest]) longest = i;
    size_t* const length = &lengths[longest];
    if (incident.argument_count == 0 || *length <= CUT_SIZE) return false;
    const size_t kept_max = *length > excess + CUT_SIZE ? *length - excess - CUT_SIZE : 0;
    (*kept)[longest] = whole_characters(incident.arguments[longest].cu_arg_value.cu_arg_char_str, kept_max);
    const size_t saved = *length - (*kept)[longest] - CUT_SIZE;
    *length -= saved;
    excess -= std::min(excess, saved);
  }
  return true;
}

/* ---- The record ---------------------------------------------------------------------------------------------------- */

/* Writes all fields but the details. */
static void put_fields(writer_t* writer, const zk_incident_t& incident, const kept_t& kept) {
  zk_eid_t eid = {};
  auto own_if_zero = [](int32_t recorded, pid_t (*own)()) { return recorded != 0 ? recorded : own(); };
  const int32_t parent_id = own_if_zero(incident.parent_id, getppid);

  put_int(writer, 0); /* length, when it is known */
  put_int(writer, 0); /* version */
  put_bytes(writer, eid, sizeof eid);
  if (incident.associated_eid != nullptr)
    std::memcpy(eid, incident.associated_eid, strnlen(incident.associated_eid, ZELK_EID_LENGTH));
  put_bytes(writer, eid, sizeof eid);
  put_int(writer, 0); /* time */
  put_text(writer, incident.process_name != nullptr ? incident.process_name : program_invocation_short_name);
  put_int(writer, own_if_zero(incident.process_id, getpid));
  put_int(writer, parent_id != ZK_NO_PROCESS ? parent_id : 0);
  put_int(writer, own_if_zero(incident.thread_id, gettid));
  put_text(writer, incident.detecting_file);
  put_text(writer, incident.file_version);
  put_text(writer, incident.product);
  put_int(writer, incident.line);
  put_text(writer, incident.catalog);
  put_int(writer, incident.message_set);
  put_int(writer, incident.message_number);
  put_text(writer, incident.default_message);
  put_int(writer, static_cast<int32_t>(incident.argument_count));
  for (uint32_t i = 0; i < incident.argument_count; ++i) put_argument(writer, incident.arguments[i], kept[i]);
}

int zk_make_record_image(const zk_incident_t& incident, size_t body_max, zk_record_image_t* image) {
  const size_t size_max = ZK_REC_LENGTH_SIZE + std::min(body_max, size_t{ZK_REC_LISTED_MAX});
  if (incident.argument_count > ARGUMENTS_MAX) return ZELK_INV_RECLEN;
  kept_t kept = keep_all(incident);
  writer_t writer = {image->bytes.data(), size_max, 0};
  put_fields(&writer, incident, kept);
  if (writer.size >= size_max) { /* the terminator of the details takes a byte at the least */
    if (!cut_arguments(incident, writer.size + 1 - size_max, &kept)) return ZELK_INV_RECLEN;
    writer.size = 0;
    put_fields(&writer, incident, kept);
  }
  if (writer.size >= size_max) return ZELK_INV_RECLEN; /* texts of more bytes than can be counted */
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
