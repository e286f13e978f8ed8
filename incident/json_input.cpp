/* SPDX-License-Identifier: MIT */
/* json_input.cpp - parses a line of JSON as json_line.cpp writes it. Each routine returns false for what is never
 * written. */
#include <arpa/inet.h>

#include <charconv>
#include <cmath>

#include "json_fields.h"
#include "json_line.h"
#include "json_reader.h"
#include "text.h"
#include "utc_time.h"
#include "zk_eid_layout.h"

/* ---- Values -------------------------------------------------------------------------------------------------------- */

template <typename Number>
static bool read_number(json_reader_t* reader, Number* number) {
  std::string_view digits;
  if (!read_json_number(reader, &digits)) return false;
  const char* const behind = digits.data() + digits.size();
  const auto [end, error] = std::from_chars(digits.data(), behind, *number);
  return error == std::errc{} && end == behind;
}

/* Reads the bytes of a text that is not UTF-8, from the member beside it. */
static bool read_bytes(json_reader_t* reader, std::string* bytes) {
  std::string text;
  return read_json_string(reader, &text) && bytes_of_base64(text, bytes) && !is_utf8(*bytes) &&
         bytes->find('\0') == bytes->npos;
}

static bool read_time(json_reader_t* reader, int64_t* microseconds) {
  std::string text;
  return read_json_string(reader, &text) && parse_utc_time(text, microseconds);
}

/* An address can be written in several ways, and is in one. */
static bool is_address(const std::string& text) {
  std::array<unsigned char, sizeof(in6_addr)> address;
  std::array<char, INET6_ADDRSTRLEN> usual = {};
  for (int family : {AF_INET, AF_INET6})
    if (inet_pton(family, text.c_str(), address.data()) == 1)
      return inet_ntop(family, address.data(), usual.data(), usual.size()) != nullptr && text == usual.data();
  return false;
}

static bool is_eid_text(const std::string& text) {
  size_t count = 0;
  for (size_t at = 0; at < text.size(); ++count) at += character_at(text, at).size;
  return count > 0 && count <= ZELK_EID_LENGTH;
}

/* ---- Arguments ----------------------------------------------------------------------------------------------------- */

/* Whether the value of an argument that is no number is one of its type. */
static bool is_value_of_type(const argument_t& argument) {
  static constexpr std::string_view HEXADECIMAL = "0123456789abcdef";
  const std::string_view value = argument.value;
  if (argument.type == "string") return true;
  if (argument.type == "double") return value == "inf" || value == "-inf" || value == "nan" || value == "-nan";
  if (argument.type == "pointer")
    return value.size() > 2 && value.size() <= 18 && value.starts_with("0x") &&
           value.find_first_not_of(HEXADECIMAL, 2) == value.npos;
  if (argument.type == "reserved" || argument.type == "unknown")
    return value.size() == 16 && value.find_first_not_of(HEXADECIMAL) == value.npos;
  return false;
}

/* Makes a number the value of an argument, as it is written for its type. */
static bool set_number(std::string_view digits, argument_t* argument) {
  const char* const behind = digits.data() + digits.size();
  const bool is_double = argument->type == "double";
  const bool is_long_long = argument->type == "long_long";
  if (!is_double && !is_long_long && argument->type != "int" && argument->type != "long") return false;
  double fraction = 0;
  int64_t whole = 0;
  const auto [end, error] =
      is_double ? std::from_chars(digits.data(), behind, fraction) : std::from_chars(digits.data(), behind, whole);
  if (error != std::errc{} || end != behind) return false;
  if (!is_double && !is_long_long && (whole < INT32_MIN || whole > INT32_MAX)) return false;
  argument->value = is_double ? digits_of_double(fraction) : std::to_string(whole);
  return true;
}

