/* SPDX-License-Identifier: MIT */
/* options.cpp - parses command lines by getopt_long, and shows their help. */
#include "options.h"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <cstring>

#include "command.h"

/* ---- The table ----------------------------------------------------------------------------------------------------- */

option_t flag_option(char letter, const char* name, tool_message_t meaning, bool* flag) {
  return {letter, name, "", nullptr, meaning, flag, nullptr, nullptr, nullptr, 0, 0};
}

option_t text_option(char letter, const char* name, const std::string& value, tool_message_t meaning, std::string* text,
                     option_check_t check) {
  return {letter, name, value, nullptr, meaning, nullptr, text, check, nullptr, 0, 0};
}

option_t number_option(char letter, const char* name, const std::string& value, tool_message_t meaning, int32_t* number,
                       int32_t low, int32_t high, const char* default_value) {
  return {letter, name, value, default_value, meaning, nullptr, nullptr, nullptr, number, low, high};
}

std::string empty_mistake(const std::string& value) {
  return value.empty() ? message_text(TOOL_MSG_EMPTY) : "";
}

bool parse_number(const std::string& text, int32_t low, int32_t high, int32_t* number) {
  const char* const behind = text.data() + text.size();
  const auto [end, error] = std::from_chars(text.data(), behind, *number);
  const bool is_padded = text.size() > 1 && text[0] == '0'; /* "010" is 8 to some */
  return error == std::errc{} && end == behind && !is_padded && *number >= low && *number <= high;
}

/* ---- Parsing ------------------------------------------------------------------------------------------------------- */

/* What getopt_long returns: the place of an option in the table from FIRST on, or one of these. */
enum { OPERAND = 1, HELP = 'h', VERSION = 256, FIRST };

/* What has been found on a command line. */
struct found_t {
  bool asks_help, asks_version;
  std::string unexpected; /* the first argument that is no option, empty for none */
  std::string mistake;    /* what is wrong with an option, empty for nothing */
};

static int argument_of(const option_t& option) {
  if (option.value.empty()) return no_argument;
  return option.default_value != nullptr ? optional_argument : required_argument;
}

/* The option that getopt_long says, null for none of the table. */
static const option_t* option_of(const command_line_t& line, int id) {
  for (const option_t& option : line.options)
    if (id == option.letter || id == FIRST + (&option - line.options.data())) return &option;
  return nullptr;
}

/* Its long name, null for none. */
static const char* name_of(const command_line_t& line, int id) {
  if (id == HELP) return "help";
  if (id == VERSION) return "version";
  const option_t* const option = option_of(line, id);
  return option != nullptr ? option->name : nullptr;
}

/* Puts the value where the option wants it. Returns what is wrong with it, or the empty text. */
static std::string set_option(const option_t& option, const char* given) {
  if (option.flag != nullptr) *option.flag = true;
  if (option.text != nullptr) {
    *option.text = given != nullptr ? given : "";
    return option.check != nullptr ? option.check(*option.text) : "";
  }
  if (option.number == nullptr) return "";
  const std::string value = given != nullptr ? given : option.default_value;
  if (parse_number(value, option.low, option.high, option.number)) return "";
  return message_text(TOOL_MSG_NOT_A_NUMBER, {value, std::to_string(option.low), std::to_string(option.high)});
}

/* Notes an argument that is no option. */
static void note_unexpected(const std::string& argument, found_t* found) {
  if (found->unexpected.empty()) found->unexpected = argument;
}

/* Notes what getopt_long refuses: `refused` is ':' for a missing value, '?' for a value that is not taken, or no option. */
static void note_refusal(const command_line_t& line, int refused, const char* argument, found_t* found) {
  const char* const name = name_of(line, optopt);
  const bool is_long = std::strncmp(argument, "--", 2) == 0;
  if (refused == ':')
    found->mistake = message_text(TOOL_MSG_VALUE_MISSING, {std::string("--") + name, option_of(line, optopt)->value});
  else if (is_long && name != nullptr)
    found->mistake = message_text(TOOL_MSG_VALUE_NOT_TAKEN, {name});
  else
    note_unexpected(is_long ? argument : std::string("-") + static_cast<char>(optopt), found);
}

