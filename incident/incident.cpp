/* SPDX-License-Identifier: MIT */
/* incident.cpp - decodes a record. */
#include "incident.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>

#include "text.h"
#include "utc_time.h"
#include "zk_eid_layout.h"
#include "zkfields.h"

template <typename Number>
static std::string digits_of(Number number, int base = 10) {
  std::array<char, 32> text;
  const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), number, base);
  return {text.data(), end};
}

/* ---- The Error ID -------------------------------------------------------------------------------------------------- */

/* The address of a node. inet_ntop takes four times as long for one of four numbers. */
static std::string address_text(char type, const zk_addr_words_t& words) {
  std::array<char, ZELK_ADDR_SLOT_SIZE> node = {};
  if (type != ZK_IPV4_TYPE) {
    inet_ntop(AF_INET6, words.data(), node.data(), node.size());
    return node.data();
  }
  std::array<unsigned char, sizeof(in_addr)> bytes;
  std::memcpy(bytes.data(), words.data(), bytes.size());
  char* end = node.data();
  for (unsigned char byte : bytes) {
    end = std::to_chars(end, &node.back(), byte).ptr;
    *end++ = '.';
  }
  return {node.data(), end - 1};
}

/* Whether the character is one of base64_table, in which it would take far longer to look for it. */
static constexpr auto is_base64_digit = [](char character) {
  return (character >= '.' && character <= '9') || (character >= 'A' && character <= 'Z') ||
         (character >= 'a' && character <= 'z');
};

bool time_of_id(std::string_view id, int64_t* id_time) {
  if (id.size() != ZELK_EID_LENGTH) return false;
  zk_eid_parts_t parts;
  std::memcpy(&parts, id.data(), sizeof parts);
  std::memset(parts.entry, ZK_ZERO_DIGIT, sizeof parts.entry); /* which may be anything */
  const std::string_view digits(reinterpret_cast<const char*>(&parts), sizeof parts);
  if (!std::all_of(digits.begin(), digits.end(), is_base64_digit)) return false;

  timeval time;
  if (zk_conv_base_64_time(0, nullptr, parts.time, &time) != ZELK_SUCCESS) return false;
  *id_time = time.tv_sec * SECOND + time.tv_usec;
  return true;
}

/* Decodes time and node of the Error ID. They are left out when it cannot be decoded. */
static void decode_id(incident_t* incident) {
  int64_t id_time = 0;
  incident->node.clear();
  incident->id_time = NO_ID_TIME;
  if (!time_of_id(incident->id, &id_time)) return;
  zk_eid_parts_t parts;
  std::memcpy(&parts, incident->id.data(), sizeof parts);
  const std::array<char, 2> header = {parts.header, '\0'};
  const char type = parts.address[ZK_ADDR_CODE_WIDTH];
  int version, location;
  zk_addr_words_t address = {};
  if (zk_conv_base_64_hdr(0, nullptr, header.data(), &version, &location) != ZELK_SUCCESS) return;
  if (zk_conv_ipaddr(0, nullptr, parts.address, type, address.data()) != ZELK_SUCCESS) return;

  incident->id_time = id_time;
  incident->node = address_text(type, address);
}

/* ---- Arguments ----------------------------------------------------------------------------------------------------- */

std::string digits_of_double(double number) {
  std::array<char, 32> text;
  const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), number);
  const std::string_view digits(text.data(), static_cast<size_t>(end - text.data()));
  const bool is_whole = digits.find_first_not_of("-0123456789") == digits.npos;
  return std::string(digits) + (is_whole ? ".0" : ""); /* a reader sees the type */
}

/* The bytes of a value in the order of the file. */
static std::string hexadecimal(std::span<const unsigned char> bytes) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  std::string text;
  for (unsigned char byte : bytes) {
    text += DIGITS[byte >> 4];
    text += DIGITS[byte & 0xF];
  }
  return text;
}

const char* argument_type_name(int32_t type) {
  static constexpr const char* NAMES[] = {"int", "long", "long_long", "double", "reserved", "string", "pointer"};
  const auto number = static_cast<uint32_t>(type);
  return number < std::size(NAMES) ? NAMES[number] : "unknown";
}

