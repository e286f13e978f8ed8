/* SPDX-License-Identifier: MIT */
/* description.cpp - parses a format and its arguments as printf(1) does. */
#include "description.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "cu_format.h"
#include "message.h"
#include "text.h"

/* ---- Escapes ----------------------------------------------------------------------------------------------------- */

/* An escape that is a number: its letter, its digits, and their base. */
struct numeric_escape_t {
  char letter; /* none for an octal one */
  int base;
  size_t digits_min;
  size_t digits_max;
};
static constexpr numeric_escape_t OCTAL = {'\0', 8, 1, 3};
static constexpr numeric_escape_t NUMERIC_ESCAPES[] = {{'x', 16, 1, 2}, {'u', 16, 4, 4}, {'U', 16, 8, 8}};

/* Adds a character of its own, which the text must not hold as the start of a conversion. */
static void put_byte(std::string* text, uint32_t byte) {
  *text += static_cast<char>(byte);
  if (byte == '%') *text += '%';
}

/* Parses the digits at `*at`. Returns what is wrong, or the empty text. */
static std::string parse_numeric_escape(const char** at, const numeric_escape_t& form, std::string* text) {
  static constexpr char DIGITS[] = "0123456789abcdefABCDEF";
  const std::string allowed = form.base == 8 ? "01234567" : DIGITS;
  const std::string rest = std::string(*at).substr(0, form.digits_max);
  const std::string digits = rest.substr(0, rest.find_first_not_of(allowed));
  if (digits.size() < form.digits_min) {
    const std::string escape = "\\" + std::string(1, form.letter) + rest;
    return message_text(TOOL_MSG_DIGIT_MISSING, {escape});
  }
  *at += digits.size();

  const uint32_t code = static_cast<uint32_t>(std::stoul(digits, nullptr, form.base));
  const bool is_unicode = form.digits_min > 1;
  const bool is_surrogate = code >= 0xd800 && code <= 0xdfff;
  if (is_unicode && (is_surrogate || code > 0x10ffff)) return message_text(TOOL_MSG_NO_CHARACTER, {digits});
  if (code == 0 || (!is_unicode && (code & 0xff) == 0)) return message_text(TOOL_MSG_CHARACTER_ZERO);
  if (is_unicode && code != '%')
    append_utf8(text, code);
  else
    put_byte(text, code & 0xff);
  return "";
}

/* Parses what follows the "\" of an escape; one that is none stands for itself. Returns what is wrong, or the empty
 * text. */
static std::string parse_escape(const char** at, std::string* text) {
  static constexpr std::string_view LETTERS = "abefnrtv\\\"";
  static constexpr std::string_view CHARACTERS = "\a\b\033\f\n\r\t\v\\\"";
  if (**at >= '0' && **at <= '7') return parse_numeric_escape(at, OCTAL, text);
  const char letter = **at;
  if (letter != '\0') ++*at;
  for (const numeric_escape_t& form : NUMERIC_ESCAPES)
    if (letter == form.letter) return parse_numeric_escape(at, form, text);
  if (const size_t found = LETTERS.find(letter); found != LETTERS.npos) {
    *text += CHARACTERS[found];
    return "";
  }
  *text += '\\';
  if (letter != '\0') put_byte(text, static_cast<unsigned char>(letter));
  return "";
}

/* ---- Arguments --------------------------------------------------------------------------------------------------- */

/* Whether `end`, behind what was taken of `text` as a number, is behind all of it. */
static bool is_whole(const std::string& text, const char* end) {
  return !text.empty() && end == text.c_str() + text.size();
}

static bool parse_signed(const std::string& text, int64_t low, int64_t high, int64_t* value) {
  char* end = nullptr;
  errno = 0;
  *value = std::strtoll(text.c_str(), &end, 0);
  return is_whole(text, end) && errno == 0 && *value >= low && *value <= high;
}

static bool parse_unsigned(const std::string& text, uint64_t high, uint64_t* value) {
  char* end = nullptr;
  errno = 0;
  *value = std::strtoull(text.c_str(), &end, 0);
  return is_whole(text, end) && errno == 0 && *value <= high && text.find('-') == text.npos;
}

/* A number as the user's locale writes it, or as C does. */
static bool parse_double(const std::string& text, double* value) {
  const locale_t c_locale = newlocale(LC_NUMERIC_MASK, "C", nullptr);
  char* end = nullptr;
  *value = std::strtod(text.c_str(), &end);
  if (!is_whole(text, end)) *value = strtod_l(text.c_str(), &end, c_locale);
  freelocale(c_locale);
  const bool is_named = text.find_first_of("nN") != text.npos; /* "inf" and "nan" are no overflow */
  return is_whole(text, end) && (std::isfinite(*value) || is_named);
}