static bool read_argument(json_reader_t* reader, argument_t* argument) {
  std::string key, bytes;
  std::string_view number;
  bool has_type = false, has_value = false;
  argument->is_number = false;
  json_items_t members = begin_json_items(reader, '{');
  while (next_json_member(reader, &members, &key)) {
    if (key == "type") {
      if (has_type || !read_json_string(reader, &argument->type)) return false;
      has_type = true;
    } else if (key == "value") {
      if (has_value) return false;
      has_value = true;
      argument->is_number = peek_json(reader) != '"';
      if (argument->is_number ? !read_json_number(reader, &number) : !read_json_string(reader, &argument->value))
        return false;
    } else if (key == "value_base64") {
      if (!bytes.empty() || !read_bytes(reader, &bytes)) return false;
    } else if (!skip_json_value(reader)) {
      return false;
    }
  }
  if (!members.is_over || !has_type || !has_value) return false;
  if (argument->is_number) return bytes.empty() && set_number(number, argument);
  if (!is_value_of_type(*argument)) return false;
  if (bytes.empty()) return true;
  const bool is_same = repaired(bytes) == argument->value && argument->type == "string";
  argument->value = bytes;
  return is_same;
}

static bool read_arguments(json_reader_t* reader, incident_t* incident) {
  incident->arguments.clear();
  json_items_t elements = begin_json_items(reader, '[');
  while (next_json_element(reader, &elements))
    if (!read_argument(reader, &incident->arguments.emplace_back())) return false;
  return elements.is_over;
}

/* ---- Members ------------------------------------------------------------------------------------------------------- */

static bool read_object(json_reader_t* reader, std::span<const field_t> fields, incident_t* incident);

static bool read_field(json_reader_t* reader, const field_t& field, incident_t* incident) {
  int64_t microseconds = 0;
  switch (field.kind) {
    case kind_t::TEXT:
      return read_json_string(reader, &(incident->*field.text));
    case kind_t::ID:
      (incident->*field.text).clear();
      return read_json_word(reader, "null") ||
             (read_json_string(reader, &(incident->*field.text)) && is_eid_text(incident->*field.text));
    case kind_t::NUMBER:
      return read_number(reader, &(incident->*field.number));
    case kind_t::OFFSET:
      return read_number(reader, &incident->offset) && incident->offset >= 0;
    case kind_t::TIME:
      if (!read_time(reader, &microseconds)) return false;
      incident->time = microseconds / SECOND;
      return incident->time * SECOND == microseconds && incident->time == static_cast<int32_t>(incident->time);
    case kind_t::ID_TIME:
      return read_time(reader, &incident->id_time) && incident->id_time >= 0 &&
             incident->id_time / SECOND < (int64_t{1} << (6 * ZK_SECONDS_WIDTH)) + 17; /* what an Error ID can hold */
    case kind_t::NODE:
      return read_json_string(reader, &incident->node) && is_address(incident->node);
    case kind_t::CUT:
      incident->is_cut = true;
      return read_json_word(reader, "true");
    case kind_t::OBJECT:
      return read_object(reader, field.fields, incident);
    default:
      return read_arguments(reader, incident);
  }
}

/* The members of an object that have been read, a bit for each. */
using members_t = uint32_t;
static members_t all_of(std::span<const field_t> fields) {
  return (members_t{1} << fields.size()) - 1;
}

/* The place of the field `key`, which most often is the next one; that of none behind them all. */
static size_t find_field(std::span<const field_t> fields, std::string_view key, size_t next) {
  if (next < fields.size() && fields[next].key == key) return next;
  size_t index = 0;
  while (index < fields.size() && fields[index].key != key) ++index;
  return index;
}

/* An object that is being read. */
struct object_t {
  std::span<const field_t> fields;
  members_t members = 0; /* that have been read */
  size_t next = 0;       /* the field that is expected */
  struct original_t {
    std::string incident_t::*text;
    std::string bytes; /* that the text stands for */
  };
  std::vector<original_t> originals = {};
};

/* Reads the value of a member that is none of the fields: the bytes of a text, or something that was added. */
static bool read_other(json_reader_t* reader, std::string_view key, object_t* object) {
  static constexpr std::string_view BYTES = "_base64";
  const std::string_view text = key.ends_with(BYTES) ? key.substr(0, key.size() - BYTES.size()) : "";
  const size_t index = find_field(object->fields, text, 0);
  if (index == object->fields.size() || object->fields[index].text == nullptr) return skip_json_value(reader);
  object->originals.push_back({object->fields[index].text, ""});
  return read_bytes(reader, &object->originals.back().bytes);
}

