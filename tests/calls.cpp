/* SPDX-License-Identifier: MIT */
#include "calls.h"

#include <sstream>

/* The words of a call: its routine, and its arguments. */
static std::vector<std::string> parsed(const std::string& line) {
  std::vector<std::string> all;
  for (size_t at = 0; (at = line.find_first_not_of("(,) ", at)) != line.npos;) {
    const bool is_quoted = line[at] == '"';
    const size_t end = is_quoted ? line.find('"', at + 1) : line.find_first_of("(,) ", at);
    all.push_back(unescaped(line.substr(at + is_quoted, end - at - is_quoted)));
    at = end + is_quoted;
  }
  return all;
}

/* Trace entries of a routine, and the names of others. */
static std::string traced_lines(const std::string& trace, const std::string& routine) {
  std::string text;
  for (const std::string& entry : trace_entries(trace)) {
    const std::string other = entry.substr(0, entry.find('\n')), name = "    " + other + "\n";
    const bool is_copy = routine == "zk_make_dump_file_copy"; /* which traces by another name */
    if (other != routine && !text.ends_with(name)) text += name;
    if (other == routine || is_copy) text += entry.substr(other.size() + 1);
  }
  return text;
}

/* What is printed, behind a margin. */
static std::string quoted(const std::string& printed_lines) {
  std::istringstream lines(printed_lines);
  std::string text;
  for (std::string line; std::getline(lines, line);) text += line.empty() ? "    |\n" : "    | " + line + "\n";
  return text;
}

/* Makes a call, first without tracing and then with it, which must make no difference; says what comes of it. */
static std::string made(const std::string& line, const std::vector<std::string>& situation, const subject& about) {
  const std::string trace = new_file(EMPTY_TRACE);
  std::vector<std::string> words = parsed(replaced(line, "FOLDER", scratch()));
  const std::string routine = words.at(0);
  words.erase(words.begin());
  std::string said[2];
  for (const bool is_traced : {false, true}) {
    about.begin();
    for (const std::string& each : situation) {
      const auto [verb, details] = split(each);
      about.situations.at(verb)(details);
    }
    const size_t open_files = open_descriptors();
    long long result = 0;
    const std::string out = printed([&] {
      result = about.routines.at(routine)({is_traced ? 1 : 2, trace.c_str(), words});
    });
    said[is_traced] = quoted(out) + about.given();
    EXPECT_EQ(open_descriptors(), open_files) << line;
    words.push_back(std::to_string(result));
  }
  EXPECT_EQ(words.back(), words.end()[-2]) << line;
  EXPECT_EQ(said[0], said[1]) << line;
  return line + " = " + words.back() + "\n" + traced_lines(trace, routine) + said[1];
}

void expect_calls(const std::filesystem::path& file, const subject& about) {
  const std::string expected = contents(file);
  std::istringstream lines(expected);
  std::string text;
  std::vector<std::string> general, situation;
  bool has_calls = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(" ") || line.starts_with("\t")) continue; /* what came of a call */
    if (line.find(") = ") != line.npos && line[0] != '#') {
      text += made(line.substr(0, line.find(") = ") + 1), situation, about);
      has_calls = true;
      continue;
    }
    text += line + "\n";
    const auto [first, rest] = split(line);
    const size_t assignment = first.find('=');
    if (first == "needs" && !has(rest)) GTEST_SKIP() << rest << " cannot be had";
    if (line.empty()) {
      if (!has_calls) general = situation;
      situation = general;
    } else if (std::isupper(line[0]) != 0) {
      setenv(line.substr(0, assignment).c_str(), line.substr(assignment + 1).c_str(), 1);
      tzset();
    } else if (line[0] != '#' && first != "needs") {
      situation.push_back(line);
    }
  }
  about.begin(); /* the system is itself again */
  text = replaced(text, scratch(), "FOLDER");
  expect_golden(file, text);
}

std::vector<std::vector<std::string>> items(const std::string& details) {
  std::vector<std::vector<std::string>> all;
  std::istringstream stream(details);
  for (std::string item; std::getline(stream, item, ',');) all.push_back(words(item));
  return all;
}

std::vector<std::filesystem::path> files_of_calls(const std::string& folder) {
  return {std::filesystem::directory_iterator(GOLDEN_FOLDER "/" + folder), {}};
}
