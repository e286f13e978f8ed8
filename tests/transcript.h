/* SPDX-License-Identifier: MIT */
/* transcript.h - what the routines say, in files that read like documentation: tests/golden/NAME.calls has a call with its
 * result, its outputs and what it traces, one call after another. A test makes the calls and compares. With
 * RENEW_GOLDEN in the environment it writes the file instead. */
#ifndef TRANSCRIPT_H
#define TRANSCRIPT_H

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <utility>

#include "support.h"

/* The files of a folder, or, for "/proc/self/fd", what this process holds open. */
inline size_t count_files(const std::string& folder) {
  return static_cast<size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

struct transcript {
  std::string name;
  bool brief = false; /* only the names of the routines that a call leads to, since other files have what they say */
  std::string text = {};
  std::vector<std::pair<std::string, std::string>> places =
      {}; /* what differs from run to run, and what stands for it */

  /* Notes a call, which is made twice: without tracing, then with it. */
  template <typename Call>
  transcript& note(const std::string& words, Call&& call) {
    const std::string file = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=16384\n"), unused = scratch() + "/unused";
    const int untraced = call(2, unused.c_str()), result = call(1, file.c_str());
    EXPECT_EQ(untraced, result) << words;
    text += (text.empty() ? "" : "\n") + words + " = " + std::to_string(result) + "\n";
    const std::string routine = words.substr(0, words.find_first_of("( "));
    for (const std::string& entry : trace_entries(file)) {
      const std::string traced_by = entry.substr(0, entry.find('\n')), lines = entry.substr(traced_by.size() + 1);
      if (traced_by != routine && !text.ends_with("    " + traced_by + "\n")) text += "    " + traced_by + "\n";
      if (traced_by == routine || !brief) text += lines;
    }
    return *this;
  }
  /* Notes the values of outputs. */
  template <typename... Values>
  void gives(const Values&... values) {
    std::ostringstream line;
    ((line << " " << values), ...);
    text += "    gives" + line.str() + "\n";
  }
  void compare() {
    for (const auto& [place, stands] : places)
      for (size_t at; (at = text.find(place)) != text.npos;) text.replace(at, place.size(), stands);
    const std::string file = std::filesystem::path(__FILE__).parent_path() / "golden" / (name + ".calls");
    if (std::getenv("RENEW_GOLDEN") != nullptr) std::ofstream(file) << text;
    EXPECT_EQ(text, contents(file)) << file;
  }
};

/* CALL(transcript, routine, arguments behind the trace pair). */
#define CALL(said, routine, ...)             \
  (said).note(#routine "(" #__VA_ARGS__ ")", \
              [&](int active, const char* file) { return routine(active, file, __VA_ARGS__); })

#endif
