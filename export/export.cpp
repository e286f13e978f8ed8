/* SPDX-License-Identifier: MIT */
/* export.cpp - what all formats of zkexport share. */
#include "export.h"

#include <climits>
#include <cstring>

#include "command.h"
#include "json_line.h"
#include "zk_layout.h"
#include "zk_stack_file.h"
#include "zkstatus.h"

/* ---- Formats ------------------------------------------------------------------------------------------------------- */

static constexpr format_t FORMATS[] = {{.name = "json", .give = give_json, .can_follow = true},
                                       {.name = "tree", .give = give_tree, .can_follow = false},
                                       {.name = "dot", .give = give_dot, .can_follow = false},
                                       {.name = "html", .give = give_html, .can_follow = false}};

std::span<const format_t> formats() {
  return FORMATS;
}

const format_t* find_format(std::string_view name) {
  for (const format_t& format : FORMATS)
    if (format.name == name) return &format;
  return nullptr;
}

/* ---- Output -------------------------------------------------------------------------------------------------------- */

int complain(std::string_view what, std::string_view reason) {
  return report_failure(EXPORT_NAME, std::string(what), std::string(reason));
}

int complain_of_stack(const std::string& name, const std::string& reason) {
  return complain(zk_stack_path(name.c_str()).data(), reason);
}

std::string full_path(const std::string& file) {
  std::array<char, PATH_MAX> folder;
  const bool is_full = file.starts_with('/') || getcwd(folder.data(), folder.size()) == nullptr;
  return is_full ? file : std::string(folder.data()) + "/" + file;
}

std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == path.npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

bool follow_link(std::string* path) {
  std::array<char, PATH_MAX> target;
  const ssize_t size = readlink(path->c_str(), target.data(), target.size());
  if (size <= 0) return false;
  const std::string name(target.data(), static_cast<size_t>(size));
  *path = name[0] == '/' ? name : folder_of(*path) + "/" + name;
  return true;
}

static const char* output_name; /* null for standard output */

bool holds_stack(const char* name) {
  const int fildes = zk_open_regular(name, O_RDONLY);
  if (fildes == -1) return false;
  zk_estack_v1_header_t header = {};
  struct stat status = {};
  const bool is_stack = zk_read(fildes, &header, sizeof header, ZK_STACK_HEADER_POS) == sizeof header &&
                        fstat(fildes, &status) == 0 && header.file_size >= ZK_STACK_SIZE_MIN &&
                        header.file_size == status.st_size;
  close(fildes);
  return is_stack;
}

bool open_output(const export_request_t& request) {
  if (request.output.empty()) return true;
  output_name = request.output.c_str();
  if (holds_stack(output_name)) {
    complain(full_path(request.output), message_text(TOOL_MSG_IS_STACK));
    return false;
  }
  const int mode = request.format->can_follow ? O_APPEND : O_TRUNC; /* lines are added to, a page is replaced */
  const int fildes = open(output_name, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | mode, 0666);
  const bool is_open =
      fildes != -1 && fcntl(fildes, F_SETFL, mode & O_APPEND) == 0 && dup2(fildes, STDOUT_FILENO) != -1;
  if (!is_open) complain(full_path(request.output), std::strerror(errno));
  if (fildes != -1) close(fildes);
  return is_open;
}

bool write_out(std::string_view text) {
  if (zk_write(STDOUT_FILENO, text.data(), text.size())) return true;
  const int error = errno;
  complain(output_name != nullptr ? full_path(output_name) : message_text(TOOL_MSG_STANDARD_OUTPUT),
           std::strerror(error));
  return false;
}

/* ---- Stacks -------------------------------------------------------------------------------------------------------- */

int stacks_to_export(const zk_trace_t& trace, const export_request_t& request, std::vector<std::string>* names) {
  *names = request.stacks;
  if (!names->empty()) return STATUS_DONE;
  if (!request.id.empty() && !request.is_every) { /* for its chain, too, it has to be one of this node */
    const int result = find_stack(trace, request.id, &names->emplace_back());
    if (result != ZELK_SUCCESS) complain(request.id, reason_of(result));
    if (result != ZELK_SUCCESS) return status_of(result);
  }
  if (!request.is_every && !request.is_chain) return STATUS_DONE;
  const int result = list_stacks(names);
  if (result == ZELK_SUCCESS) return STATUS_DONE;
  complain(ZELK_STACK_DIR, reason_of(result));
  return EXIT_NO_STACK;
}

damage_t end_reading(stack_reader_t* reader) {
  damage_t damage = end_stack(reader);
  if (damage.code == ZELK_SUCCESS && !reader->id.empty() && !reader->is_any_read)
    complain(reader->id, message_text(TOOL_MSG_OVERWRITTEN)); /* no failure to zkview either */
  return damage;
}

int report_damage(const export_request_t& request, const std::string& name, const damage_t& damage, int status,
                  std::string* lines) {
  if (damage.code == ZELK_SUCCESS) return status;
  if ((request.is_every || request.is_chain) && is_no_stack(damage)) { /* some other file in their folder */
    if (request.is_every) complain_of_stack(name, message_text(TOOL_MSG_NO_ERROR_STACK));
    return status;
  }
  const std::string path = zk_stack_path(name.c_str()).data();
  write_json_damage(name, damage, lines);
  complain(path, told_damage(damage, path));
  return worst_status(status, status_of(damage.code));
}
