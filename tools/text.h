/* SPDX-License-Identifier: MIT */
/* text.h - recorded texts for formats that are UTF-8, whatever was recorded. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD"; /* U+FFFD */

/* A character of a text, or the longest run of bytes that could have begun one. */
struct character_t {
  size_t size;   /* in bytes, 0 at the end of the text */
  char32_t code; /* U+FFFD where it is ill-formed */
  bool is_well_formed;
};

/* The character at `position` of a text. */
character_t character_at(std::string_view text, size_t position);

bool is_utf8(std::string_view text);

/* The text with U+FFFD for each maximal ill-formed part. */
std::string repaired(std::string_view text);

/* The same, also for control characters, and for what XML has no place for; newline and tab stay. */
std::string readable(std::string_view text);

/* Whether a character turns the direction of the text around it, as U+202E does: a terminal would show another text than
 * was recorded. */
bool turns_text(char32_t code);

/* Appends the character `code`, which has to be one. */
void append_utf8(std::string* text, uint32_t code);

std::string base64(std::string_view bytes);

/* The bytes of what base64 gives; false for any other text. */
bool bytes_of_base64(std::string_view text, std::string* bytes);
