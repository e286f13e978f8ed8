/* SPDX-License-Identifier: MIT */
/* zk_record_message.cpp - records an incident whose description is given as to printf. */
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "qx_record.hpp"
#include "zk_layout.h"

using zelk::conversion_t;
using length_t = conversion_t::length_t;

enum { ARGUMENTS_MAX = 200 }; /* a record has no room for more, be they empty texts */

/* What a format takes, by argument. Those that no conversion takes are not recordable. */
struct arguments_t {
  std::array<conversion_t, ARGUMENTS_MAX> conversions;
  std::array<cu_error_arg_t, ARGUMENTS_MAX> values;
  std::array<char*, ARGUMENTS_MAX> copies; /* of texts that need not end in a NUL */
  uint32_t count;
};

/* Whether two conversions take an argument of one type, as printf has it. */
static bool are_of_one_type(const conversion_t& one, const conversion_t& other) {
  auto letter_class = [](char letter) {
    if (zelk::is_one_of(zelk::DOUBLE_LETTERS, letter)) return 'g';
    return zelk::is_one_of(zelk::UNSIGNED_LETTERS, letter) ? 'd' : letter;
  };
  return letter_class(one.letter) == letter_class(other.letter) && one.length == other.length;
}

/* Notes what each argument of the format is. Returns 0; ZELK_INV_PARAM4 it cannot be recorded; ZELK_INV_RECLEN. */
static int parse_format(const char* format, arguments_t* arguments) {
  uint32_t unnumbered = 0, numbered = 0, count = 0;
  conversion_t conversion;
  while (zelk::next_conversion(&format, &conversion)) {
    if (!conversion.is_recordable) return ZELK_INV_PARAM4;
    const uint32_t index = conversion.number > 0 ? static_cast<uint32_t>(conversion.number) - 1 : unnumbered;
    ++(conversion.number > 0 ? numbered : unnumbered);
    count = std::max(count, index + 1);
    if (index >= ARGUMENTS_MAX) continue;
    conversion_t* const known = &arguments->conversions[index];
    if (known->is_recordable && !are_of_one_type(*known, conversion)) return ZELK_INV_PARAM4;
    /* Of two that narrow it in two ways the first counts: nothing is lost for it. */
    zelk::add_conversion(conversion, known);
  }
  if (unnumbered > 0 && numbered > 0) return ZELK_INV_PARAM4;
  for (uint32_t i = 0; i < std::min(count, uint32_t{ARGUMENTS_MAX}); ++i)
    if (!arguments->conversions[i].is_recordable) return ZELK_INV_PARAM4; /* of no known type, so none behind it is */
  if (count > ARGUMENTS_MAX) return ZELK_INV_RECLEN;
  arguments->count = count;
  return ZELK_SUCCESS;
}

/* The next argument, an integer, as printf shows it. */
static cu_error_arg_t next_integer(const conversion_t& conversion, va_list* list) {
  cu_error_arg_t argument = {.cu_arg_type = CU_ERROR_ARG_LONG_LONG, .cu_arg_value = {}};
  const bool is_signed = zelk::is_one_of(zelk::SIGNED_LETTERS, conversion.letter);
  switch (conversion.length) {
    case length_t::LL:
    case length_t::J:
      argument.cu_arg_value.cu_arg_long_long = va_arg(*list, long long);
      break;
    case length_t::L: /* size_t and ptrdiff_t are as wide */
    case length_t::Z:
    case length_t::T:
      argument.cu_arg_value.cu_arg_long_long =
          is_signed ? int64_t{va_arg(*list, long)} : static_cast<int64_t>(va_arg(*list, unsigned long));
      break;
    default:
      argument.cu_arg_type = CU_ERROR_ARG_INT;
      argument.cu_arg_value.cu_arg_int = static_cast<int32_t>(zelk::narrowed(va_arg(*list, int), conversion));
  }
  return argument;
}

/* The next argument, a text. Where nothing but the conversion's precision ends it, `*copy` receives a copy that ends in
 * a NUL. False when there is no memory for it. */
static bool next_text(const conversion_t& conversion, va_list* list, cu_error_arg_t* argument, char** copy) {
  const char* text = va_arg(*list, const char*);
  if (text == nullptr) text = "(null)";
  const size_t limit = static_cast<size_t>(std::max(conversion.precision, 0));
  if (conversion.precision >= 0 && strnlen(text, limit) == limit) {
    *copy = strndup(text, limit);
    if (*copy == nullptr) return false;
    text = *copy;
  }
  *argument = {.cu_arg_type = CU_ERROR_ARG_CHAR_STR, .cu_arg_value = {}};
  argument->cu_arg_value.cu_arg_char_str = const_cast<char*>(text); /* only read */
  return true;
}

/* Fills in the values. Returns 0; ZELK_NO_MEMORY. */
static int read_values(va_list* list, arguments_t* arguments) {
  for (uint32_t i = 0; i < arguments->count; ++i) {
    const conversion_t& conversion = arguments->conversions[i];
    cu_error_arg_t* const argument = &arguments->values[i];
    if (conversion.letter == 's') {
      if (!next_text(conversion, list, argument, &arguments->copies[i])) return ZELK_NO_MEMORY;
    } else if (conversion.letter == 'p') {
      argument->cu_arg_type = CU_ERROR_ARG_VOID_PTR;
      argument->cu_arg_value.cu_arg_void_ptr = va_arg(*list, void*);
    } else if (zelk::is_one_of(zelk::DOUBLE_LETTERS, conversion.letter)) {
      const bool is_long = conversion.length == length_t::LONG_DOUBLE;
      argument->cu_arg_type = CU_ERROR_ARG_DOUBLE;
      argument->cu_arg_value.cu_arg_double =
          is_long ? static_cast<double>(va_arg(*list, long double)) : va_arg(*list, double);
    } else {
      *argument = next_integer(conversion, list);
    }
  }
  return ZELK_SUCCESS;
}

int zk_record_message(zk_recorder_t* recorder, const char* cause, const char* details, zk_eid_t eid, const char* format,
                      ...) {
  arguments_t arguments = {};
  zk_eid_t made = {};
  int result = recorder != nullptr ? ZELK_SUCCESS : ZELK_INV_PARAM3;
  if (result == ZELK_SUCCESS) result = format != nullptr ? parse_format(format, &arguments) : int{ZELK_INV_PARAM4};
  if (result == ZELK_SUCCESS) {
    va_list list;
    va_start(list, format);
    result = read_values(&list, &arguments);
    va_end(list);
  }
  if (result == ZELK_SUCCESS) {
    zk_incident_t incident = {};
    incident.default_message = format;
    incident.arguments = arguments.values.data();
    incident.argument_count = arguments.count;
    incident.details = details;
    incident.associated_eid = cause;
    result = zk_record_incident(0, nullptr, recorder, &incident, made);
  }
  for (uint32_t i = 0; i < arguments.count; ++i) free(arguments.copies[i]);
  if (eid != nullptr) std::memcpy(eid, made, sizeof made); /* last: its text may be the cause */
  return result;
}
