/* SPDX-License-Identifier: MIT */
/* selection.cpp - decides which incidents are wanted. */
#include "selection.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <cwchar>
#include <cwctype>

#include "message.h"
#include "when.h"

/* One moment for the whole run, from which "-2h" counts. */
static int64_t run_time() {
  static const int64_t now = std::time(nullptr);
  return now;
}

std::string time_mistake(const std::string& text) {
  int64_t seconds = 0;
  size_t place = 0;
  if (parse_when(text, run_time(), &seconds, &place)) return "";
  return message_text(TOOL_MSG_NOT_A_TIME, {text, std::to_string(place + 1)});
}

/* An address as inet_ntop writes it, empty for none. */
static std::string address_of(const std::string& text) {
  std::array<unsigned char, sizeof(in6_addr)> address;
  std::array<char, INET6_ADDRSTRLEN> written = {};
  for (int family : {AF_INET, AF_INET6})
    if (inet_pton(family, text.c_str(), address.data()) == 1) {
      inet_ntop(family, address.data(), written.data(), written.size());
      return written.data();
    }
  return "";
}

std::string node_mistake(const std::string& text) {
  return address_of(text).empty() ? message_text(TOOL_MSG_NOT_AN_ADDRESS, {text}) : "";
}

/* Whether a pattern has a capital of the locale; what stands behind a backslash is none, as in "\\S". */
static bool has_capital(std::string_view pattern) {
  std::mbstate_t state = {};
  for (size_t at = 0; at < pattern.size();) {
    wchar_t character = L'\0';
    const size_t size = std::mbrtowc(&character, pattern.data() + at, pattern.size() - at, &state);
    const bool is_character = size != 0 && size <= pattern.size() - at;
    if (is_character && std::iswupper(static_cast<wint_t>(character)) != 0) return true;
    if (!is_character) state = {};
    at += pattern[at] == '\\' ? 2 : is_character ? size : 1;
  }
  return false;
}

/* Compiles a pattern. Without a capital it is for both cases; "^" and "$" stand for the ends of each line. */
static int compile_pattern(const std::string& pattern, regex_t* expression) {
  const int cases = has_capital(pattern) ? 0 : REG_ICASE;
  return regcomp(expression, pattern.c_str(), REG_EXTENDED | REG_NOSUB | REG_NEWLINE | cases);
}

std::string pattern_mistake(const std::string& text) {
  regex_t expression;
  const int error = compile_pattern(text, &expression);
  if (error == 0) {
    regfree(&expression);
    return "";
  }
  std::array<char, 256> reason;
  regerror(error, &expression, reason.data(), reason.size());
  size_t good = text.size(); /* the longest start of it that is a pattern by itself */
  while (good > 0 && compile_pattern(text.substr(0, --good), &expression) != 0) continue;
  return message_text(TOOL_MSG_NOT_A_PATTERN, {text, std::to_string(good + 1), reason.data()});
}

void prepare_selection(selection_t* selection) {
  size_t place = 0;
  if (!selection->since.empty()) parse_when(selection->since, run_time(), &selection->from, &place);
  if (!selection->until.empty()) parse_when(selection->until, run_time(), &selection->to, &place);
  const std::string& process = selection->process;
  const char* const behind = process.data() + process.size();
  const auto [end, error] = std::from_chars(process.data(), behind, selection->process_id);
  if (end != behind || error != std::errc{}) selection->process_id = NO_PROCESS_ID;
  selection->address = address_of(selection->node);
  if (!selection->pattern.empty()) compile_pattern(selection->pattern, &selection->expression);
}

bool is_selected(const selection_t& selection, const incident_t& incident) {
  if (incident.time < selection.from || incident.time >= selection.to) return false;
  if (!selection.process.empty() && incident.process != selection.process &&
      incident.process_id != selection.process_id)
    return false;
  if (!selection.product.empty() && incident.product != selection.product) return false;
  if (!selection.address.empty() && incident.node != selection.address) return false;
  if (selection.pattern.empty()) return true;
  auto is_found = [&](const std::string& text) {
    return regexec(&selection.expression, text.c_str(), 0, nullptr, 0) == 0;
  };
  return is_found(incident.description) || is_found(incident.details);
}
