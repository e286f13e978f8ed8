/* SPDX-License-Identifier: MIT */
/* description.h - what printf(1) takes, made into what an incident records: a text with conversions, and typed
 * arguments. */
#pragma once

#include <string>
#include <vector>

#include "qx_cu.h"

struct description_t {
  std::string text;
  std::vector<cu_error_arg_t> arguments; /* their texts are those of the `operands` they were made of */
};

/* Parses `format` as printf(1) does, with its escapes, and `operands` as the arguments of its conversions, which may be
 * numbered. Each conversion decides the kind of its argument; one that no conversion names is a text. Returns what is
 * wrong, or the empty text. */
std::string parse_description(const std::string& format, std::vector<std::string>* operands,
                              description_t* description);

/* Makes a description of a text as it stands, which takes no operands. Returns what is wrong, or the empty text. */
std::string plain_description(const std::string& text, const std::vector<std::string>& operands,
                              description_t* description);
