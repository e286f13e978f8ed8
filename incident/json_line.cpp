/* SPDX-License-Identifier: MIT */
/* json_line.cpp - writes incidents as lines of JSON. */
#include "json_line.h"

#include "json_fields.h"
#include "json_writer.h"
#include "utc_time.h"

static void put_argument(json_writer_t* writer, const argument_t& argument) {
  begin_json(writer, '{');
  put_text(writer, "type", argument.type);
  if (argument.is_number)
    put_word(writer, "value", argument.value);
  else
    put_text(writer, "value", argument.value);
  end_json(writer, '}');
}

static void put_field(json_writer_t* writer, const field_t& field, const incident_t& incident) {
  switch (field.kind) {
    case kind_t::TEXT:
      return put_text(writer, field.key, incident.*field.text);
    case kind_t::ID:
      if ((incident.*field.text).empty()) return put_word(writer, field.key, "null");
      return put_text(writer, field.key, incident.*field.text);
    case kind_t::NUMBER:
      return put_number(writer, field.key, incident.*field.number);
    case kind_t::OFFSET:
      return put_number(writer, field.key, incident.offset);
    case kind_t::TIME:
      return put_text(writer, field.key, utc_time(incident.time));
    case kind_t::ID_TIME:
      if (incident.id_time == NO_ID_TIME) return;
      return put_text(writer, field.key, utc_time_of_microseconds(incident.id_time));
    case kind_t::NODE:
      if (!incident.node.empty()) put_text(writer, field.key, incident.node);
      return;
    case kind_t::CUT:
      if (incident.is_cut) put_word(writer, field.key, "true");
      return;
    case kind_t::OBJECT:
      put_key(writer, field.key);
      begin_json(writer, '{');
      for (const field_t& member : field.fields) put_field(writer, member, incident);
      return end_json(writer, '}');
    case kind_t::ARGUMENTS:
      put_key(writer, field.key);
      begin_json(writer, '[');
      for (const argument_t& argument : incident.arguments) put_argument(writer, argument);
      end_json(writer, ']');
  }
}

void write_json(const incident_t& incident, std::string* lines) {
  json_writer_t writer = begin_json_line(lines);
  for (const field_t& field : INCIDENT_FIELDS) put_field(&writer, field, incident);
  end_json_line(&writer);
}

void write_json_gap(const std::string& stack, std::string* lines) {
  json_writer_t writer = begin_json_line(lines);
  put_text(&writer, "stack", stack);
  put_word(&writer, "gap", "true");
  end_json_line(&writer);
}

void write_json_damage(const std::string& stack, const damage_t& damage, std::string* lines) {
  json_writer_t writer = begin_json_line(lines);
  put_text(&writer, "stack", stack);
  put_key(&writer, "error");
  begin_json(&writer, '{');
  put_number(&writer, "code", damage.code);
  put_text(&writer, "name", zk_result_name(damage.code));
  if (damage.offset >= 0) put_number(&writer, "offset", damage.offset);
  put_text(&writer, "reason", damage.reason);
  end_json(&writer, '}');
  end_json_line(&writer);
}
