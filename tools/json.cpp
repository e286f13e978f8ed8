/* SPDX-License-Identifier: MIT */
/* json.cpp - writes incidents as lines of JSON, with their keys in a fixed order. */
#include "json.h"

#include "json_line.h"
#include "utc_time.h"
#include "zk_trace.h"

static void put_text_or_null(json_writer_t* writer, std::string_view key, std::string_view text) {
  if (!text.empty()) {
    put_text(writer, key, text);
    return;
  }
  put_key(writer, key);
  writer->Null();
}

static void put_argument(json_writer_t* writer, const argument_t& argument) {
  writer->StartObject();
  put_text(writer, "type", argument.type);
  if (argument.is_number) {
    put_key(writer, "value");
    writer->RawValue(argument.value.data(), argument.value.size(), rapidjson::kNumberType);
  } else {
    put_text(writer, "value", argument.value);
  }
  writer->EndObject();
}

static void put_incident(json_writer_t* writer, const incident_t& incident) {
  put_text(writer, "stack", incident.stack);
  put_number(writer, "offset", incident.offset);
  put_text_or_null(writer, "id", incident.id);
  put_text_or_null(writer, "cause", incident.cause);
  put_text(writer, "time", utc_time(incident.time));
  if (!incident.node.empty()) {
    put_text(writer, "id_time", utc_time_of_microseconds(incident.id_time));
    put_text(writer, "node", incident.node);
  }
  put_key(writer, "process");
  writer->StartObject();
  put_text(writer, "name", incident.process);
  put_number(writer, "id", incident.process_id);
  put_number(writer, "parent", incident.parent_id);
  put_number(writer, "thread", incident.thread_id);
  writer->EndObject();
  put_key(writer, "source");
  writer->StartObject();
  put_text(writer, "file", incident.file);
  put_text(writer, "version", incident.file_version);
  put_text(writer, "product", incident.product);
  put_number(writer, "line", incident.line);
  writer->EndObject();
  put_key(writer, "message");
  writer->StartObject();
  put_text(writer, "catalog", incident.catalog);
  put_number(writer, "set", incident.message_set);
  put_number(writer, "number", incident.message_number);
  put_text(writer, "default", incident.default_message);
  put_key(writer, "arguments");
  writer->StartArray();
  for (const argument_t& argument : incident.arguments) put_argument(writer, argument);
  writer->EndArray();
  writer->EndObject();
  put_text(writer, "description", incident.description);
  put_text(writer, "details", incident.details);
}

void write_json(const incident_t& incident, std::string* lines) {
  append_json_line(lines, [&](json_writer_t* writer) { put_incident(writer, incident); });
}

void write_json_gap(const std::string& stack, std::string* lines) {
  append_json_line(lines, [&](json_writer_t* writer) {
    put_text(writer, "stack", stack);
    put_key(writer, "gap");
    writer->Bool(true);
  });
}

void write_json_trouble(const std::string& stack, const trouble_t& trouble, std::string* lines) {
  append_json_line(lines, [&](json_writer_t* writer) {
    put_text(writer, "stack", stack);
    put_key(writer, "error");
    writer->StartObject();
    put_number(writer, "code", trouble.code);
    put_text(writer, "name", zk_result_name(trouble.code));
    if (trouble.offset >= 0) put_number(writer, "offset", trouble.offset);
    put_text(writer, "reason", trouble.reason);
    writer->EndObject();
  });
}
