/* json.cpp - writes lines of JSON, one object each, with their keys in a fixed order. */
#include "json.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "text.h"
#include "zk_trace.h"

/* The line that is being written. */
using buffer_t = rapidjson::StringBuffer;
using writer_t = rapidjson::Writer<buffer_t>;

static void put_key(writer_t* writer, std::string_view key) {
  writer->Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

static void put_string(writer_t* writer, std::string_view text) {
  writer->String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

static void put_number(writer_t* writer, std::string_view key, int64_t number) {
  put_key(writer, key);
  writer->Int64(number);
}

/* A recorded text; one that is not UTF-8 also by its bytes. */
static void put_text(writer_t* writer, std::string_view key, std::string_view text) {
  put_key(writer, key);
  if (is_utf8(text)) {
    put_string(writer, text);
    return;
  }
  put_string(writer, repaired(text));
  put_key(writer, std::string(key) + "_base64");
  put_string(writer, base64(text));
}

static void put_text_or_null(writer_t* writer, std::string_view key, std::string_view text) {
  if (!text.empty()) {
    put_text(writer, key, text);
    return;
  }
  put_key(writer, key);
  writer->Null();
}

static void put_argument(writer_t* writer, const argument_t& argument) {
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

static void put_incident(writer_t* writer, const incident_t& incident) {
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

/* Appends the object in `buffer` as a line. Control characters that JSON lets pass, DEL and those from U+0080 on, are
 * escaped: the line may go to a terminal. */
static void append_line(const buffer_t& buffer, std::string* lines) {
  static constexpr char DIGITS[] = "0123456789abcdef";
  const std::string_view line(buffer.GetString(), buffer.GetSize());
  const bool has_controls = line.find('\x7F') != line.npos || line.find('\xC2') != line.npos; /* or may have */
  size_t written = 0;
  for (size_t at = 0; has_controls && at < line.size();) {
    const character_t character = character_at(line, at);
    if (character.code >= 0x7F && character.code < 0xA0) {
      *lines += line.substr(written, at - written);
      *lines += {'\\', 'u', '0', '0', DIGITS[character.code >> 4], DIGITS[character.code & 0xF]};
      written = at + character.size;
    }
    at += character.size;
  }
  *lines += line.substr(written);
  *lines += '\n';
}

template <typename Put>
static void append_object(std::string* lines, Put put) {
  static buffer_t buffer;
  buffer.Clear();
  writer_t writer(buffer);
  writer.StartObject();
  put(&writer);
  writer.EndObject();
  append_line(buffer, lines);
}

void write_json(const incident_t& incident, std::string* lines) {
  append_object(lines, [&](writer_t* writer) { put_incident(writer, incident); });
}

void write_json_gap(const std::string& stack, std::string* lines) {
  append_object(lines, [&](writer_t* writer) {
    put_text(writer, "stack", stack);
    put_key(writer, "gap");
    writer->Bool(true);
  });
}

void write_json_trouble(const std::string& stack, const trouble_t& trouble, std::string* lines) {
  append_object(lines, [&](writer_t* writer) {
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
