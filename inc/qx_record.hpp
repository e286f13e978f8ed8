/* SPDX-License-Identifier: MIT */
/* qx_record.hpp - recording in one line from C++20, over qx_record.h, with nothing more to link:
 *
 *   zelk::recorder_t recorder("stn.stack", "stn.node");
 *   const zelk::recorded_t lost = record(recorder, nullptr, "Disk %s is gone.", disk.name);
 *   record(recorder, lost, "Volume %s is degraded, %d%% of it is safe.", volume, percent);
 *
 * The recorder closes itself. A format that its arguments do not fit does not compile. File and line of the call are
 * recorded with the incident. What is said in qx_record.h about threads, processes and signals holds here too. */
#ifndef QX_RECORD_HPP
#define QX_RECORD_HPP

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "qx_record.h"

namespace zelk {

/* ---- Formats ----------------------------------------------------------------------------------------------------- */

/* A conversion of a format, %[n$][flags][width][.precision][length]letter, as printf takes it. */
struct conversion_t {
  enum class length_t : unsigned char { NONE, HH, H, L, LL, J, Z, T, LONG_DOUBLE };

  bool is_recordable = false; /* the other fields say nothing of one that is not */
  char letter = '\0';         /* 'd' for "%i" too */
  length_t length = length_t::NONE;
  int number = 0;     /* of "n$", from 1 on; 0 without */
  int precision = -1; /* -1 without */
};

/* The classes of letters that take one kind of argument. */
constexpr std::string_view SIGNED_LETTERS = "d";
constexpr std::string_view UNSIGNED_LETTERS = "uoxX";
constexpr std::string_view DOUBLE_LETTERS = "aAeEfFgG";
constexpr std::string_view OTHER_LETTERS = "csp"; /* each a class of its own */
constexpr int WIDTH_MAX = 1024;                   /* the largest width and precision that reports show */

constexpr bool is_one_of(std::string_view letters, char letter) {
  return letters.find(letter) != letters.npos;
}

/* Parses digits, none being 0; what is too large is WIDTH_MAX + 1. */
constexpr int parse_digits(const char** at) {
  int number = 0;
  for (; **at >= '0' && **at <= '9'; ++*at)
    if (number <= WIDTH_MAX) number = number * 10 + (**at - '0');
  return number > WIDTH_MAX ? WIDTH_MAX + 1 : number;
}

constexpr conversion_t::length_t parse_length(const char** at) {
  using enum conversion_t::length_t;
  constexpr struct {
    std::string_view text;
    conversion_t::length_t length;
  } LENGTHS[] = {{"hh", HH}, {"h", H}, {"ll", LL}, {"l", L}, {"j", J}, {"z", Z}, {"t", T}, {"L", LONG_DOUBLE}};
  for (const auto& row : LENGTHS) {
    size_t same = 0;
    while (same < row.text.size() && (*at)[same] == row.text[same]) ++same;
    if (same < row.text.size()) continue;
    *at += same;
    return row.length;
  }
  return NONE;
}

/* Whether printf defines the letter with that length, and a record can hold what it then takes. */
constexpr bool is_recordable(char letter, conversion_t::length_t length) {
  using enum conversion_t::length_t;
  if (is_one_of(SIGNED_LETTERS, letter) || is_one_of(UNSIGNED_LETTERS, letter)) return length != LONG_DOUBLE;
  if (is_one_of(DOUBLE_LETTERS, letter)) return length == NONE || length == L || length == LONG_DOUBLE;
  return is_one_of(OTHER_LETTERS, letter) && length == NONE;
}

/* Moves `*at` behind the next conversion and parses it; "%%" is none. Returns false at the end of the format. */
constexpr bool next_conversion(const char** at, conversion_t* conversion) {
  while (**at != '\0' && (**at != '%' || (*at)[1] == '%')) *at += **at == '%' ? 2 : 1;
  if (**at == '\0') return false;
  *conversion = {};
  const char* behind = ++*at;
  const int number = parse_digits(&behind);
  const bool has_number = behind != *at && *behind == '$';
  if (has_number) {
    conversion->number = number;
    *at = behind + 1;
  }
  while (**at != '\0' && is_one_of("-+ #0'", **at)) ++*at;
  const int width = parse_digits(at);
  if (**at == '.') {
    ++*at;
    conversion->precision = parse_digits(at);
  }
  conversion->length = parse_length(at);
  conversion->letter = **at == 'i' ? 'd' : **at;
  if (**at != '\0') ++*at;
  conversion->is_recordable = is_recordable(conversion->letter, conversion->length) && width <= WIDTH_MAX &&
                              conversion->precision <= WIDTH_MAX && (!has_number || number > 0);
  return true;
}

/* Adds a conversion to what is known of its argument: of a text, how much is shown of it. Returns false when the two show
 * two values of it, as printf does with "%1$hhd %1$d". */
constexpr bool add_conversion(const conversion_t& conversion, conversion_t* known) {
  const bool is_first = !known->is_recordable;
  const bool is_signed = is_one_of(SIGNED_LETTERS, conversion.letter);
  const bool is_narrow =
      conversion.length == conversion_t::length_t::HH || conversion.length == conversion_t::length_t::H;
  const bool was_narrow = known->length == conversion_t::length_t::HH || known->length == conversion_t::length_t::H;
  const bool is_same = conversion.length == known->length && is_signed == is_one_of(SIGNED_LETTERS, known->letter);
  if (!is_first && (is_narrow || was_narrow) && !is_same) return false;
  const bool is_whole = conversion.precision < 0 || (!is_first && known->precision < 0);
  const int precision = conversion.precision > known->precision ? conversion.precision : known->precision;
  *known = conversion;
  known->precision = is_whole ? -1 : precision;
  return true;
}

/* The integer as the conversion shows it: "h" and "hh" make it narrower. */
constexpr int64_t narrowed(int64_t value, const conversion_t& conversion) {
  using enum conversion_t::length_t;
  const bool is_signed = is_one_of(SIGNED_LETTERS, conversion.letter);
  if (conversion.length == HH) return is_signed ? static_cast<signed char>(value) : static_cast<unsigned char>(value);
  if (conversion.length == H) return is_signed ? static_cast<short>(value) : static_cast<unsigned short>(value);
  return value;
}

/* ---- Arguments --------------------------------------------------------------------------------------------------- */

template <typename Type>
constexpr bool IS_INTEGER = std::is_integral_v<Type> || (std::is_enum_v<Type> && std::is_convertible_v<Type, int>);
template <typename Type>
constexpr bool IS_TEXT = std::is_convertible_v<Type, std::string_view> && !std::is_null_pointer_v<Type>;

/* Whether the conversion shows an argument of the type. Length modifiers do not matter, but that "h" and "hh" show it
 * narrower: the type is known. */
template <typename Type>
constexpr bool fits(const conversion_t& conversion) {
  const char letter = conversion.letter;
  if constexpr (IS_INTEGER<Type>) {
    constexpr bool IS_ABOVE_SIGNED = std::is_unsigned_v<Type> && sizeof(Type) == sizeof(int64_t);
    if (letter == 'c') return sizeof(Type) <= sizeof(int32_t);
    return (is_one_of(SIGNED_LETTERS, letter) && !IS_ABOVE_SIGNED) || is_one_of(UNSIGNED_LETTERS, letter);
  } else if constexpr (std::is_same_v<Type, float> || std::is_same_v<Type, double>) {
    return is_one_of(DOUBLE_LETTERS, letter);
  } else if constexpr (IS_TEXT<Type>) {
    return letter == 's';
  } else {
    return letter == 'p' && (std::is_pointer_v<std::decay_t<Type>> || std::is_null_pointer_v<Type>);
  }
}

/* These are no constant expressions: a format that leads to one of them does not compile, and the compiler names it. */
void conversion_cannot_be_recorded();
void conversion_does_not_fit_its_argument();
void conversion_has_no_argument();
void argument_has_no_conversion();
void conversions_show_two_values_of_one_argument();
void numbered_and_other_conversions();

/* A format whose conversions fit arguments of these types, and the place in the source where it stands. */
template <typename... Arguments>
struct format_t {
  const char* text;
  const char* file;
  int line;
  std::array<conversion_t, sizeof...(Arguments) + 1> shown =
      {}; /* what shows each argument; one more, as none is no array */

