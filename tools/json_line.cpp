/* SPDX-License-Identifier: MIT */
/* json_line.cpp - writes lines of JSON that no recorded byte can break. */
#include "json_line.h"

#include "text.h"

void put_text(json_writer_t* writer, std::string_view key, std::string_view text) {
  put_key(writer, key);
  if (is_utf8(text)) {
    put_string(writer, text);
    return;
  }
  put_string(writer, repaired(text));
  put_key(writer, std::string(key) + "_base64");
  put_string(writer, base64(text));
}

void append_json(const rapidjson::StringBuffer& buffer, std::string* lines) {
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
