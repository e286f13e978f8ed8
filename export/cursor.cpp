/* SPDX-License-Identifier: MIT */
/* cursor.cpp - reads and writes the cursor: lines of the mark of a stack and its path, between a first and a last line by
 * which a file that is cut short, or another one, is known.
 *
 *   zkexport cursor 1
 *   INODE OFFSET FINGERPRINT PATH      numbers in decimal; in PATH "%" and bytes outside ' ' to '~' as %XX
 *   end */
#include "cursor.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "export.h"
#include "message.h"
#include "zk_io.h"

static constexpr std::string_view FIRST_LINE = "zkexport cursor 1";
static constexpr std::string_view LAST_LINE = "end";
static constexpr off_t LARGEST = 1024 * 1024 * 1024; /* bytes: 1,000,000 stacks of the longest names */

static constexpr ptrdiff_t GONE_MAX = 100; /* marks of stacks that have gone */

/* ---- Lines --------------------------------------------------------------------------------------------------------- */

static std::string escaped(std::string_view path) {
  static constexpr char DIGITS[] = "0123456789ABCDEF";
  std::string text;
  for (char character : path) {
    const auto byte = static_cast<unsigned char>(character);
    if (byte >= ' ' && byte <= '~' && byte != '%')
      text += character;
    else
      text += {'%', DIGITS[byte >> 4], DIGITS[byte & 0xF]};
  }
  return text;
}

static bool unescape(std::string_view text, std::string* path) {
  path->clear();
  for (size_t at = 0; at < text.size(); ++at) {
    unsigned int byte = static_cast<unsigned char>(text[at]);
    if (byte < ' ' || byte > '~') return false;
    if (byte == '%') {
      if (at + 2 >= text.size()) return false;
      const char* const digits = text.data() + at + 1;
      const auto [end, error] = std::from_chars(digits, digits + 2, byte, 16);
      if (end != digits + 2 || byte == 0) return false;
      at += 2;
    }
    *path += static_cast<char>(byte);
  }
  return !path->empty();
}

/* Parses a number and the blank behind it. */
template <typename Number>
static bool parse_number(std::string_view* line, Number* number) {
  const auto [end, error] = std::from_chars(line->data(), line->data() + line->size(), *number);
  const size_t size = static_cast<size_t>(end - line->data());
  if (error != std::errc{} || size == line->size() || *end != ' ') return false;
  line->remove_prefix(size + 1);
  return true;
}

/* Splits a line, without its end, from the start of a text; false where there is none. */
static bool split_line(std::string_view* text, std::string_view* line) {
  const size_t size = text->find('\n');
  if (size == text->npos) return false;
  *line = text->substr(0, size);
  text->remove_prefix(size + 1);
  return true;
}

static bool parse_mark(std::string_view line, std::map<std::string, mark_t>* marks) {
  mark_t mark = {};
  std::string path;
  if (!parse_number(&line, &mark.inode) || !parse_number(&line, &mark.offset) ||
      !parse_number(&line, &mark.fingerprint))
    return false;
  return mark.offset >= 0 && unescape(line, &path) && marks->insert({path, mark}).second;
}

static bool parse_marks(std::string_view text, std::map<std::string, mark_t>* marks) {
  std::string_view line;
  if (!split_line(&text, &line) || line != FIRST_LINE) return false;
  while (split_line(&text, &line)) {
    if (line == LAST_LINE) return text.empty();
    if (!parse_mark(line, marks)) return false;
  }
  return false;
}

/* ---- The file ------------------------------------------------------------------------------------------------------ */

bool load_cursor(cursor_t* cursor, std::string* reason) {
  for (int links = 0; links < LINKS_MAX && follow_link(&cursor->file); ++links) continue; /* the link stays */
  const int fildes = zk_open_regular(cursor->file.c_str(), O_RDONLY);
  if (fildes == -1 && errno == ENOENT) return true;
  struct stat status;
  if (fildes == -1 || fstat(fildes, &status) != 0) {
    *reason = std::strerror(errno);
    if (fildes != -1) close(fildes);
    return false;
  }
  const bool is_regular = S_ISREG(status.st_mode);
  std::string text(is_regular && status.st_size <= LARGEST ? static_cast<size_t>(status.st_size) : 0, '\0');
  text.resize(zk_read(fildes, text.data(), text.size(), 0));
  close(fildes);
  if (parse_marks(text, &cursor->marks)) return true;
  if (!is_regular)
    *reason = message_text(TOOL_MSG_NOT_REGULAR);
  else if (holds_stack(cursor->file.c_str()))
    *reason = message_text(TOOL_MSG_IS_STACK);
  else
    *reason = message_text(TOOL_MSG_NO_CURSOR) + "; " + message_text(TOOL_MSG_HOW_TO_BEGIN_ANEW);
  return false;
}

