/* SPDX-License-Identifier: MIT */
/* options.cpp - parses command lines by getopt_long, and shows their help. */
#include "options.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "command.h"

/* Numbers of what every command has, and of what getopt_long gives operands. */
enum { HELP = 'h', VERSION = 1000, OPERAND = 1 };

/* ---- Parsing ------------------------------------------------------------------------------------------------------- */

static int argument_of(value_t takes) {
  if (takes == value_t::NONE) return no_argument;
  return takes == value_t::OPTIONAL ? optional_argument : required_argument;
}

/* The options as getopt_long takes them: letters, and long names. */
static std::string letters_of(const command_line_t& line) {
  std::string letters = line.ends_at_operand ? "+:h" : "-:h"; /* the same whatever POSIXLY_CORRECT says */
  for (const option_t& option : line.options)
    if (option.id <= UINT8_MAX)
      letters += static_cast<char>(option.id) + std::string("::", static_cast<size_t>(argument_of(option.takes)));
  return letters;
}
static std::vector<option> names_of(const command_line_t& line) {
  std::vector<option> names = {{"help", no_argument, nullptr, HELP}, {"version", no_argument, nullptr, VERSION}};
  for (const option_t& each : line.options) names.push_back({each.name, argument_of(each.takes), nullptr, each.id});
  names.push_back({});
  return names;
}

static const option_t* option_of(const command_line_t& line, int id) {
  for (const option_t& option : line.options)
    if (option.id == id) return &option;
  return nullptr;
}

/* The long name of an option by its number, null where there is none. */
static const char* name_of(const command_line_t& line, int id) {
  if (id == HELP) return "help";
  if (id == VERSION) return "version";
  const option_t* const option = option_of(line, id);
  return option != nullptr ? option->name : nullptr;
}

parser_t start_options(const command_line_t& line, int argc, char** argv) {
  opterr = 0; /* what is wrong is said in the user's language */
  optind = 0; /* from the start, also where another line was parsed before */
  return {.line = &line,
          .letters = letters_of(line),
          .names = names_of(line),
          .argc = argc,
          .argv = argv,
          .option = nullptr,
          .value = "",
          .has_value = false,
          .operands = {},
          .unexpected = "",
          .mistake = "",
          .asks_help = false,
          .asks_version = false};
}

static void note_unexpected(parser_t* parser, const std::string& argument) {
  if (parser->unexpected.empty()) parser->unexpected = argument;
}

/* Notes an argument that cannot be parsed as an option. `found` is what getopt_long said of it. */
static void note_mistake(parser_t* parser, int found, const char* argument) {
  const char* const name = name_of(*parser->line, optopt);
  const bool is_long = std::strncmp(argument, "--", 2) == 0;
  if (found == ':')
    parser->mistake =
        message_text(TOOL_MSG_VALUE_MISSING, {std::string("--") + name, option_of(*parser->line, optopt)->value});
  else if (is_long && name != nullptr)
    parser->mistake = message_text(TOOL_MSG_VALUE_NOT_TAKEN, {name});
  else
    note_unexpected(parser, is_long ? argument : std::string("-") + static_cast<char>(optopt));
}

/* Whether a long option was written in full. Part of a name would mean something else once there are more names. */
static bool is_written_in_full(const char* argument, const char* name) {
  const std::string_view written(argument, std::strcspn(argument, "="));
  return written == std::string("--") + name;
}

bool next_option(parser_t* parser) {
  const command_line_t& line = *parser->line;
  while (parser->mistake.empty()) {
    int index = -1; /* of a long option in the names */
    const int found = getopt_long(parser->argc, parser->argv, parser->letters.c_str(), parser->names.data(), &index);
    if (found == -1) break;
    if (found == OPERAND) {
      parser->operands.emplace_back(optarg);
      continue;
    }
    const bool is_value_apart = index >= 0 && optarg != nullptr && optarg == parser->argv[optind - 1];
    const char* const argument = parser->argv[optind - (is_value_apart ? 2 : 1)];
    const int id = found == '?' || found == ':' ? optopt : found;
    const char* const name = name_of(line, id);
    const bool is_long = index >= 0 || (found != id && std::strncmp(argument, "--", 2) == 0);
    if (is_long && name != nullptr && !is_written_in_full(argument, name)) {
      note_unexpected(parser, argument);
    } else if (found == '?' || found == ':') {
      note_mistake(parser, found, argument);
    } else if (found == HELP) {
      parser->asks_help = true;
    } else if (found == VERSION) {
      parser->asks_version = true;
    } else {
      parser->option = option_of(line, found);
      parser->has_value = optarg != nullptr;
      parser->value = optarg != nullptr ? optarg : "";
      if (parser->option->takes != value_t::NOT_EMPTY || !parser->value.empty()) return true;
      refuse_value(parser, message_text(TOOL_MSG_EMPTY));
    }
  }
  parser->operands.insert(parser->operands.end(), parser->argv + optind, parser->argv + parser->argc);
  return false;
}

