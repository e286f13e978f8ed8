/* SPDX-License-Identifier: MIT */
/* json_line.h - writing lines of JSON, an object each. */
#ifndef JSON_LINE_H
#define JSON_LINE_H

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <cstdint>
#include <string>
#include <string_view>

using json_writer_t = rapidjson::Writer<rapidjson::StringBuffer>;

inline void put_key(json_writer_t* writer, std::string_view key) {
  writer->Key(key.data(), static_cast<rapidjson::SizeType>(key.size()));
}

/* A text that is UTF-8. */
inline void put_string(json_writer_t* writer, std::string_view text) {
  writer->String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
}

inline void put_number(json_writer_t* writer, std::string_view key, int64_t number) {
  put_key(writer, key);
  writer->Int64(number);
}

/* A recorded text; one that is not UTF-8 also by its bytes. */
void put_text(json_writer_t* writer, std::string_view key, std::string_view text);

/* Appends what has been written as a line. Control characters that JSON lets pass are escaped too: the line may go to a
 * terminal. */
void append_json(const rapidjson::StringBuffer& buffer, std::string* lines);

/* Appends the object whose members `put(json_writer_t*)` writes. */
template <typename Put>
void append_json_line(std::string* lines, Put put) {
  static rapidjson::StringBuffer buffer;
  buffer.Clear();
  json_writer_t writer(buffer);
  writer.StartObject();
  put(&writer);
  writer.EndObject();
  append_json(buffer, lines);
}

#endif
