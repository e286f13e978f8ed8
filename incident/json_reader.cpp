/* SPDX-License-Identifier: MIT */
/* json_reader.cpp - reads a line of JSON piece by piece. */
#include "json_reader.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <utility>

#include "text.h"

char peek_json(json_reader_t* reader) {
  std::string_view& rest = reader->rest;
  while (!rest.empty() && (rest[0] == ' ' || rest[0] == '\t' || rest[0] == '\r' || rest[0] == '\n'))
    rest.remove_prefix(1);
  return rest.empty() ? '\0' : rest[0];
}

/* Reads a mark: a bracket, a colon, a comma or a quote. */
static bool read_mark(json_reader_t* reader, char mark) {
  if (peek_json(reader) != mark) return false;
  reader->rest.remove_prefix(1);
  return true;
}

bool read_json_word(json_reader_t* reader, std::string_view word) {
  peek_json(reader);
  if (!reader->rest.starts_with(word)) return false;
  reader->rest.remove_prefix(word.size());
  return true;
}

bool is_json_over(json_reader_t* reader) {
  return peek_json(reader) == '\0' && reader->rest.empty();
}

json_items_t begin_json_items(json_reader_t* reader, char bracket) {
  const char end = bracket == '{' ? '}' : ']';
  return {.end = read_mark(reader, bracket) ? end : '\0', .is_first = true, .is_over = false};
}

bool next_json_element(json_reader_t* reader, json_items_t* elements) {
  if (elements->end == '\0') return false;
  elements->is_over = read_mark(reader, elements->end);
  if (elements->is_over) return false;
  const bool is_first = std::exchange(elements->is_first, false);
  return is_first || read_mark(reader, ',');
}

bool next_json_member(json_reader_t* reader, json_items_t* members, std::string* key) {
  return next_json_element(reader, members) && read_json_string(reader, key) && read_mark(reader, ':');
}

/* ---- Texts --------------------------------------------------------------------------------------------------------- */

/* Reads the four digits of "\uXXXX", a 16-bit unit of the text. */
static bool read_unit(std::string_view* rest, uint32_t* unit) {
  constexpr size_t DIGITS = 4;
  if (rest->size() < DIGITS) return false;
  const char* const digits = rest->data();
  const auto [end, error] = std::from_chars(digits, digits + DIGITS, *unit, 16);
  if (end != digits + DIGITS || *digits == '-') return false;
  rest->remove_prefix(DIGITS);
  return true;
}

/* Reads the character of an escape whose "\u" has been read. */
static bool read_unicode(std::string_view* rest, std::string* text) {
  uint32_t code = 0, low = 0;
  if (!read_unit(rest, &code) || code == 0 || (code >= 0xDC00 && code <= 0xDFFF)) return false;
  if (code >= 0xD800 && code <= 0xDBFF) { /* the first of two units */
    if (!rest->starts_with("\\u")) return false;
    rest->remove_prefix(2);
    if (!read_unit(rest, &low) || low < 0xDC00 || low > 0xDFFF) return false;
    code = 0x10000 + ((code - 0xD800) << 10 | (low - 0xDC00));
  }
  append_utf8(text, code);
  return true;
}

static bool read_escape(std::string_view* rest, std::string* text) {
  static constexpr std::string_view LETTERS = "\"\\/bfnrt", CHARACTERS = "\"\\/\b\f\n\r\t";
  if (rest->empty()) return false;
  const char letter = (*rest)[0];
  rest->remove_prefix(1);
  if (letter == 'u') return read_unicode(rest, text);
  const size_t found = LETTERS.find(letter);
  if (found == LETTERS.npos) return false;
  *text += CHARACTERS[found];
  return true;
}

/* The bytes that stand for themselves and are a character each, as nearly all of a text are. */
static constexpr std::array<bool, 256> PLAIN = [] {
  std::array<bool, 256> is_plain = {};
  for (size_t byte = ' '; byte < 0x80; ++byte) is_plain[byte] = byte != '"' && byte != '\\';
  return is_plain;
}();

/* How much of the text stands as it is: up to its end, an escape, or what must not stand there. */
static size_t plain_size(std::string_view text) {
  for (size_t at = 0;;) {
    while (at < text.size() && PLAIN[static_cast<unsigned char>(text[at])]) ++at;
    if (at == text.size() || static_cast<unsigned char>(text[at]) < 0x80) return at;
    const character_t character = character_at(text, at);
    if (!character.is_well_formed) return at;
    at += character.size;
  }
}

bool read_json_string(json_reader_t* reader, std::string* text) {
  text->clear();
  if (!read_mark(reader, '"')) return false;
  std::string_view& rest = reader->rest;
  for (;;) {
    const size_t size = plain_size(rest);
    text->append(rest.substr(0, size));
    rest.remove_prefix(size);
    if (rest.empty() || (rest[0] != '"' && rest[0] != '\\')) return false;
    const bool is_end = rest[0] == '"';
    rest.remove_prefix(1);
    if (is_end) return true;
    if (!read_escape(&rest, text)) return false;
  }
}

/* ---- Other values -------------------------------------------------------------------------------------------------- */

static size_t digits_at(std::string_view text, size_t at) {
  const size_t end = text.find_first_not_of("0123456789", at);
  return (end == text.npos ? text.size() : end) - at;
}

bool read_json_number(json_reader_t* reader, std::string_view* number) {
  peek_json(reader);
  const std::string_view text = reader->rest;
  size_t at = text.starts_with('-') ? 1 : 0;
  const size_t whole = digits_at(text, at);
  if (whole == 0 || (whole > 1 && text[at] == '0')) return false;
  at += whole;
  if (text.substr(at).starts_with('.')) {
    const size_t fraction = digits_at(text, ++at);
    if (fraction == 0) return false;
    at += fraction;
  }
  if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
    ++at;
    if (at < text.size() && (text[at] == '-' || text[at] == '+')) ++at;
    const size_t exponent = digits_at(text, at);
    if (exponent == 0) return false;
    at += exponent;
  }
  *number = text.substr(0, at);
  reader->rest.remove_prefix(at);
  return true;
}

static bool skip_value(json_reader_t* reader, int levels) {
  std::string text;
  std::string_view number;
  const char first = peek_json(reader);
  if (first == '"') return read_json_string(reader, &text);
  if (first != '{' && first != '[')
    return read_json_word(reader, "null") || read_json_word(reader, "true") || read_json_word(reader, "false") ||
           read_json_number(reader, &number);
  if (levels == 0) return false;
  json_items_t items = begin_json_items(reader, first);
  while (first == '{' ? next_json_member(reader, &items, &text) : next_json_element(reader, &items))
    if (!skip_value(reader, levels - 1)) return false;
  return items.is_over;
}

bool skip_json_value(json_reader_t* reader) {
  constexpr int LEVELS_MAX = 16;
  return skip_value(reader, LEVELS_MAX);
}
