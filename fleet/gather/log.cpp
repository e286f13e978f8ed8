/* SPDX-License-Identifier: MIT */
/* log.cpp - what is said of the work, on standard error, from where the journal takes it. */
#include <array>
#include <cstdarg>
#include <cstdio>

#include "gather.h"

void say(const char* format, ...) {
  std::array<char, 1024> text;
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text.data(), text.size(), format, arguments);
  va_end(arguments);
  std::fprintf(stderr, "zelk-gather: %s\n", text.data());
}

std::string shown(const std::string& text) {
  std::string printable = text;
  for (char& character : printable)
    if (character < ' ' || character > '~') character = '?';
  return printable;
}