/* Whether a stack was one of the stacks' folder, and is not any more. */
static bool is_gone(const std::string& path, const std::vector<std::string>& there) {
  constexpr std::string_view FOLDER = ZELK_STACK_DIR "/";
  const bool is_listed = path.starts_with(FOLDER) && path.find('/', FOLDER.size()) == path.npos;
  return is_listed && !std::binary_search(there.begin(), there.end(), path.substr(FOLDER.size()));
}

bool forget_gone(cursor_t* cursor, const std::vector<std::string>& there) {
  const auto is_old = [&](const auto& mark) { return is_gone(mark.first, there); };
  if (std::count_if(cursor->marks.begin(), cursor->marks.end(), is_old) <= GONE_MAX) return false;
  std::erase_if(cursor->marks, is_old);
  return true;
}

bool save_cursor(const cursor_t& cursor) {
  if (cursor.file.empty()) return true;
  const std::string made = cursor.file + ".new";
  std::string text(FIRST_LINE);
  text += '\n';
  for (const auto& [path, mark] : cursor.marks)
    text += std::to_string(mark.inode) + ' ' + std::to_string(mark.offset) + ' ' + std::to_string(mark.fingerprint) +
            ' ' + escaped(path) + '\n';
  text += LAST_LINE;
  text += '\n';

  unlink(made.c_str()); /* left by a run that was killed here */
  const int fildes = open(made.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0666);
  bool is_good = fildes != -1 && zk_write(fildes, text.data(), text.size());
  if (fildes != -1 && close(fildes) != 0) is_good = false;
  if (is_good && std::rename(made.c_str(), cursor.file.c_str()) == 0) return true;
  const std::string reason = std::strerror(errno);
  complain(full_path(cursor.file), reason);
  if (fildes != -1) unlink(made.c_str());
  return false;
}

static const mark_t* mark_of_file(const cursor_t& cursor, const std::string& path, ino_t inode) {
  struct stat there;
  const auto known = cursor.marks.find(path);
  if (known != cursor.marks.end() && known->second.inode == inode) return &known->second;
  for (const auto& [other, mark] : cursor.marks)
    if (mark.inode == inode && (stat(other.c_str(), &there) != 0 || there.st_ino != inode)) return &mark;
  return known != cursor.marks.end() ? &known->second : nullptr;
}

const mark_t* find_mark(const cursor_t& cursor, const std::string& path, int fildes) {
  struct stat own;
  return fstat(fildes, &own) == 0 ? mark_of_file(cursor, path, own.st_ino) : nullptr;
}

void move_mark(cursor_t* cursor, const std::string& path, mark_t mark) {
  struct stat there;
  mark_t* const own = &cursor->marks[path];
  const mark_t former = *own;
  if (former.inode == mark.inode) return;
  for (auto& [other, old] : cursor->marks) {
    if (old.inode != mark.inode) continue;
    there.st_ino = 0;
    stat(other.c_str(), &there);
    if (there.st_ino != mark.inode) old = former; /* which may be that of a file between two names */
  }
  *own = mark;
}

void move_marks(cursor_t* cursor, const std::vector<std::string>& paths) {
  struct stat own;
  std::map<std::string, mark_t> moved;
  for (const std::string& path : paths) {
    const mark_t* const mark = stat(path.c_str(), &own) == 0 ? mark_of_file(*cursor, path, own.st_ino) : nullptr;
    if (mark != nullptr && mark->inode == own.st_ino) moved[path] = *mark;
  }
  for (const auto& [path, mark] : moved) move_mark(cursor, path, mark);
}
