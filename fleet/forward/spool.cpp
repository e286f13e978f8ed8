/* SPDX-License-Identifier: MIT */
/* spool.cpp - reads the files of the spool folder, and deletes those that are no longer needed. */
#include "spool.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

constexpr std::string_view SUFFIX = ".json";
constexpr size_t NUMBER_DIGITS = 30;
constexpr size_t STATE_SIZE = 100;

/* Whether the name is that of a file of the spool. */
static bool is_spool_name(std::string_view name) {
  if (!name.ends_with(SUFFIX)) return false;
  name.remove_suffix(SUFFIX.size());
  return !name.empty() && name.size() <= NUMBER_DIGITS && name.find_first_not_of("0123456789") == name.npos;
}

/* By number, so that a longer name is a later one. An empty name comes before all. */
static bool is_before(const std::string& name, const std::string& other) {
  return name.size() != other.size() ? name.size() < other.size() : name < other;
}

/* The first file behind that of this name, the oldest one behind an empty name; empty when there is none. */
static std::string find_file(const spool_t* spool, const std::string& name) {
  std::string found;
  DIR* const folder = opendir(spool->folder.c_str());
  if (folder == nullptr) return found;
  while (const dirent* entry = readdir(folder)) {
    const std::string candidate = entry->d_name;
    if (!is_spool_name(candidate) || (entry->d_type != DT_REG && entry->d_type != DT_UNKNOWN)) continue;
    if (is_before(name, candidate) && (found.empty() || is_before(candidate, found))) found = candidate;
  }
  closedir(folder);
  return found;
}

static std::string path_of(const spool_t* spool, const std::string& name) {
  return spool->folder + "/" + name;
}

static void close_file(spool_t* spool) {
  if (spool->fildes >= 0) close(spool->fildes);
  spool->fildes = -1;
  spool->read.clear();
  spool->begun.clear();
}

/* Opens the first file behind that of this name. Returns false when there is none. */
static bool open_file(spool_t* spool, const std::string& name) {
  close_file(spool);
  const std::string found = find_file(spool, name);
  if (found.empty()) return false;
  spool->fildes = open(path_of(spool, found).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
  struct stat status = {};
  if (spool->fildes < 0 || fstat(spool->fildes, &status) != 0 || !S_ISREG(status.st_mode)) {
    close_file(spool);
    return false;
  }
  spool->name = found;
  spool->at = 0;
  spool->has_successor = false;
  if (found == spool->acknowledged_name && spool->acknowledged <= status.st_size) spool->at = spool->acknowledged;
  return true;
}

/* Reads what `state` says: a name and an offset. It stands where nothing survives a loss of power, as lines need not. */
static void read_state(spool_t* spool) {
  const int fildes = open(spool->state.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fildes < 0) return;
  std::array<char, STATE_SIZE> text = {};
  const ssize_t size = read(fildes, text.data(), text.size() - 1);
  close(fildes);
  const char* const blank = size > 0 ? std::strchr(text.data(), ' ') : nullptr;
  if (blank == nullptr) return;
  const std::string name(text.data(), static_cast<size_t>(blank - text.data()));
  char* end = nullptr;
  const long long offset = std::strtoll(blank + 1, &end, 10);
  if (!is_spool_name(name) || offset < 0 || end == blank + 1 || *end != '\n') return;
  spool->acknowledged_name = name;
  spool->acknowledged = offset;
}

void open_spool(spool_t* spool) {
  read_state(spool);
  spool->is_noted = true;
}

void note_acknowledged(spool_t* spool) {
  if (spool->is_noted || spool->state.empty()) return;
  const std::string begun = spool->state + ".new";
  std::FILE* const file = std::fopen(begun.c_str(), "we");
  if (file == nullptr) return;
  std::fprintf(file, "%s %lld\n", spool->acknowledged_name.c_str(), static_cast<long long>(spool->acknowledged));
  if (std::fclose(file) == 0 && rename(begun.c_str(), spool->state.c_str()) == 0) spool->is_noted = true;
}

/* What stands before the first mark that waits for an answer has been acknowledged. */
static void pass_marks(spool_t* spool) {
  while (!spool->marks.empty() && !spool->marks.front().is_line) {
    const spool_mark_t& mark = spool->marks.front();
    spool->acknowledged_name = mark.name;
    spool->acknowledged = mark.end;
    spool->is_noted = false;
    if (mark.is_last) unlink(path_of(spool, mark.name).c_str());
    spool->marks.pop_front();
  }
}

void acknowledge_line(spool_t* spool) {
  if (spool->marks.empty()) return;
  spool->marks.front().is_line = false;
  pass_marks(spool);
}

void rewind_spool(spool_t* spool) {
  spool->marks.clear();
  close_file(spool);
}

/* Reads more of the file. Returns false at its end. */
static bool read_more(spool_t* spool) {
  std::array<char, 65536> bytes;
  ssize_t size = 0;
  do size = pread(spool->fildes, bytes.data(), bytes.size(), spool->at + static_cast<off_t>(spool->read.size()));
  while (size < 0 && errno == EINTR);
  if (size > 0) spool->read.append(bytes.data(), static_cast<size_t>(size));
  return size > 0;
}

static void mark_passed(spool_t* spool, bool is_last) {
  spool->marks.push_back({spool->name, spool->at, false, is_last});
  pass_marks(spool);
}

/* Takes the next line of the file, of which at most `limit` bytes are kept. Returns false when it is not there as a whole. */
static bool parse_line(spool_t* spool, size_t limit, spool_line_t* line) {
  size_t size = spool->read.find('\n');
  while (size == spool->read.npos) {
    const size_t searched = spool->read.size();
    if (!read_more(spool)) return false;
    size = spool->read.find('\n', searched);
    if (size == spool->read.npos && spool->read.size() > limit) {
      if (spool->begun.empty()) {
        spool->begun = spool->read.substr(0, limit);
        spool->begun_at = spool->at;
      }
      spool->at += static_cast<off_t>(spool->read.size());
      spool->read.clear();
    }
  }
  const bool is_long = !spool->begun.empty();
  line->line = is_long ? spool->begun : spool->read.substr(0, std::min(size, limit));
  line->place = spool->name + ":" + std::to_string(is_long ? spool->begun_at : spool->at);
  spool->begun.clear();
  spool->read.erase(0, size + 1);
  spool->at += static_cast<off_t>(size) + 1;
  return true;
}

bool next_line(spool_t* spool, size_t limit, spool_line_t* line) {
  for (;;) {
    if (spool->fildes < 0 && !open_file(spool, "")) return false;
    if (!parse_line(spool, limit, line)) {
      /* Only the newest file grows. Whether there is a later one is asked before its end is looked for once more. */
      if (!spool->has_successor) {
        spool->has_successor = !find_file(spool, spool->name).empty();
        if (!spool->has_successor) return false;
        continue;
      }
      const std::string name = spool->name;
      mark_passed(spool, true);
      if (!open_file(spool, name)) return false;
      continue;
    }
    /* The first line of a file, and a line that was cut short: one of zkexport ends in "}". */
    if (line->line.starts_with('#') || line->line.ends_with('#')) {
      mark_passed(spool, false);
      continue;
    }
    spool->marks.push_back({spool->name, spool->at, true, false});
    return true;
  }
}