  template <size_t SIZE>
  consteval format_t(const char (&format)[SIZE], const char* in_file = __builtin_FILE(), int at_line = __builtin_LINE())
      : text(format), file(in_file), line(at_line) {
    using fits_t = bool (*)(const conversion_t&);
    constexpr size_t COUNT = sizeof...(Arguments);
    constexpr std::array<fits_t, COUNT + 1> FITS = {fits<std::remove_cvref_t<Arguments>>..., nullptr};
    size_t unnumbered = 0, numbered = 0;
    conversion_t conversion;
    for (const char* at = format; next_conversion(&at, &conversion);) {
      if (!conversion.is_recordable) conversion_cannot_be_recorded();
      const size_t index = conversion.number > 0 ? static_cast<size_t>(conversion.number) - 1 : unnumbered;
      ++(conversion.number > 0 ? numbered : unnumbered);
      if (index >= COUNT) conversion_has_no_argument();
      if (!FITS[index](conversion)) conversion_does_not_fit_its_argument();
      if (!add_conversion(conversion, &shown[index])) conversions_show_two_values_of_one_argument();
    }
    if (unnumbered > 0 && numbered > 0) numbered_and_other_conversions();
    for (size_t index = 0; index < COUNT; ++index)
      if (!shown[index].is_recordable) argument_has_no_conversion();
  }
};

/* An argument as it is recorded. A text keeps what the record's refers to: its copy, or the caller's own. */
template <typename Type>
struct argument_t {
  std::string copy; /* of a text that need not end in a NUL */
  cu_error_arg_t recorded = {};