/* Whether a long option is written in full. A part of its name would mean something else once there are more names. */
static bool is_written_in_full(const char* argument, const char* name) {
  return std::string_view(argument, std::strcspn(argument, "=")) == std::string("--") + name;
}

static found_t find_options(const command_line_t& line, int argc, char** argv, std::vector<std::string>* operands) {
  std::string letters = line.ends_at_operand ? "+:h" : "-:h"; /* the same whatever POSIXLY_CORRECT says */
  std::vector<option> names = {{"help", no_argument, nullptr, HELP}, {"version", no_argument, nullptr, VERSION}};
  for (const option_t& each : line.options) {
    const int argument = argument_of(each);
    if (each.letter != '\0') letters += each.letter + std::string(static_cast<size_t>(argument), ':');
    names.push_back({each.name, argument, nullptr, FIRST + static_cast<int>(&each - line.options.data())});
  }
  names.push_back({});

  found_t found = {};
  opterr = 0; /* what is wrong is said in the user's language */
  while (found.mistake.empty()) {
    int index = -1; /* of a long option in `names` */
    const int got = getopt_long(argc, argv, letters.c_str(), names.data(), &index);
    if (got == -1) break;
    if (got == OPERAND) {
      operands->emplace_back(optarg);
      continue;
    }
    const bool is_value_apart = index >= 0 && optarg != nullptr && optarg == argv[optind - 1];
    const char* const argument = argv[optind - (is_value_apart ? 2 : 1)];
    const bool is_refused = got == '?' || got == ':';
    const char* const name = name_of(line, is_refused ? optopt : got);
    const bool is_long = index >= 0 || (is_refused && std::strncmp(argument, "--", 2) == 0);
    if (is_long && name != nullptr && !is_written_in_full(argument, name)) {
      note_unexpected(argument, &found);
    } else if (is_refused) {
      note_refusal(line, got, argument, &found);
    } else if (got == HELP || got == VERSION) {
      (got == HELP ? found.asks_help : found.asks_version) = true;
    } else {
      const bool is_attached = index < 0 && optarg != nullptr && *optarg == '='; /* "-C=SIZE" */
      const option_t* const option = option_of(line, got);
      const std::string mistake =
          set_option(*option, optarg + (is_attached && option->default_value != nullptr ? 1 : 0));
      if (!mistake.empty()) found.mistake = std::string("--") + option->name + ": " + mistake;
    }
  }
  operands->insert(operands->end(), argv + optind, argv + argc);
  return found;
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
  if (option.letter != '\0') left += {'-', option.letter, ','};
  left += std::string("--") + option.name;
  if (!option.value.empty()) left += " " + option.value;
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
    std::string left = "  ";
    left += operand.name;
    if (operand.is_repeated) left += " ...";
    if (operand.is_required) left.append(" ").append(message_text(TOOL_MSG_HELP_REQUIRED));
    print_row(left, message_text(operand.meaning, {ZELK_STACK_DIR}));
  }
  std::printf("\n%s:\n", message_text(TOOL_MSG_HELP_OPTIONS).c_str());
  for (const option_t& option : line.options) print_option(option);
  print_option(flag_option('h', "help", TOOL_MSG_HELP_HELP, nullptr));
  print_option(flag_option('\0', "version", TOOL_MSG_HELP_VERSION, nullptr));
  std::printf("\n");
}

/* ---- The whole ----------------------------------------------------------------------------------------------------- */

std::optional<int> parse_options(const command_line_t& line, int argc, char** argv,
                                 std::vector<std::string>* operands) {
  const found_t found = find_options(line, argc, argv, operands);
  if (!found.mistake.empty()) return report_misuse(line.command, found.mistake);
  if (found.asks_version || found.asks_help) {
    if (found.asks_version)
      std::printf("%s " ZKVIEW_VERSION "\n", line.command);
    else
      print_help(line);
    return end_command(line.command, STATUS_DONE);
  }
  if (!found.unexpected.empty())
    return report_misuse(line.command, message_text(TOOL_MSG_UNEXPECTED_ARGUMENT, {found.unexpected}));
  for (size_t index = operands->size(); index < line.operands.size(); ++index)
    if (line.operands[index].is_required)
      return report_misuse(line.command, message_text(TOOL_MSG_IS_REQUIRED, {line.operands[index].name}));
  return {};
}
