/* SPDX-License-Identifier: MIT */
/* options.h - the command line of a companion command, by a table: parsing it, its help, and what is wrong with it. */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "message.h"

/* Says what is wrong with the value of an option; the empty text for nothing. */
using option_check_t = std::string (*)(const std::string& value);

/* An option, and where it is put: a flag, a text or a number. Of one that is given twice the last holds. */
struct option_t {
  char letter;               /* 0 for none */
  const char* name;          /* of its long form */
  std::string value;         /* what --help calls its value, empty for none */
  const char* default_value; /* of an option that may be given without its value, else null */
  tool_message_t meaning;
  bool* flag;
  std::string* text;
  option_check_t check; /* of a text; null for anything */
  int32_t* number;
  int32_t low, high; /* of a number */
};

/* Rows of the table. */
option_t flag_option(char letter, const char* name, tool_message_t meaning, bool* flag);
option_t text_option(char letter, const char* name, const std::string& value, tool_message_t meaning, std::string* text,
                     option_check_t check = nullptr);
option_t number_option(char letter, const char* name, const std::string& value, tool_message_t meaning, int32_t* number,
                       int32_t low, int32_t high, const char* default_value = nullptr);

/* The check of a text that may not be empty. */
std::string empty_mistake(const std::string& value);

/* Parses a whole number in plain decimal. */
bool parse_number(const std::string& text, int32_t low, int32_t high, int32_t* number);

/* An argument that is no option. */
struct operand_t {
  const char* name;
  bool is_required;
  bool is_repeated; /* the last one may be */
  tool_message_t meaning;
};

/* A command line as a command takes it. Each command has --help and --version, which are not in the table. */
struct command_line_t {
  const char* command;
  tool_message_t about;
  std::vector<operand_t> operands;
  bool ends_at_operand; /* what follows the first operand is no option */
  std::vector<option_t> options;
};

/* Parses a command line. Returns the exit status where it ends the run: after --help, --version, and misuse, which is
 * reported. */
std::optional<int> parse_options(const command_line_t& line, int argc, char** argv, std::vector<std::string>* operands);
