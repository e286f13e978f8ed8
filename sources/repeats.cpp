/* SPDX-License-Identifier: MIT */
/* repeats.cpp - a file for each unit: a line "RECORDED PASSED-OVER SINCE RESULT" for each result. */
#include "repeats.h"

#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <fstream>

static constexpr int64_t HOUR = 3600;
static constexpr size_t RESULTS_MAX = 256;

std::vector<repeat_t> read_repeats(const std::string& folder, const std::string& unit) {
  std::vector<repeat_t> repeats;
  std::ifstream file(folder + "/" + unit);
  std::string line;
  while (repeats.size() < RESULTS_MAX && std::getline(file, line)) {
    repeat_t repeat = {};
    int end = 0;
    if (std::sscanf(line.c_str(), "%" SCNd64 " %" SCNu64 " %" SCNd64 " %n", &repeat.recorded, &repeat.passed_over,
                    &repeat.since, &end) != 3)
      continue;
    repeat.result = line.substr(static_cast<size_t>(end));
    repeats.push_back(repeat);
  }
  return repeats;
}

bool write_repeats(const std::string& folder, const std::string& unit, int64_t now,
                   const std::vector<repeat_t>& repeats) {
  const std::string path = folder + "/" + unit, made = folder + "/." + std::to_string(getpid());
  std::FILE* const file = std::fopen(made.c_str(), "we");
  if (file == nullptr) return false;
  for (const repeat_t& repeat : repeats)
    if (repeat.passed_over > 0 || now - repeat.recorded < HOUR)
      std::fprintf(file, "%" PRId64 " %" PRIu64 " %" PRId64 " %s\n", repeat.recorded, repeat.passed_over, repeat.since,
                   repeat.result.c_str());
  const bool is_written = std::fflush(file) == 0;
  std::fclose(file);
  if (is_written && std::rename(made.c_str(), path.c_str()) == 0) return true;
  const int error = errno;
  std::remove(made.c_str());
  errno = error;
  return false;
}

bool is_repeat(const std::string& result, int64_t now, std::vector<repeat_t>* repeats, repeat_t* told) {
  repeat_t* known = nullptr;
  for (repeat_t& repeat : *repeats)
    if (repeat.result == result) known = &repeat;
  if (known == nullptr)
    known = &repeats->emplace_back(repeat_t{.recorded = 0, .passed_over = 0, .since = 0, .result = result});
  if (now >= known->recorded && now - known->recorded < HOUR) { /* a clock that was set back starts anew */
    if (known->passed_over++ == 0) known->since = now;
    return true;
  }
  *told = *known;
  known->recorded = now;
  known->passed_over = 0;
  return false;
}
