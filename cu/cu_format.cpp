/* SPDX-License-Identifier: MIT */
/* cu_format.cpp - takes formats apart and fills them. */
#include "cu_format.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>

/* ---- Parsing ----------------------------------------------------------------------------------------------------- */

static constexpr std::string_view FLAGS = "-+ #0'";
static constexpr std::string_view LENGTHS = "hlLjzt"; /* h and l also twice */
static constexpr std::string_view LETTERS = "duoxXcaAeEfFgGsp";

enum : uint8_t { LEFT = 1 << 0, ZEROS = 1 << 4 }; /* bits of the flags "-" and "0" */

/* The bit of the flag `letter`; 0 when it is none. */
static uint8_t flag_bit(char letter) {
  size_t position = FLAGS.find(letter);
  return position != FLAGS.npos ? static_cast<uint8_t>(1U << position) : uint8_t{0};
}

/* Takes the digits at `*at` as a number; what is too large for one counts as INT32_MAX. */
static int32_t parse_number(const char** at) {
  int64_t number = 0;
  for (; **at >= '0' && **at <= '9'; ++*at) number = std::min<int64_t>(number * 10 + (**at - '0'), INT32_MAX);
  return static_cast<int32_t>(number);
}

/* Takes the number of "n$", or returns -1 where there is none. */
static int32_t parse_argument_number(const char** at) {
  const char* behind = *at;
  int32_t number = parse_number(&behind);
  if (behind == *at || *behind != '$') return -1;
  *at = behind + 1;
  return number;
}

/* Takes a width or precision; false when it is "*" or "*n$". */
static bool parse_width(const char** at, int32_t* width) {
  if (**at != '*') {
    *width = parse_number(at);
    return true;
  }
  ++*at;
  parse_argument_number(at);
  return false;
}

/* Takes the conversion whose "%" stands at `*start`. */
static cu_piece_t parse_conversion(const char** start, size_t* unnumbered) {
  cu_piece_t piece = {};
  piece.kind = CU_PIECE_UNFILLABLE;
  piece.precision = -1;
  const char* at = *start + 1;

  int32_t number = parse_argument_number(&at);
  piece.is_numbered = number >= 0;
  for (; flag_bit(*at) != 0; ++at) piece.flags |= flag_bit(*at);
  bool is_filled = parse_width(&at, &piece.width);
  if (*at == '.') {
    ++at;
    is_filled = parse_width(&at, &piece.precision) && is_filled;
  }
  if (LENGTHS.find(*at) != LENGTHS.npos) {
    piece.has_length = true;
    at += (*at == 'h' || *at == 'l') && at[1] == *at ? 2 : 1;
  }
  piece.letter = *at == 'i' ? 'd' : *at;
  if (*at != '\0') ++at;
  piece.text = {*start, static_cast<size_t>(at - *start)};
  *start = at;

  if (piece.text == "%%") {
    piece.kind = CU_PIECE_TEXT;
    piece.text = "%";
  } else if (is_filled && LETTERS.find(piece.letter) != LETTERS.npos) {
    piece.argument = piece.is_numbered ? static_cast<size_t>(number) - 1 : (*unnumbered)++;
    if (number != 0 && piece.width <= CU_WIDTH_MAX && piece.precision <= CU_WIDTH_MAX) piece.kind = CU_PIECE_ARGUMENT;
  }
  return piece;
}

cu_piece_t cu_parse_piece(const char** at, size_t* unnumbered) {
  if (**at == '%') return parse_conversion(at, unnumbered);
  cu_piece_t piece = {};
  piece.kind = CU_PIECE_TEXT;
  piece.text = {*at, std::strcspn(*at, "%")};
  *at += piece.text.size();
  return piece;
}

size_t cu_parse_format(const char* format, std::span<cu_piece_t> pieces) {
  size_t count = 0;
  for (size_t unnumbered = 0; *format != '\0'; ++count) {
    cu_piece_t piece = cu_parse_piece(&format, &unnumbered);
    if (count < pieces.size()) pieces[count] = piece;
  }
  return count;
}

/* ---- Filling ----------------------------------------------------------------------------------------------------- */

/* Puts `text`, which is that of `argument` or of none, in a field of the conversion's width. */
static void put_field(cu_sink_t* sink, const cu_piece_t& piece, std::string_view text, const cu_error_arg_t* argument) {
  static constexpr std::string_view BLANKS = "                ";
  bool left = (piece.flags & LEFT) != 0;
  size_t width = static_cast<size_t>(piece.width);
  if (left) sink->put(sink, text, argument);
  for (size_t column = text.size(); column < width; column += BLANKS.size())
    sink->put(sink, {BLANKS.data(), std::min(width - column, BLANKS.size())}, nullptr);
  if (!left) sink->put(sink, text, argument);
}

