/* SPDX-License-Identifier: MIT */
/* calls.h - routines called as text files say, tests/golden/NAME/FILE.calls, which read like documentation: a call with its
 * result, then what it traces (of other routines only the names), what it prints (behind "|"), and what it gives to its caller.
 *
 *   # a comment
 *   needs ABILITY        what the machine must have, or nothing of the file is tried
 *   NAME=value           an environment variable, which stays
 *   a line that begins with a small letter  sets up something for the calls that follow up to an empty line, or for all
 *                        calls when there is none up to the first empty line; the tests say what
 *   zk_routine(WORDS)    a call, without the trace pair; FOLDER is a folder of the test's own
 *
 * With RENEW_GOLDEN in the environment the files are written anew. */
#ifndef CALLS_H
#define CALLS_H

#include <filesystem>

#include "support.h"

/* A call with the words of its line. */
struct call {
  int active;
  const char* file;
  std::vector<std::string> words;

  const char* text(size_t index) const { return words.at(index) == "NULL" ? nullptr : words[index].c_str(); }
  long long large(size_t index) const { return std::stoll(words.at(index), nullptr, 0); }
  int number(size_t index) const { return static_cast<int>(large(index)); }
  template <typename Output>
  Output* at(size_t index, Output* output) const {
    return words.at(index) == "NULL" ? nullptr : output;
  }
};

#define ROUTINE(name, ...)                                                                           \
  {                                                                                                  \
#name, [](const call& c) { return static_cast<long long>(name(c.active, c.file, __VA_ARGS__)); } \
  }
#define UNTRACED(name, ...)                                                        \
  {                                                                                \
#name, [](const call& c) { return static_cast<long long>(name(__VA_ARGS__)); } \
  }

/* What the calls of a file are about. */
struct subject {
  std::map<std::string, long long (*)(const call&)> routines;
  std::map<std::string, void (*)(const std::string& details)> situations; /* by the first word of their line */
  void (*begin)();                                                        /* before each call and its situation */
  std::string (*given)(); /* what a call gave; releases what it was handed */
};

/* The words of each of the items that commas separate. */
std::vector<std::vector<std::string>> items(const std::string& details);

void expect_calls(const std::filesystem::path& file, const subject& about);
std::vector<std::filesystem::path> files_of_calls(const std::string& folder);
inline std::string name_of_calls(const testing::TestParamInfo<std::filesystem::path>& file) {
  return file.param.stem();
}

#endif
