/* SPDX-License-Identifier: MIT */
/* incident.cpp - decodes a record. */
#include "incident.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <span>

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
static std::string address_text(char type, const addr_words& words) {
  if (type == IPV4_TYPE) {
    std::array<unsigned char, sizeof(in_addr)> bytes;
    std::memcpy(bytes.data(), words.data(), bytes.size());
    return digits_of(int{bytes[0]}) + "." + digits_of(int{bytes[1]}) + "." + digits_of(int{bytes[2]}) + "." +
           digits_of(int{bytes[3]});
  }
  std::array<char, ZELK_ADDR_SLOT_SIZE> node = {};
  inet_ntop(AF_INET6, words.data(), node.data(), node.size());
  return node.data();
}

/* Whether the character is one of base64_table, in which it would take far longer to look for it. */
static bool is_base64_digit(char character) {
  return (character >= '.' && character <= '9') || (character >= 'A' && character <= 'Z') ||
         (character >= 'a' && character <= 'z');
}

/* Decodes time and node of the Error ID, whose entry may be anything. They are left out when it cannot be decoded. */
static void decode_id(incident_t* incident) {
  incident->node.clear();
  incident->id_time = NO_ID_TIME;
  const std::string_view id = incident->id;
  if (id.size() != ZELK_EID_LENGTH) return;
  zk_eid_parts_t parts;
  std::memcpy(&parts, id.data(), sizeof parts);
  std::memset(parts.entry, ZERO_DIGIT, sizeof parts.entry);
  const std::string_view digits(reinterpret_cast<const char*>(&parts), sizeof parts);
  if (!std::all_of(digits.begin(), digits.end(), is_base64_digit)) return;

  const std::array<char, 2> header = {parts.header, '\0'};
  const char type = parts.address[ADDR_CODE_WIDTH];
  int version, location;
  timeval time;
  addr_words address = {};
  if (zk_conv_base_64_hdr(0, nullptr, header.data(), &version, &location) != ZELK_SUCCESS) return;
  if (zk_conv_base_64_time(0, nullptr, parts.time, &time) != ZELK_SUCCESS) return;
  if (zk_conv_ipaddr(0, nullptr, parts.address, type, address.data()) != ZELK_SUCCESS) return;

  incident->id_time = time.tv_sec * SECOND + time.tv_usec;
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

/* Cuts a description at a whole character, and says so as details do. */
static void cut_description(std::string* text) {
  static constexpr std::string_view MARK = "...";
  size_t end = DESCRIPTION_MAX - MARK.size();
  const size_t latest = end - std::min(end, size_t{3}); /* where a character that is cut in two may begin */
  while (end > latest && (static_cast<unsigned char>((*text)[end]) & 0xC0) == 0x80) --end;
  text->resize(end);
  *text += MARK;
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
  incident->is_cut = incident->description.size() > DESCRIPTION_MAX;
  if (incident->is_cut) cut_description(&incident->description);
  incident->details = recorded.details;
}

int decode_incident(const zk_trace_t& trace, zk_decoded_t* record, incident_t* incident) {
  const int result = zk_decode_record(trace, record);
  if (result == ZELK_SUCCESS) fill_in(*record, incident);
  zk_release_arguments(record);
  return result;
}