static bool read_member(json_reader_t* reader, std::string_view key, object_t* object, incident_t* incident) {
  const size_t index = find_field(object->fields, key, object->next);
  if (index == object->fields.size()) return read_other(reader, key, object);
  const members_t member = members_t{1} << index;
  if ((object->members & member) != 0) return false;
  object->members |= member;
  object->next = index + 1;
  return read_field(reader, object->fields[index], incident);
}

/* Puts bytes in the place of the texts that stand for them. */
static bool restore_bytes(const object_t& object, incident_t* incident) {
  for (const object_t::original_t& original : object.originals) {
    std::string& text = incident->*original.text;
    if (text != repaired(original.bytes)) return false;
    text = original.bytes;
  }
  return true;
}

static bool read_object(json_reader_t* reader, std::span<const field_t> fields, incident_t* incident) {
  object_t object = {.fields = fields};
  std::string key;
  json_items_t members = begin_json_items(reader, '{');
  while (next_json_member(reader, &members, &key))
    if (!read_member(reader, key, &object, incident)) return false;
  return members.is_over && object.members == all_of(fields) && restore_bytes(object, incident);
}

/* ---- Lines --------------------------------------------------------------------------------------------------------- */

static bool read_damage(json_reader_t* reader, damage_t* damage) {
  std::string key, name;
  *damage = {};
  json_items_t members = begin_json_items(reader, '{');
  while (next_json_member(reader, &members, &key)) {
    const bool is_read = key == "code"   ? damage->code == 0 && read_number(reader, &damage->code)
                         : key == "name" ? name.empty() && read_json_string(reader, &name)
                         : key == "offset"
                             ? damage->offset < 0 && read_number(reader, &damage->offset) && damage->offset >= 0
                         : key == "reason" ? damage->reason.empty() && read_json_string(reader, &damage->reason)
                                           : skip_json_value(reader);
    if (!is_read) return false;
  }
  return members.is_over && damage->code < 0 && !name.empty() && name == zk_result_name(damage->code) &&
         !damage->reason.empty();
}

/* Whether the line has the time that its Error ID says; the node may be known without one. */
static bool is_time_of_id(const incident_t& incident) {
  int64_t id_time = 0;
  const bool has_time = time_of_id(incident.id, &id_time);
  if (incident.id_time == NO_ID_TIME) return !has_time || incident.node.empty();
  return has_time && id_time == incident.id_time;
}

/* What a line is by its members. */
static line_kind_t line_of(const object_t& line, bool is_gap, bool is_damage) {
  auto member = [&](std::string_view key) { return members_t{1} << find_field(line.fields, key, 0); };
  const members_t needed = line.members | member("cut");
  const members_t missing =
      all_of(line.fields) & ~needed; /* what comes of an Error ID: a node may be known without one */
  const bool is_whole = missing == 0 || missing == member("id_time") || missing == (member("id_time") | member("node"));
  const bool is_stack = line.members == member("stack");
  if (!is_gap && !is_damage && is_whole) return line_kind_t::INCIDENT;
  if (is_gap != is_damage && is_stack) return is_gap ? line_kind_t::GAP : line_kind_t::DAMAGE;
  return line_kind_t::NOTHING;
}

line_kind_t parse_json_line(std::string_view text, incident_t* incident, damage_t* damage) {
  json_reader_t reader = {text};
  object_t line = {.fields = INCIDENT_FIELDS};
  std::string key;
  bool is_gap = false, is_damage = false;
  incident->node.clear();
  incident->id_time = NO_ID_TIME;
  incident->is_cut = false;
  json_items_t members = begin_json_items(&reader, '{');
  while (next_json_member(&reader, &members, &key)) {
    bool is_read = false;
    if (key == "gap")
      is_read = !is_gap && (is_gap = read_json_word(&reader, "true"));
    else if (key == "error")
      is_read = !is_damage && (is_damage = read_damage(&reader, damage));
    else
      is_read = read_member(&reader, key, &line, incident);
    if (!is_read) return line_kind_t::NOTHING;
  }
  if (!members.is_over || !is_json_over(&reader) || !restore_bytes(line, incident)) return line_kind_t::NOTHING;
  const line_kind_t kind = line_of(line, is_gap, is_damage);
  return kind != line_kind_t::INCIDENT || is_time_of_id(*incident) ? kind : line_kind_t::NOTHING;
}