/* Has printf print `value`, whose type `length` names, by a format that is built here. */
template <typename Value>
static void put_by_printf(cu_sink_t* sink, const cu_piece_t& piece, const char* length, Value value) {
  std::array<char, FLAGS.size() + 1> flags;
  std::array<char, 24> format;
  std::array<char, 4096> number; /* 309 digits, their grouping, and CU_WIDTH_MAX more behind the point */
  char* end = flags.data();
  for (size_t i = 0; i < FLAGS.size(); ++i)
    if ((piece.flags & (1U << i)) != 0) *end++ = FLAGS[i];
  *end = '\0';
  std::snprintf(format.data(), format.size(), "%%%s*.*%s%c", flags.data(), length, piece.letter);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  int size = std::snprintf(number.data(), number.size(), format.data(), piece.width, piece.precision, value);
#pragma GCC diagnostic pop
  if (size < 0) return;
  sink->put(sink, {number.data(), std::min(static_cast<size_t>(size), number.size() - 1)}, nullptr);
}

/* Puts an integer as printf would by a conversion without flags other than "-" and "0". */
static void put_digits(cu_sink_t* sink, const cu_piece_t& piece, uint64_t magnitude, bool negative) {
  static constexpr const char* LOWER = "0123456789abcdef";
  static constexpr const char* UPPER = "0123456789ABCDEF";
  const char* digits = piece.letter == 'X' ? UPPER : LOWER;
  unsigned int base = 10;
  if (piece.letter == 'o') base = 8;
  if (piece.letter == 'x' || piece.letter == 'X') base = 16;
  int32_t least = piece.precision; /* how many digits at least */
  if (least < 0) least = piece.flags == ZEROS ? std::max(piece.width - (negative ? 1 : 0), 1) : 1;

  std::array<char, CU_WIDTH_MAX + 1> number; /* filled from its end */
  char* const end = number.data() + number.size();
  char* start = end;
  for (; magnitude != 0; magnitude /= base) *--start = digits[magnitude % base];
  while (end - start < least) *--start = '0';
  if (negative) *--start = '-';
  put_field(sink, piece, {start, static_cast<size_t>(end - start)}, nullptr);
}

static void put_character(cu_sink_t* sink, cu_piece_t piece, const cu_error_arg_t& argument, char character) {
  size_t length = character != '\0' ? 1 : 0;
  if (length == 0 && piece.width > 0) --piece.width; /* its column stays empty */
  put_field(sink, piece, {&character, length}, &argument);
}

static void put_integer(cu_sink_t* sink, const cu_piece_t& piece, const cu_error_arg_t& argument) {
  bool is_wide = argument.cu_arg_type == CU_ERROR_ARG_LONG_LONG;
  int64_t value = is_wide ? argument.cu_arg_value.cu_arg_long_long : argument.cu_arg_value.cu_arg_int;
  uint64_t bits = is_wide ? static_cast<uint64_t>(value) : static_cast<uint32_t>(value); /* as %u and %x show it */
  bool negative = piece.letter == 'd' && value < 0;
  if (piece.letter == 'c')
    put_character(sink, piece, argument, static_cast<char>(bits));
  else if ((piece.flags & ~(LEFT | ZEROS)) == 0)
    put_digits(sink, piece, negative ? -static_cast<uint64_t>(value) : bits, negative);
  else if (piece.letter == 'd')
    put_by_printf(sink, piece, "ll", static_cast<long long>(value));
  else
    put_by_printf(sink, piece, "ll", static_cast<unsigned long long>(bits));
}

static void put_double(cu_sink_t* sink, const cu_piece_t& piece, const cu_error_arg_t& argument) {
  put_by_printf(sink, piece, "", argument.cu_arg_value.cu_arg_double);
}

static void put_string(cu_sink_t* sink, const cu_piece_t& piece, const cu_error_arg_t& argument) {
  static constexpr std::string_view NULL_TEXT = "(null)"; /* shown whole or not at all */
  const char* text = argument.cu_arg_value.cu_arg_char_str;
  size_t limit = piece.precision >= 0 ? static_cast<size_t>(piece.precision) : SIZE_MAX;
  if (text != nullptr)
    put_field(sink, piece, {text, strnlen(text, limit)}, &argument);
  else
    put_field(sink, piece, limit >= NULL_TEXT.size() ? NULL_TEXT : "", nullptr);
}

