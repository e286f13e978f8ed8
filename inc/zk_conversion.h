/* zk_conversion.h - formats a text with typed arguments. The text may come from a record or from a message
 * catalog, so it is never handed to printf: each conversion is taken apart here and printed by the type of
 * its argument.
 *
 * A conversion is %[n$][flags][width][.precision][length]letter. Unnumbered ones take the arguments in order.
 * What cannot be printed (an argument that is missing or of no printable kind, "*", "%n", an unknown or
 * incomplete conversion, a width or precision above ZK_CONVERSION_MAX) comes out as it stands. Nothing here
 * needs the C++ library at run time. */
#ifndef ZK_CONVERSION_H
#define ZK_CONVERSION_H

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <span>
#include <string_view>

#include "qx_cu.h"

enum { ZK_CONVERSION_MAX = 1024 }; /* largest width and precision */

/* Where formatted text goes. `recorded` is true for the text of a string argument, false for the rest. */
struct zk_text_sink {
  void (*put)(zk_text_sink* sink, std::string_view text, bool recorded);
};

enum zk_conversion_kind {
  ZK_CONVERSION_PERCENT,  /* "%%" */
  ZK_CONVERSION_ARGUMENT, /* takes an argument */
  ZK_CONVERSION_VERBATIM  /* takes none and comes out as it stands */
};

struct zk_conversion {
  std::string_view text; /* from its "%" to its last character */
  zk_conversion_kind kind;
  bool numbered;
  int argument; /* n of "n$" */
  std::array<char, 8> flags;
  int width;     /* 0 when absent */
  int precision; /* -1 when absent */
  bool has_length;
  char letter;
};

/* Takes digits at `*at` as a number; what is too large for one counts as INT32_MAX. */
inline int zk_take_number(const char** at) {
  int64_t number = 0;
  for (; **at >= '0' && **at <= '9'; ++*at) number = std::min<int64_t>(number * 10 + (**at - '0'), INT32_MAX);
  return static_cast<int>(number);
}

/* Takes "*" or "*n$" at `*at`. */
inline bool zk_take_star(const char** at) {
  if (**at != '*') return false;
  const char* behind = ++*at;
  zk_take_number(&behind);
  if (behind != *at && *behind == '$') *at = behind + 1;
  return true;
}

/* Takes apart the conversion whose "%" stands at `start`. */
inline zk_conversion zk_parse_conversion(const char* start) {
  constexpr std::string_view FLAGS = "-+ #0'";
  constexpr std::string_view LETTERS = "diouxXcaAeEfFgGsp";
  static constexpr std::array<std::string_view, 8> LENGTHS = {"hh", "h", "ll", "l", "L", "j", "z", "t"};
  zk_conversion conversion = {};
  conversion.precision = -1;
  const char* at = start + 1;

  const char* behind = at;
  int number = zk_take_number(&behind);
  if (behind != at && *behind == '$') {
    conversion.numbered = true;
    conversion.argument = number;
    at = behind + 1;
  }
  for (char* flag = conversion.flags.data(); FLAGS.find(*at) != FLAGS.npos; ++at)
    if (std::memchr(conversion.flags.data(), *at, FLAGS.size()) == nullptr) *flag++ = *at;
  bool starred = zk_take_star(&at);
  if (!starred) conversion.width = zk_take_number(&at);
  if (*at == '.') {
    ++at;
    if (zk_take_star(&at))
      starred = true;
    else
      conversion.precision = zk_take_number(&at);
  }
  for (std::string_view length : LENGTHS)
    if (std::strncmp(at, length.data(), length.size()) == 0) {
      conversion.has_length = true;
      at += length.size();
      break;
    }
  conversion.letter = *at;
  if (*at != '\0') ++at;

  conversion.text = {start, static_cast<size_t>(at - start)};
  if (conversion.text == "%%")
    conversion.kind = ZK_CONVERSION_PERCENT;
  else if (LETTERS.find(conversion.letter) != LETTERS.npos && !starred)
    conversion.kind = ZK_CONVERSION_ARGUMENT;
  else
    conversion.kind = ZK_CONVERSION_VERBATIM;
  return conversion;
}

inline bool zk_has_flag(const zk_conversion& conversion, char flag) {
  return std::string_view(conversion.flags.data()).find(flag) != std::string_view::npos;
}

/* Puts `text` in a field of the conversion's width. */
inline void zk_put_padded(zk_text_sink* sink, const zk_conversion& conversion, std::string_view text, bool recorded) {
  static constexpr std::string_view BLANKS = "                ";
  size_t width = static_cast<size_t>(conversion.width);
  size_t padding = width > text.size() ? width - text.size() : 0;
  bool left = zk_has_flag(conversion, '-');
  if (left) sink->put(sink, text, recorded);
  for (; padding > 0; padding -= std::min(padding, BLANKS.size()))
    sink->put(sink, {BLANKS.data(), std::min(padding, BLANKS.size())}, false);
  if (!left) sink->put(sink, text, recorded);
}

/* Puts a number or an address: `value` by the conversion's flags, width and precision and by the letter,
 * whose type `length` names. The parts are checked, so that no recorded text reaches the format. */
