/* SPDX-License-Identifier: MIT */
/* options.h - the command line of a companion command, by a table: parsing it, its help, and what is wrong with it. */
#ifndef OPTIONS_H
#define OPTIONS_H

#include <getopt.h>

#include <optional>
#include <string>
#include <vector>

#include "message.h"

/* Whether an option takes a value. */
enum class value_t { NONE, ANY, NOT_EMPTY, OPTIONAL };

struct option_t {
  int id;           /* its letter, or a number above 255 where it has none */
  const char* name; /* of its long form */
  value_t takes;
  std::string value; /* what --help calls its value */
  tool_message_t meaning;
};

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
  std::vector<option_t> options;
  bool ends_at_operand; /* what follows the first operand is no option */
};

/* The parsing of a command line: next_option for each option, then end_options. */
struct parser_t {
  const command_line_t* line;
  std::string letters;              /* the table as getopt_long takes it, */
  std::vector<struct option> names; /* with --help and --version */
  int argc;
  char** argv;
  const option_t* option;            /* the one that was parsed last */
  std::string value;                 /* of it, empty where it has none */
  bool has_value;                    /* an optional value was given */
  std::vector<std::string> operands; /* in their order */
  std::string unexpected;            /* the first argument that is no option, empty for none */
  std::string mistake;               /* what is wrong with an option, empty for nothing */
  bool asks_help, asks_version;
};

parser_t start_options(const command_line_t& line, int argc, char** argv);

/* Parses up to the next option of the table. Returns false at the end, and where a mistake ends the parsing. */
bool next_option(parser_t* parser);

/* Says what is wrong with the value of the last option, which ends the parsing; nothing where `reason` is empty. */
void refuse_value(parser_t* parser, const std::string& reason);

/* Returns the exit status where the command line ends the run: after --help, --version, and misuse, which is reported. */
std::optional<int> end_options(const parser_t& parser);

#endif