static void put_pointer(cu_sink_t* sink, const cu_piece_t& piece, const cu_error_arg_t& argument) {
  cu_piece_t blank_filled = piece; /* "0" does nothing for an address */
  blank_filled.flags &= static_cast<uint8_t>(~ZEROS);
  if (argument.cu_arg_value.cu_arg_void_ptr != nullptr)
    put_by_printf(sink, blank_filled, "", argument.cu_arg_value.cu_arg_void_ptr);
  else
    put_field(sink, piece, "(nil)", nullptr);
}

/* Puts `argument`; false when it is of a type that is not printed. */
static bool put_argument(cu_sink_t* sink, const cu_piece_t& piece, const cu_error_arg_t& argument) {
  struct type_t {
    std::string_view letters; /* that fit it, its plain conversion first */
    void (*put)(cu_sink_t* sink, const cu_piece_t& piece, const cu_error_arg_t& argument);
  };
  static constexpr type_t INTEGER = {"duoxXc", put_integer};
  static constexpr std::array<type_t, 7> TYPES = {{INTEGER,                  /* CU_ERROR_ARG_INT */
                                                   INTEGER,                  /* CU_ERROR_ARG_LONG */
                                                   INTEGER,                  /* CU_ERROR_ARG_LONG_LONG */
                                                   {"geEfFGaA", put_double}, /* CU_ERROR_ARG_DOUBLE */
                                                   {"", nullptr},            /* CU_ERROR_ARG_RESERVED */
                                                   {"s", put_string},        /* CU_ERROR_ARG_CHAR_STR */
                                                   {"p", put_pointer}}};     /* CU_ERROR_ARG_VOID_PTR */
  const auto number = static_cast<uint32_t>(argument.cu_arg_type);
  if (number >= TYPES.size() || TYPES[number].put == nullptr) return false;
  const type_t& type = TYPES[number];
  if (type.letters.find(piece.letter) != type.letters.npos) {
    type.put(sink, piece, argument);
  } else {
    cu_piece_t plain = piece;
    plain.letter = type.letters[0];
    plain.precision = -1;
    type.put(sink, plain, argument);
  }
  return true;
}

static void put_piece(cu_sink_t* sink, const cu_piece_t& piece, std::span<const cu_error_arg_t> arguments) {
  bool is_filled = piece.kind == CU_PIECE_ARGUMENT && piece.argument < arguments.size() &&
                   put_argument(sink, piece, arguments[piece.argument]);
  if (!is_filled) sink->put(sink, piece.text, nullptr);
}

void cu_put_pieces(cu_sink_t* sink, std::span<const cu_piece_t> pieces, std::span<const cu_error_arg_t> arguments) {
  for (const cu_piece_t& piece : pieces) put_piece(sink, piece, arguments);
}

void cu_put_format(cu_sink_t* sink, const char* format, std::span<const cu_error_arg_t> arguments) {
  for (size_t unnumbered = 0; *format != '\0';) put_piece(sink, cu_parse_piece(&format, &unnumbered), arguments);
}

/* ---- Translations ------------------------------------------------------------------------------------------------ */

static constexpr size_t ARGUMENTS_MAX = 9;
using argument_kinds_t = std::array<char, ARGUMENTS_MAX>; /* 's', 'c' or 'd' by argument, NUL for none */

/* Notes in `kinds` what kind of argument each conversion of `text` takes; false when one is not of the simple form that
 * the texts of commands have, or when plain and numbered ones are mixed. */
static bool note_kinds(const char* text, argument_kinds_t* kinds) {
  size_t unnumbered = 0;
  bool has_numbered = false;
  while (*text != '\0') {
    const cu_piece_t piece = cu_parse_piece(&text, &unnumbered);
    if (piece.kind == CU_PIECE_TEXT) continue;
    if (piece.kind == CU_PIECE_UNFILLABLE || piece.has_length || piece.argument >= ARGUMENTS_MAX) return false;
    if (piece.letter != 's' && piece.letter != 'c' && piece.letter != 'd') return false;
    char* kind = &(*kinds)[piece.argument];
    if (*kind != '\0' && *kind != piece.letter) return false;
    *kind = piece.letter;
    has_numbered = has_numbered || piece.is_numbered;
  }
  return unnumbered == 0 || !has_numbered;
}

bool cu_takes_same_arguments(const char* translation, const char* original) {
  argument_kinds_t wanted = {};
  argument_kinds_t given = {};
  if (!note_kinds(translation, &wanted) || !note_kinds(original, &given)) return false;
  for (size_t i = 0; i < ARGUMENTS_MAX; ++i)
    if (wanted[i] != '\0' && wanted[i] != given[i]) return false;
  return true;
}
