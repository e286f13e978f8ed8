/* SPDX-License-Identifier: MIT */
/* text.cpp - checks and repairs recorded texts. */
#include "text.h"

/* ---- UTF-8 --------------------------------------------------------------------------------------------------------- */

/* First bytes of characters of several bytes, with what may follow them at once; the bytes behind that are 80 to BF. */
struct sequence_t {
  uint8_t first, last; /* first byte of the character */
  uint8_t second, second_last;
  uint8_t size;
  uint8_t bits; /* of the first byte that are part of the code */
};
static constexpr sequence_t SEQUENCES[] = {{0xC2, 0xDF, 0x80, 0xBF, 2, 0x1F}, {0xE0, 0xE0, 0xA0, 0xBF, 3, 0x0F},
                                           {0xE1, 0xEC, 0x80, 0xBF, 3, 0x0F}, {0xED, 0xED, 0x80, 0x9F, 3, 0x0F},
                                           {0xEE, 0xEF, 0x80, 0xBF, 3, 0x0F}, {0xF0, 0xF0, 0x90, 0xBF, 4, 0x07},
                                           {0xF1, 0xF3, 0x80, 0xBF, 4, 0x07}, {0xF4, 0xF4, 0x80, 0x8F, 4, 0x07}};

character_t character_at(std::string_view text, size_t position) {
  auto byte = [&](size_t index) { return static_cast<uint8_t>(text[position + index]); };
  const size_t left = text.size() - position;
  if (left == 0) return {0, 0, true};
  if (byte(0) < 0x80) return {1, byte(0), true};

  for (const sequence_t& sequence : SEQUENCES) {
    if (byte(0) < sequence.first || byte(0) > sequence.last) continue;
    char32_t code = byte(0) & sequence.bits;
    size_t size = 1;
    for (; size < sequence.size && size < left; ++size) {
      const uint8_t low = size == 1 ? sequence.second : 0x80;
      const uint8_t high = size == 1 ? sequence.second_last : 0xBF;
      if (byte(size) < low || byte(size) > high) break;
      code = code << 6 | (byte(size) & 0x3FU);
    }
    if (size == sequence.size) return {size, code, true};
    return {size, 0xFFFD, false};
  }
  return {1, 0xFFFD, false};
}

bool is_utf8(std::string_view text) {
  for (size_t at = 0; at < text.size();) {
    if (static_cast<uint8_t>(text[at]) < 0x80) {
      ++at;
      continue;
    }
    const character_t character = character_at(text, at);
    if (!character.is_well_formed) return false;
    at += character.size;
  }
  return true;
}

void append_utf8(std::string* text, uint32_t code) {
  static constexpr uint32_t LEADS[] = {0, 0xC0, 0xE0, 0xF0};
  const int following = code < 0x80 ? 0 : code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
  *text += static_cast<char>(LEADS[following] | code >> (6 * following));
  for (int left = following - 1; left >= 0; --left) *text += static_cast<char>(0x80 | (code >> (6 * left) & 0x3F));
}

/* The text with `substitute` for the characters that `is_bad` says. */
template <typename Check>
static std::string without(std::string_view text, std::string_view substitute, Check is_bad) {
  std::string made;
  made.reserve(text.size());
  for (size_t at = 0; at < text.size();) {
    const character_t character = character_at(text, at);
    if (is_bad(character))
      made += substitute;
    else
      made += text.substr(at, character.size);
    at += character.size;
  }
  return made;
}

std::string repaired(std::string_view text) {
  return without(text, REPLACEMENT, [](const character_t& character) { return !character.is_well_formed; });
}

static bool is_control(const character_t& character) {
  return character.code < 0x20 || (character.code >= 0x7F && character.code < 0xA0);
}

bool turns_text(char32_t code) {
  return code == 0x061C || code == 0x200E || code == 0x200F || (code >= 0x202A && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

std::string readable(std::string_view text) {
  return without(text, REPLACEMENT, [](const character_t& character) {
    const bool is_layout = character.code == '\n' || character.code == '\t';
    const bool is_noncharacter =
        (character.code & 0xFFFE) == 0xFFFE || (character.code >= 0xFDD0 && character.code <= 0xFDEF);
    return !character.is_well_formed || is_noncharacter || (is_control(character) && !is_layout);
  });
}

/* ---- Bytes --------------------------------------------------------------------------------------------------------- */

static constexpr std::string_view DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string base64(std::string_view bytes) {
  std::string text;
  for (size_t at = 0; at < bytes.size(); at += 3) {
    const std::string_view group = bytes.substr(at, 3);
    uint32_t bits = 0;
    for (size_t index = 0; index < 3; ++index)
      bits = bits << 8 | (index < group.size() ? static_cast<uint8_t>(group[index]) : 0U);
    for (size_t digit = 0; digit < 4; ++digit) /* one digit more than there are bytes; the rest is padding */
      text += digit <= group.size() ? DIGITS[bits >> (18 - 6 * digit) & 0x3F] : '=';
  }
  return text;
}

bool bytes_of_base64(std::string_view text, std::string* bytes) {
  bytes->clear();
  uint32_t bits = 0;
  int count = 0; /* of bits that are no byte yet */
  for (char digit : text.substr(0, text.find('='))) {
    const size_t value = DIGITS.find(digit);
    if (value == DIGITS.npos) return false;
    bits = bits << 6 | static_cast<uint32_t>(value);
    count += 6;
    if (count < 8) continue;
    count -= 8;
    *bytes += static_cast<char>(bits >> count & 0xFF);
  }
  return base64(*bytes) == text;
}
