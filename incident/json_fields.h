/* SPDX-License-Identifier: MIT */
/* json_fields.h - the members of a line of JSON that holds an incident, in the order in which they are written. */
#pragma once

#include <span>
#include <string_view>

#include "incident.h"

enum class kind_t {
  TEXT,
  ID,      /* a text, or null for an empty one */
  NUMBER,  /* of 32 bits */
  OFFSET,  /* of the record */
  TIME,    /* that was recorded */
  ID_TIME, /* that of the Error ID, and */
  NODE,    /* its address: both are left out where it cannot be decoded, but the node may be known all the same */
  CUT,     /* true, or left out */
  OBJECT,
  ARGUMENTS
};

struct field_t {
  std::string_view key;
  kind_t kind;
  std::string incident_t::*text = nullptr;
  int32_t incident_t::*number = nullptr;
  std::span<const field_t> fields = {}; /* of an object */
};

inline constexpr field_t PROCESS_FIELDS[] = {
    {.key = "name", .kind = kind_t::TEXT, .text = &incident_t::process},
    {.key = "id", .kind = kind_t::NUMBER, .number = &incident_t::process_id},
    {.key = "parent", .kind = kind_t::NUMBER, .number = &incident_t::parent_id},
    {.key = "thread", .kind = kind_t::NUMBER, .number = &incident_t::thread_id},
};
inline constexpr field_t SOURCE_FIELDS[] = {
    {.key = "file", .kind = kind_t::TEXT, .text = &incident_t::file},
    {.key = "version", .kind = kind_t::TEXT, .text = &incident_t::file_version},
    {.key = "product", .kind = kind_t::TEXT, .text = &incident_t::product},
    {.key = "line", .kind = kind_t::NUMBER, .number = &incident_t::line},
};
inline constexpr field_t MESSAGE_FIELDS[] = {
    {.key = "catalog", .kind = kind_t::TEXT, .text = &incident_t::catalog},
    {.key = "set", .kind = kind_t::NUMBER, .number = &incident_t::message_set},
    {.key = "number", .kind = kind_t::NUMBER, .number = &incident_t::message_number},
    {.key = "default", .kind = kind_t::TEXT, .text = &incident_t::default_message},
    {.key = "arguments", .kind = kind_t::ARGUMENTS},
};
inline constexpr field_t INCIDENT_FIELDS[] = {
    {.key = "stack", .kind = kind_t::TEXT, .text = &incident_t::stack},
    {.key = "offset", .kind = kind_t::OFFSET},
    {.key = "id", .kind = kind_t::ID, .text = &incident_t::id},
    {.key = "cause", .kind = kind_t::ID, .text = &incident_t::cause},
    {.key = "time", .kind = kind_t::TIME},
    {.key = "id_time", .kind = kind_t::ID_TIME},
    {.key = "node", .kind = kind_t::NODE, .text = &incident_t::node},
    {.key = "process", .kind = kind_t::OBJECT, .fields = PROCESS_FIELDS},
    {.key = "source", .kind = kind_t::OBJECT, .fields = SOURCE_FIELDS},
    {.key = "message", .kind = kind_t::OBJECT, .fields = MESSAGE_FIELDS},
    {.key = "description", .kind = kind_t::TEXT, .text = &incident_t::description},
    {.key = "cut", .kind = kind_t::CUT},
    {.key = "details", .kind = kind_t::TEXT, .text = &incident_t::details},
};
