/* SPDX-License-Identifier: MIT */
/* format_once.cpp - C++20: shows a description, and a number in the digits of Error IDs. */
#include <qx_cu.h>
#include <qx_zelk.h>

#include <array>
#include <cstdio>
#include <cstdlib>

int main() {
  std::array<char, 7> digits = {};
  if (zk_l64a_r(64, digits.data(), 6) != 0) return 1;
  cu_error_arg_t disk = {.cu_arg_type = CU_ERROR_ARG_INT, .cu_arg_value = {.cu_arg_int = 7}};
  cu_error_t error = {};
  error.cu_msg_default = "disk %1$02d";
  error.cu_arg_cnt = 1;
  error.cu_args = &disk;
  char* text = nullptr;
  if (cu_get_errmsg_1(&error, &text) != 0) return 1;
  std::printf("%s %s\n", text, digits.data());
  std::free(text);
}