  argument_t(const Type& value, const conversion_t& shown) {
    auto& field = recorded.cu_arg_value;
    if constexpr (IS_INTEGER<Type>) {
      constexpr bool IS_SMALL = sizeof(Type) < sizeof(int32_t);
      constexpr bool IS_NARROW = IS_SMALL || (sizeof(Type) == sizeof(int32_t) && std::is_signed_v<Type>);
      recorded.cu_arg_type = IS_NARROW ? CU_ERROR_ARG_INT : CU_ERROR_ARG_LONG_LONG;
      const int64_t wide = narrowed(static_cast<int64_t>(value), shown);
      if constexpr (IS_NARROW)
        field.cu_arg_int = static_cast<int32_t>(wide);
      else
        field.cu_arg_long_long = wide;
    } else if constexpr (std::is_floating_point_v<Type>) {
      recorded.cu_arg_type = CU_ERROR_ARG_DOUBLE;
      field.cu_arg_double = static_cast<double>(value);
    } else if constexpr (IS_TEXT<Type>) {
      recorded.cu_arg_type = CU_ERROR_ARG_CHAR_STR;
      if constexpr (std::is_array_v<Type>) {
        copy.assign(value, strnlen(value, std::extent_v<Type>)); /* an array need not end in a NUL */
        field.cu_arg_char_str = copy.data();
      } else if constexpr (std::is_pointer_v<Type>) {
        const char* text = value;
        if (text == nullptr) text = "(null)";
        if (shown.precision >= 0) { /* no byte behind that is read */
          copy.assign(text, strnlen(text, static_cast<size_t>(shown.precision)));
          text = copy.c_str();
        }
        field.cu_arg_char_str = const_cast<char*>(text); /* only read */
      } else {
        copy = std::string_view(value);
        field.cu_arg_char_str = copy.data();
      }
    } else {
      recorded.cu_arg_type = CU_ERROR_ARG_VOID_PTR;
      field.cu_arg_void_ptr = nullptr; /* all of it: a union is zeroed as far as its first member */
      if constexpr (!std::is_null_pointer_v<Type>)
        field.cu_arg_void_ptr = const_cast<void*>(reinterpret_cast<const volatile void*>(value)); /* only its address */
    }
  }
  argument_t(const argument_t&) = delete;
  argument_t& operator=(const argument_t&) = delete;
};

/* ---- Recording --------------------------------------------------------------------------------------------------- */

/* An open stack, closed at the end of its scope; for one thread at a time. */
struct recorder_t {
  zk_recorder_t* open = nullptr; /* null where `result` is not 0 */
  int result;                    /* of zk_open_or_create_recorder */
  const char* product;           /* recorded with each incident; the caller's */

