/* SPDX-License-Identifier: MIT */
/* frame.cpp - parses what a node sends. */
#include "frame.h"

constexpr size_t NUMBER_DIGITS = 9;
constexpr size_t COMMAND_SIZE = 32;
constexpr size_t NAME_SIZE = 255;

static bool is_digit(char character) {
  return character >= '0' && character <= '9';
}

static bool is_letter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

/* The longest beginning of `bytes` that consists of such characters, of which one more than `limit` is looked at. */
static std::string_view span_of(std::string_view bytes, bool (*is_one)(char), size_t limit) {
  size_t size = 0;
  while (size < bytes.size() && size <= limit && is_one(bytes[size])) ++size;
  return bytes.substr(0, size);
}

/* Parses a number of up to nine digits, and moves `at` behind it. */
static frame_result_t parse_number(std::string_view bytes, size_t* at, int* number) {
  const std::string_view digits = span_of(bytes.substr(*at), is_digit, NUMBER_DIGITS);
  if (digits.size() > NUMBER_DIGITS) return FRAME_BAD;
  *at += digits.size();
  if (*at == bytes.size()) return FRAME_SHORT;
  if (digits.empty()) return FRAME_BAD;
  *number = 0;
  for (char digit : digits) *number = *number * 10 + (digit - '0');
  return FRAME_WHOLE;
}

static frame_result_t refuse(frame_result_t result, const char* reason, frame_t* frame) {
  frame->reason = reason;
  return result;
}

frame_result_t parse_frame(std::string_view bytes, frame_t* frame) {
  *frame = {};
  size_t at = 0;
  frame_result_t result = parse_number(bytes, &at, &frame->number);
  if (result != FRAME_WHOLE) return refuse(result, "no number", frame);
  if (bytes[at++] != ' ') return refuse(FRAME_BAD, "no blank behind the number", frame);

  frame->command = span_of(bytes.substr(at), is_letter, COMMAND_SIZE);
  if (frame->command.size() > COMMAND_SIZE) return refuse(FRAME_BAD, "a command that is too long", frame);
  at += frame->command.size();
  if (at == bytes.size()) return FRAME_SHORT;
  if (frame->command.empty() || bytes[at++] != ' ') return refuse(FRAME_BAD, "no command", frame);

  int length = 0;
  result = parse_number(bytes, &at, &length);
  if (result != FRAME_WHOLE) return refuse(result, "no length", frame);
  const size_t content_size = static_cast<size_t>(length);
  if (content_size > FRAME_CONTENT_MAX) return refuse(FRAME_BAD, "longer than 64 KiB", frame);
  if (content_size > 0) {
    if (bytes[at++] != ' ') return refuse(FRAME_BAD, "no blank behind the length", frame);
    if (bytes.size() - at <= content_size) return FRAME_SHORT;
    frame->content = bytes.substr(at, content_size);
    at += content_size;
  } else if (bytes[at] == ' ') { /* some write it all the same */
    if (++at == bytes.size()) return FRAME_SHORT;
  }
  if (bytes[at++] != '\n') return refuse(FRAME_BAD, "a length that is not its content's", frame);
  frame->size = at;
  return FRAME_WHOLE;
}

void append_frame(std::string* bytes, int* number, std::string_view command, std::string_view content) {
  *bytes += std::to_string(*number);
  *bytes += ' ';
  *bytes += command;
  *bytes += ' ';
  *bytes += std::to_string(content.size());
  if (!content.empty()) *bytes += ' ';
  *bytes += content;
  *bytes += '\n';
  *number = *number == FRAME_NUMBER_MAX ? 1 : *number + 1;
}

static bool is_of_name(char character) {
  return is_digit(character) || is_letter(character) || character == '-' || character == '.' || character == ':' ||
         character == '_';
}

/* The name, or nothing where it is none; "-" stands for nothing. */
static std::string_view name_of(std::string_view word) {
  const bool is_name = word.size() <= NAME_SIZE && span_of(word, is_of_name, NAME_SIZE).size() == word.size();
  return is_name && word != "-" ? word : std::string_view();
}

/* Parts the first word, which ends at a blank, from `text`. */
static bool next_word(std::string_view* text, std::string_view* word) {
  const size_t size = text->find(' ');
  if (size == text->npos || size == 0) return false;
  *word = text->substr(0, size);
  text->remove_prefix(size + 1);
  return true;
}

syslog_line_t split_message(std::string_view message) {
  enum { PRIORITY, TIME, HOST, PROGRAM, PLACE, ID, STRUCTURED, WORDS };
  std::string_view words[WORDS];
  std::string_view rest = message;
  for (std::string_view& word : words)
    if (!next_word(&rest, &word)) return {{}, {}, message};
  const std::string_view priority = words[PRIORITY];
  if (priority.front() != '<' || !priority.ends_with(">1") || words[STRUCTURED] != "-") return {{}, {}, message};
  return {name_of(words[HOST]), name_of(words[PLACE]), rest};
}

std::string make_message(std::string_view host, std::string_view place, std::string_view line) {
  std::string message = "<134>1 - ";
  message += host.empty() ? "-" : host;
  message += " zelk ";
  message += place.empty() ? "-" : place;
  message += " - - ";
  message += line.substr(0, FRAME_CONTENT_MAX - message.size());
  return message;
}