/* Makes the argument of a conversion. False when it is not a number, or one that is out of range. */
static bool parse_argument(std::string* operand, char letter, cu_error_arg_t* argument) {
  auto& value = argument->cu_arg_value;
  int64_t number = 0;
  uint64_t bits = 0;
  uintptr_t address = 0;
  bool is_good = true;
  switch (argument->cu_arg_type) {
    case CU_ERROR_ARG_CHAR_STR:
      value.cu_arg_char_str = operand->data();
      return true;
    case CU_ERROR_ARG_DOUBLE:
      return parse_double(*operand, &value.cu_arg_double);
    case CU_ERROR_ARG_VOID_PTR:
      is_good = parse_unsigned(*operand, UINTPTR_MAX, &bits);
      address = static_cast<uintptr_t>(bits);
      std::memcpy(&value.cu_arg_void_ptr, &address, sizeof address);
      return is_good;
    case CU_ERROR_ARG_INT:
      if (operand->size() > 1) is_good = parse_signed(*operand, INT32_MIN, INT32_MAX, &number);
      if (operand->size() == 1) number = static_cast<unsigned char>(operand->front());
      value.cu_arg_int = static_cast<int32_t>(number);
      return is_good;
    default:
      is_good = parse_signed(*operand, INT64_MIN, INT64_MAX, &number);
      if (!is_good && letter != 'd') {
        is_good = parse_unsigned(*operand, UINT64_MAX, &bits);
        number = static_cast<int64_t>(bits);
      }
      value.cu_arg_long_long = number;
      return is_good;
  }
}

static cu_error_arg_type_t type_of(char letter) {
  static constexpr struct {
    std::string_view letters;
    cu_error_arg_type_t type;
  } TYPES[] = {{"duoxX", CU_ERROR_ARG_LONG_LONG},
               {"c", CU_ERROR_ARG_INT},
               {"aAeEfFgG", CU_ERROR_ARG_DOUBLE},
               {"p", CU_ERROR_ARG_VOID_PTR}};
  for (const auto& row : TYPES)
    if (row.letters.find(letter) != row.letters.npos) return row.type;
  return CU_ERROR_ARG_CHAR_STR;
}

/* ---- The description --------------------------------------------------------------------------------------------- */

/* Conversions of printf(1) and printf(3) that cannot be recorded, and those whose width is out of range. */
static constexpr std::string_view NOT_TAKEN = "nbqdiouxXcaAeEfFgGsp";

/* Whether it is one character of several bytes, which no integer shows again: "%c" takes it as a text. */
static bool is_wide_character(const std::string& operand) {
  const character_t character = character_at(operand, 0);
  return character.size > 1 && character.size == operand.size() && character.is_well_formed;
}

/* Parses the conversion at `*at`: into the text, and its letter as that of its argument. `letters` has a place for each
 * operand. Returns what is wrong, or the empty text. */
static std::string parse_conversion(const char** at, size_t* unnumbered, const std::vector<std::string>& operands,
                                    std::string* letters, std::string* text) {
  const char* start = *at;
  const cu_piece_t piece = cu_parse_piece(at, unnumbered);
  const std::string written(start, *at);
  *text += written;
  if (piece.kind == CU_PIECE_TEXT) return "";
  const bool is_prose = written.find(' ') != written.npos; /* as in "100% sure" */
  if (piece.kind != CU_PIECE_ARGUMENT) {
    const bool is_known = written.find('*') != written.npos || NOT_TAKEN.find(written.back()) != NOT_TAKEN.npos;
    return message_text(is_known && !is_prose ? TOOL_MSG_NOT_A_CONVERSION : TOOL_MSG_NO_CONVERSION, {written});
  }
  if (piece.argument >= operands.size())
    return message_text(is_prose ? TOOL_MSG_ARGUMENT_OF_PROSE_MISSING : TOOL_MSG_ARGUMENT_MISSING,
                        {std::to_string(piece.argument + 1), written});
  const bool is_text = piece.letter == 'c' && is_wide_character(operands[piece.argument]);
  if (is_text) text->back() = 's';
  const char wanted = is_text ? 's' : piece.letter;
  char& letter = (*letters)[piece.argument];
  if (letter != '\0' && type_of(letter) != type_of(wanted)) return message_text(TOOL_MSG_OTHER_KIND, {written});
  if (letter == '\0') letter = wanted;
  return "";
}

std::string parse_description(const std::string& format, std::vector<std::string>* operands,
                              description_t* description) {
  std::string letters(operands->size(), '\0');
  std::string mistake;
  size_t unnumbered = 0;
  for (const char* at = format.c_str(); *at != '\0' && mistake.empty();) {
    if (*at == '%') {
      mistake = parse_conversion(&at, &unnumbered, *operands, &letters, &description->text);
    } else if (*at != '\\') {
      description->text += *at++;
    } else if (*++at == 'c') {
      break; /* as printf(1): nothing more is printed */
    } else {
      mistake = parse_escape(&at, &description->text);
    }
  }
  if (!mistake.empty()) return mistake;
  if (!letters.empty() && letters.back() == '\0')
    return message_text(TOOL_MSG_ARGUMENT_UNUSED, {std::to_string(letters.size())});

  for (size_t i = 0; i < letters.size(); ++i) {
    cu_error_arg_t argument = {.cu_arg_type = type_of(letters[i]), .cu_arg_value = {}};
    std::string& operand = (*operands)[i];
    if (!parse_argument(&operand, letters[i], &argument))
      return message_text(TOOL_MSG_ARGUMENT_NOT_A_NUMBER, {std::to_string(i + 1), operand});
    description->arguments.push_back(argument);
  }
  return "";
}

std::string plain_description(const std::string& text, const std::vector<std::string>& operands,
                              description_t* description) {
  if (!operands.empty()) return message_text(TOOL_MSG_ARGUMENT_UNUSED, {"1"});
  for (const char character : text) description->text += character == '%' ? "%%" : std::string(1, character);
  return "";
}
