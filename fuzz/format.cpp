/* SPDX-License-Identifier: MIT */
/* format.cpp - the input is a value of 8 bytes and a format, which gets arguments of every type. */
#include <cstring>

#include "fuzz.h"

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
  const cu_error_t error = {1, nullptr, "", 1, 1, text.c_str(), TYPES, arguments};
  const std::string filled = fuzz_message(error), plain = text.substr(0, std::strcspn(text.c_str(), "%"));
  FUZZ_EXPECT(filled.starts_with(plain)); /* what comes before the first conversion */
  return 0;
}