void refuse_value(parser_t* parser, const std::string& reason) {
  if (!reason.empty()) parser->mistake = std::string("--") + parser->option->name + ": " + reason;
}

/* ---- Help ---------------------------------------------------------------------------------------------------------- */

/* A row of two columns; one that is too long for the first takes a line of its own. */
static void print_row(const std::string& left, const std::string& meaning) {
  constexpr int COLUMN = 30;
  if (left.size() >= COLUMN)
    std::printf("%s\n%*s%s\n", left.c_str(), COLUMN, "", meaning.c_str());
  else
    std::printf("%-*s%s\n", COLUMN, left.c_str(), meaning.c_str());
}

static void print_option(const option_t& option) {
  std::string left = "  ";
  if (option.id <= UINT8_MAX) left += {'-', static_cast<char>(option.id), ','};
  left += std::string("--") + option.name;
  if (option.takes != value_t::NONE) left += " " + option.value;
  print_row(left, message_text(option.meaning, {ZELK_STACK_DIR}));
}

static void print_help(const command_line_t& line) {
  std::printf("%s\n", message_text(line.about).c_str());
  std::printf("%s: %s [%s]", message_text(TOOL_MSG_HELP_USAGE).c_str(), line.command,
              message_text(TOOL_MSG_HELP_OPTIONS_PLACE).c_str());
  for (const operand_t& operand : line.operands)
    std::printf(operand.is_required ? " %s%s" : " [%s%s]", operand.name, operand.is_repeated ? "..." : "");
  std::printf("\n\n%s:\n", message_text(TOOL_MSG_HELP_POSITIONALS).c_str());
  for (const operand_t& operand : line.operands) {
    const std::string repeated = operand.is_repeated ? " ..." : "";
    const std::string required = operand.is_required ? " " + message_text(TOOL_MSG_HELP_REQUIRED) : "";
    print_row(std::string("  ") + operand.name + repeated + required, message_text(operand.meaning, {ZELK_STACK_DIR}));
  }
  std::printf("\n%s:\n", message_text(TOOL_MSG_HELP_OPTIONS).c_str());
  for (const option_t& option : line.options) print_option(option);
  print_option({HELP, "help", value_t::NONE, "", TOOL_MSG_HELP_HELP});
  print_option({VERSION, "version", value_t::NONE, "", TOOL_MSG_HELP_VERSION});
  std::printf("\n");
}

/* ---- The end ------------------------------------------------------------------------------------------------------- */

/* What is wrong with a command line that asks for neither help nor version; empty for nothing. */
static std::string mistake_of(const parser_t& parser) {
  if (!parser.unexpected.empty()) return message_text(TOOL_MSG_UNEXPECTED_ARGUMENT, {parser.unexpected});
  size_t given = parser.operands.size();
  for (const operand_t& operand : parser.line->operands) {
    if (operand.is_required && given == 0) return message_text(TOOL_MSG_IS_REQUIRED, {operand.name});
    given -= given > 0 ? 1 : 0;
  }
  return "";
}

std::optional<int> end_options(const parser_t& parser) {
  const char* const command = parser.line->command;
  if (!parser.mistake.empty()) return report_misuse(command, parser.mistake);
  if (parser.asks_version || parser.asks_help) {
    if (parser.asks_version)
      std::printf("%s " ZKVIEW_VERSION "\n", command);
    else
      print_help(*parser.line);
    return end_command(command, STATUS_DONE);
  }
  const std::string mistake = mistake_of(parser);
  if (!mistake.empty()) return report_misuse(command, mistake);
  return {};
}