  /* Opens the stack, or makes one of `size` bytes (0: 16384) where there is none. */
  explicit recorder_t(const char* stack_file, const char* product_name = nullptr, int32_t size = 0)
      : result(zk_open_or_create_recorder(0, nullptr, stack_file, size, &open)), product(product_name) {}
  ~recorder_t() { zk_close_recorder(open); }
  recorder_t(const recorder_t&) = delete;
  recorder_t& operator=(const recorder_t&) = delete;
};

/* What became of an incident: the result of zk_record_incident, and its Error ID, which is empty unless that is 0. */
struct recorded_t {
  int result;
  zk_eid_t eid;
};

/* The incident that caused another: an Error ID, one that was recorded before, or none (null, or one that failed). */
struct cause_t {
  const char* eid;

  cause_t(std::nullptr_t) : eid(nullptr) {}
  cause_t(const char* error_id) : eid(error_id) {}
  cause_t(const std::string& error_id) : eid(error_id.c_str()) {}
  cause_t(const recorded_t& incident) : eid(incident.eid) {}
};

struct details_t {
  const char* text;
};

/* Makes each argument by the conversion that shows it, and uses them. */
template <typename Use, typename Conversions, size_t... INDEX, typename... Arguments>
recorded_t use_shown(const Use& use, const Conversions& shown, std::index_sequence<INDEX...>,
                     const Arguments&... arguments) {
  return use(argument_t<Arguments>(arguments, shown[INDEX])...);
}

/* Records an incident. A recorder that could not open its stack gives ZELK_INV_PARAM3: a program that goes on without
 * one need not ask. */
template <typename... Arguments>
recorded_t record(const recorder_t& recorder, cause_t cause, details_t details,
                  format_t<std::type_identity_t<Arguments>...> format, const Arguments&... arguments) {
  const auto record_these = [&](const auto&... made) {
    const std::array<cu_error_arg_t, sizeof...(Arguments) + 1> list = {made.recorded..., cu_error_arg_t{}};
    zk_incident_t incident = {};
    incident.detecting_file = format.file;
    incident.product = recorder.product;
    incident.line = format.line;
    incident.default_message = format.text;
    incident.arguments = list.data();
    incident.argument_count = sizeof...(Arguments);
    incident.details = details.text;
    incident.associated_eid = cause.eid;
    recorded_t recorded = {};
    recorded.result = zk_record_incident(0, nullptr, recorder.open, &incident, recorded.eid);
    return recorded;
  };
  return use_shown(record_these, format.shown, std::index_sequence_for<Arguments...>(), arguments...);
}

template <typename... Arguments>
recorded_t record(const recorder_t& recorder, cause_t cause, const format_t<std::type_identity_t<Arguments>...>& format,
                  const Arguments&... arguments) {
  return record(recorder, cause, details_t{nullptr}, format, arguments...);
}

} /* namespace zelk */

#endif
