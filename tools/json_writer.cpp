/* SPDX-License-Identifier: MIT */
/* json_writer.cpp - writes lines of JSON. */
#include "json_writer.h"

#include <array>
#include <charconv>

#include "text.h"

static void separate(json_writer_t* writer) {
  if (!writer->is_first) *writer->lines += ',';
  writer->is_first = false;
}

void begin_json(json_writer_t* writer, char bracket) {
  separate(writer);
  *writer->lines += bracket;
  writer->is_first = true;
}

void end_json(json_writer_t* writer, char bracket) {
  *writer->lines += bracket;
  writer->is_first = false;
}

json_writer_t begin_json_line(std::string* lines) {
  json_writer_t writer = {lines, true};
  begin_json(&writer, '{');
  return writer;
}

void end_json_line(json_writer_t* writer) {
  end_json(writer, '}');
  *writer->lines += '\n';
}

void put_key(json_writer_t* writer, std::string_view key) {
  separate(writer);
  ((*writer->lines += '"') += key) += "\":";
  writer->is_first = true;
}

/* Writes a control character, or one that ends a text. */
static void put_escape(std::string* line, char32_t code) {
  static constexpr char UPPER[] = "0123456789ABCDEF", LOWER[] = "0123456789abcdef";
  static constexpr std::string_view CODES = "\"\\\b\f\n\r\t", LETTERS = "\"\\bfnrt";
  const char* const digits = code < 0x20 ? UPPER : LOWER; /* as they always were: lines are compared as text, too */
  const size_t found = code < 0x80 ? CODES.find(static_cast<char>(code)) : CODES.npos;
  if (found != CODES.npos)
    *line += {'\\', LETTERS[found]};
  else
    *line += {'\\', 'u', '0', '0', digits[code >> 4], digits[code & 0xF]};
}

/* What may need an escape: the first byte of U+0080 to U+009F does not always. */
static bool may_need_escape(char character) {
  const auto byte = static_cast<unsigned char>(character);
  return byte < 0x20 || byte == '"' || byte == '\\' || byte == 0x7F || byte == 0xC2;
}

void put_string(json_writer_t* writer, std::string_view text) {
  separate(writer);
  std::string* const line = writer->lines;
  *line += '"';
  size_t written = 0;
  for (size_t at = 0; at < text.size(); ++at) {
    if (!may_need_escape(text[at])) continue;
    const character_t character = character_at(text, at);
    if (character.code >= 0xA0) continue;
    *line += text.substr(written, at - written);
    put_escape(line, character.code);
    written = at + character.size;
    at = written - 1;
  }
  *line += text.substr(written);
  *line += '"';
}

void put_word(json_writer_t* writer, std::string_view key, std::string_view word) {
  put_key(writer, key);
  *writer->lines += word;
  writer->is_first = false;
}

void put_number(json_writer_t* writer, std::string_view key, int64_t number) {
  std::array<char, 24> digits;
  const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
  put_word(writer, key, {digits.data(), static_cast<size_t>(end - digits.data())});
}

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
