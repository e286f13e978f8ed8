/* format.cpp - the input is a value of 8 bytes and a format, which gets arguments of every type. */
#include <algorithm>
#include <bit>
#include <cstring>

#include "fuzz.h"
#include "zk_conversion.h"

static std::string format(const char* text, cu_error_arg_t* arguments, uint32_t count) {
  const cu_error_t error = {1, nullptr, "", 1, 1, text, count, arguments};
  char* made = nullptr;
  FUZZ_EXPECT(cu_get_errmsg_1(&error, &made) == 0 && made != nullptr);
  const std::string copy = made;
  free(made);
  return copy;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
/* A number's conversion at the start of a text comes out as the C library has it, which needs a length. */
static void compare(const char* text, int64_t value) {
  if (*text != '%') return;
  const zk_conversion conversion = zk_parse_conversion(text);
  const bool is_double = std::strchr("aAeEfFgG", conversion.letter) != nullptr;
  if (conversion.kind != ZK_CONVERSION_ARGUMENT || conversion.numbered || conversion.has_length ||
      std::max(conversion.width, conversion.precision) > ZK_CONVERSION_MAX ||
      (!is_double && std::strchr("diouxX", conversion.letter) == nullptr))
    return;
  std::string ours(conversion.text), theirs = ours;
  char expected[4096];
  cu_error_arg_t argument = {is_double ? CU_ERROR_ARG_DOUBLE : CU_ERROR_ARG_LONG_LONG, {.cu_arg_long_long = value}};
  if (!is_double) theirs.insert(theirs.size() - 1, "ll");
  if (is_double)
    snprintf(expected, sizeof expected, theirs.c_str(), std::bit_cast<double>(value));
  else
    snprintf(expected, sizeof expected, theirs.c_str(), static_cast<long long>(value));
  FUZZ_EXPECT(format(ours.c_str(), &argument, 1) == expected);
}
#pragma GCC diagnostic pop

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr int32_t TYPES = 9; /* two more than there are */
  int64_t value = 0;
  if (size < sizeof value) return 0;
  std::memcpy(&value, data, sizeof value);
  const std::string text(data + sizeof value, data + size);
  std::string string = text.substr(0, 40);
  cu_error_arg_t arguments[TYPES] = {};
  for (int32_t type = 0; type < TYPES; ++type) arguments[type] = {type, {.cu_arg_long_long = value}};
  arguments[CU_ERROR_ARG_CHAR_STR].cu_arg_value.cu_arg_char_str = value != 0 ? string.data() : nullptr;
  format(text.c_str(), arguments, TYPES);
  compare(text.c_str(), value);
  return 0;
}