static argument_t decode_argument(const cu_error_arg_t& argument) {
  const auto& value = argument.cu_arg_value;
  argument_t decoded = {argument_type_name(argument.cu_arg_type), "", true};
  switch (argument.cu_arg_type) {
    case CU_ERROR_ARG_INT:
    case CU_ERROR_ARG_LONG:
      decoded.value = digits_of(value.cu_arg_int);
      return decoded;
    case CU_ERROR_ARG_LONG_LONG:
      decoded.value = digits_of(value.cu_arg_long_long);
      return decoded;
    case CU_ERROR_ARG_DOUBLE:
      decoded.value = digits_of_double(value.cu_arg_double);
      decoded.is_number = std::isfinite(value.cu_arg_double);
      return decoded;
    case CU_ERROR_ARG_CHAR_STR:
      decoded.value = value.cu_arg_char_str;
      break;
    case CU_ERROR_ARG_VOID_PTR:
      decoded.value = "0x" + digits_of(reinterpret_cast<uintptr_t>(value.cu_arg_void_ptr), 16);
      break;
    default: {
      std::array<unsigned char, ZK_REC_ARG_SIZE> bytes;
      std::memcpy(bytes.data(), &value, bytes.size());
      decoded.value = hexadecimal(bytes);
    }
  }
  decoded.is_number = false;
  return decoded;
}

/* ---- Records ------------------------------------------------------------------------------------------------------- */

/* Bytes that a character takes in a line of JSON, at most. */
static size_t written_size(const character_t& character) {
  if (!character.is_well_formed) return REPLACEMENT.size();
  if (character.code < 0x20 || (character.code >= 0x7F && character.code < 0xA0))
    return std::string_view("\\u0000").size();
  return character.code == '"' || character.code == '\\' ? 2 : character.size;
}

/* Cuts a description that is too long at a whole character, and says so as details do. Returns whether it did. */
static bool cut_description(std::string* text) {
  static constexpr std::string_view MARK = "...";
  if (text->size() * std::string_view("\\u0000").size() <= WRITTEN_DESCRIPTION_MAX) return false;
  const bool is_text = is_utf8(*text);
  size_t written = 0, at = 0, kept = 0; /* `kept` bytes fit with the mark */
  while (at < text->size()) {
    const character_t character = character_at(*text, at);
    written += written_size(character);
    at += character.size;
    const size_t all = written + (is_text ? 0 : (at + MARK.size() + 2) / 3 * 4); /* with the bytes in base64 */
    if (at > DESCRIPTION_MAX || all > WRITTEN_DESCRIPTION_MAX) break;
    if (at + MARK.size() <= DESCRIPTION_MAX && all + MARK.size() <= WRITTEN_DESCRIPTION_MAX) kept = at;
    if (at == text->size()) return false;
  }
  text->resize(kept);
  *text += MARK;
  return true;
}

/* Fills in what a record says, all but `stack` and `offset`. */
static void fill_in(const zk_decoded_t& decoded, incident_t* incident) {
  const zk_record_t& fields = decoded.fields;
  const zk_incident_t& recorded = fields.incident;
  incident->id = fields.eid;
  incident->cause = fields.related_eid;
  incident->time = fields.time;
  decode_id(incident);
  incident->process = recorded.process_name;
  incident->process_id = recorded.process_id;
  incident->parent_id = recorded.parent_id;
  incident->thread_id = recorded.thread_id;
  incident->file = recorded.detecting_file;
  incident->file_version = recorded.file_version;
  incident->product = recorded.product;
  incident->line = recorded.line;
  incident->catalog = recorded.catalog;
  incident->message_set = recorded.message_set;
  incident->message_number = recorded.message_number;
  incident->default_message = recorded.default_message;
  incident->arguments.clear();
  incident->arguments.reserve(recorded.argument_count);
  for (const cu_error_arg_t& argument : std::span(recorded.arguments, recorded.argument_count))
    incident->arguments.push_back(decode_argument(argument));
  char* const text = zk_describe(decoded);
  incident->description = text != nullptr ? text : "";
  free(text);
  incident->is_cut = cut_description(&incident->description);
  incident->details = recorded.details;
}

int decode_incident(const zk_trace_t& trace, zk_decoded_t* record, incident_t* incident) {
  const int result = zk_decode_record(trace, record);
  if (result == ZELK_SUCCESS) fill_in(*record, incident);
  zk_release_arguments(record);
  return result;
}