template <typename Value>
void zk_put_number(zk_text_sink* sink, const zk_conversion& conversion, const char* length, char letter, Value value) {
  std::array<char, 24> format;
  std::array<char, 4096> number; /* 309 digits, their grouping, and ZK_CONVERSION_MAX more behind the point */
  std::snprintf(format.data(), format.size(), "%%%s*.*%s%c", conversion.flags.data(), length, letter);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  int size = std::snprintf(number.data(), number.size(), format.data(), conversion.width, conversion.precision, value);
#pragma GCC diagnostic pop
  if (size < 0) return;
  sink->put(sink, {number.data(), std::min(static_cast<size_t>(size), number.size() - 1)}, false);
}

inline void zk_put_integer(zk_text_sink* sink, zk_conversion conversion, int64_t value, uint64_t unsigned_value) {
  constexpr std::string_view LETTERS = "dioxXuc";
  if (LETTERS.find(conversion.letter) == LETTERS.npos) {
    conversion.letter = 'd';
    conversion.precision = -1;
  }
  if (conversion.letter == 'c') {
    char character = static_cast<char>(unsigned_value);
    if (character == '\0' && conversion.width > 0) --conversion.width; /* its own column stays empty */
    zk_put_padded(sink, conversion, {&character, character != '\0' ? size_t{1} : size_t{0}}, true);
  } else if (conversion.letter == 'd' || conversion.letter == 'i') {
    zk_put_number(sink, conversion, "ll", 'd', static_cast<long long>(value));
  } else {
    zk_put_number(sink, conversion, "ll", conversion.letter, static_cast<unsigned long long>(unsigned_value));
  }
}

inline void zk_put_double(zk_text_sink* sink, zk_conversion conversion, double value) {
  constexpr std::string_view LETTERS = "aAeEfFgG";
  if (LETTERS.find(conversion.letter) == LETTERS.npos) {
    conversion.letter = 'g';
    conversion.precision = -1;
  }
  zk_put_number(sink, conversion, "", conversion.letter, value);
}

inline void zk_put_string(zk_text_sink* sink, const zk_conversion& conversion, const char* text) {
  constexpr std::string_view NULL_TEXT = "(null)";
  size_t limit = std::string_view::npos;
  if (conversion.letter == 's' && conversion.precision >= 0) limit = static_cast<size_t>(conversion.precision);
  if (text != nullptr)
    zk_put_padded(sink, conversion, {text, strnlen(text, limit)}, true);
  else
    zk_put_padded(sink, conversion, limit >= NULL_TEXT.size() ? NULL_TEXT : "", false);
}

inline void zk_put_pointer(zk_text_sink* sink, zk_conversion conversion, void* value) {
  if (value == nullptr) {
    zk_put_padded(sink, conversion, "(nil)", false);
    return;
  }
  if (conversion.letter != 'p') conversion.precision = -1;
  /* "0" does nothing for addresses */
  char* end = std::remove(conversion.flags.begin(), conversion.flags.end(), '0');
  std::fill(end, conversion.flags.end(), '\0');
  zk_put_number(sink, conversion, "", 'p', value);
}

/* Puts `argument` by its own type; false when it has none that can be printed. */
inline bool zk_put_argument(zk_text_sink* sink, const zk_conversion& conversion, const cu_error_arg_t& argument) {
  switch (argument.cu_arg_type) {
    case CU_ERROR_ARG_INT:
    case CU_ERROR_ARG_LONG:
      zk_put_integer(sink, conversion, argument.cu_arg_value.cu_arg_int,
                     static_cast<uint32_t>(argument.cu_arg_value.cu_arg_int));
      return true;
    case CU_ERROR_ARG_LONG_LONG:
      zk_put_integer(sink, conversion, argument.cu_arg_value.cu_arg_long_long,
                     static_cast<uint64_t>(argument.cu_arg_value.cu_arg_long_long));
      return true;
    case CU_ERROR_ARG_DOUBLE:
      zk_put_double(sink, conversion, argument.cu_arg_value.cu_arg_double);
      return true;
    case CU_ERROR_ARG_CHAR_STR:
      zk_put_string(sink, conversion, argument.cu_arg_value.cu_arg_char_str);
      return true;
    case CU_ERROR_ARG_VOID_PTR:
      zk_put_pointer(sink, conversion, argument.cu_arg_value.cu_arg_void_ptr);
      return true;
    default:
      return false;
  }
}

/* Puts the text `format` with its conversions filled from `arguments`. */
inline void zk_format_text(zk_text_sink* sink, const char* format, std::span<const cu_error_arg_t> arguments) {
  size_t taken = 0;
  for (const char* at = format; *at != '\0';) {
    size_t plain = std::strcspn(at, "%");
    if (plain > 0) sink->put(sink, {at, plain}, false);
    at += plain;
    if (*at == '\0') break;

    zk_conversion conversion = zk_parse_conversion(at);
    at += conversion.text.size();
    bool done = false;
    if (conversion.kind == ZK_CONVERSION_PERCENT) {
      sink->put(sink, "%", false);
      done = true;
    } else if (conversion.kind == ZK_CONVERSION_ARGUMENT) {
      size_t number = conversion.numbered ? static_cast<size_t>(conversion.argument) : ++taken;
      if (number >= 1 && number <= arguments.size() && conversion.width <= ZK_CONVERSION_MAX &&
          conversion.precision <= ZK_CONVERSION_MAX)
        done = zk_put_argument(sink, conversion, arguments[number - 1]);
    }
    if (!done) sink->put(sink, conversion.text, false);
  }
}

#endif
