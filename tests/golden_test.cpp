/* SPDX-License-Identifier: MIT */
/* golden_test.cpp - what the command says, word for word. Each file of golden/ tells a story:
 *
 *   # any line                what follows is about; it ends the output of a command
 *   needs gencat              program or ability without which nothing of the file is tried
 *   file NAME                 makes FOLDER/NAME of the indented lines that follow
 *   stack NAME                the same, an Error Stack: of lines "record NAME", "wrap", "FIELD VALUE"; a record may give
 *                             more of its fields behind its name, each after two blanks
 *   $ COMMAND                 a line for the shell, run in FOLDER
 *
 * and after each command what it printed: standard output, then "--- stderr", "--- status" (other than 0) and "--- trace"
 * (of FOLDER/trace, but for decoding an Error ID, which shows the node's addresses). FOLDER is a folder of the test's own,
 * [node] in an Error ID the i-node of the last stack. */
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "support.h"

namespace {

bool has(const std::string& ability) {
  if (ability == "stacks-directory") return has_private_var();
  if (ability == "character-sets") return sizeof(void*) == 8; /* the C library's, which are there for one host */
  if (ability == "native") return *EMULATOR == '\0';
  if (ability == "faults") return *FAULT_SHIM != '\0';
  if (ability == "loopback") return run({"/bin/sh", "-c", "grep -q '127.0.0.1' /proc/net/fib_trie"}).status == 0;
  return run({"/bin/sh", "-c", "command -v " + ability}, {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}}).status == 0;
}

/* ---- Stacks -------------------------------------------------------------------------------------------------- */

/* The first word of a line and what follows it. */
std::pair<std::string, std::string> split(const std::string& line) {
  const size_t end = std::min(line.find(' '), line.size());
  return {line.substr(0, end), line.substr(std::min(end + 1, line.size()))};
}

/* A byte stands as "\x9b". */
std::string unescaped(std::string text) {
  for (size_t at = 0; (at = text.find("\\x", at)) != text.npos; ++at)
    text.replace(at, 4, 1, static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16)));
  return text;
}

const std::map<std::string, std::string incident::*> TEXTS = {
    {"id", &incident::id},           {"process", &incident::process},
    {"file", &incident::file},       {"file_version", &incident::file_version},
    {"product", &incident::product}, {"description", &incident::description},
    {"catalog", &incident::catalog}, {"details", &incident::details}};
const std::map<std::string, int32_t incident::*> NUMBERS = {
    {"version", &incident::version}, {"argument_count", &incident::arg_count},
    {"time", &incident::time},       {"pid", &incident::pid},
    {"parent", &incident::parent},   {"thread", &incident::thread},
    {"line", &incident::line}};
const std::map<std::string, std::string (*)(const std::string&)> ARGUMENTS = {
    {"int", [](const std::string& value) { return int_arg(std::stoi(value)); }},
    {"long", [](const std::string& value) { return int_arg(std::stoi(value), 1); }},
    {"long_long", [](const std::string& value) { return wide_arg<int64_t>(2, std::stoll(value)); }},
    {"double", [](const std::string& value) { return wide_arg<double>(3, std::stod(value)); }},
    {"reserved", [](const std::string& value) { return wide_arg<int64_t>(4, std::stoll(value)); }},
    {"string", [](const std::string& value) { return string_arg(value); }}};
const std::map<std::string, int32_t zk_estack_v1_header_t::*> OFFSETS = {
    {"records_start", &zk_estack_v1_header_t::records_start},
    {"write_pos", &zk_estack_v1_header_t::write_pos},
    {"earliest_rec", &zk_estack_v1_header_t::earliest_rec},
    {"file_size", &zk_estack_v1_header_t::file_size}};

/* A record of the fields in `fields`, each after two blanks; "cut TEXT" ends it behind that text, "length N" is for a
 * length word that is wrong. */
void add_record(stack& made, const std::string& fields) {
  const std::string name = fields.substr(0, fields.find("  "));
  incident what = {.id = eid(name), .description = name};
  std::string last, length;
  for (size_t at = name.size(), end; at < fields.size(); at = end) {
    end = std::min(fields.find("  ", at + 2), fields.size());
    const auto [field, value] = split(fields.substr(at + 2, end - at - 2));
    if (field == "cut") last = value;
    if (field == "length") length = value;
    if (field == "related") what.related = value.size() >= 42 ? value : eid(value);
    if (TEXTS.contains(field)) what.*TEXTS.at(field) = unescaped(value);
    if (NUMBERS.contains(field)) what.*NUMBERS.at(field) = std::stoi(value);
    if (ARGUMENTS.contains(field)) what.args += ARGUMENTS.at(field)(value), ++what.arg_count;
  }
  std::string body = what.body();
  if (!last.empty()) body.resize(body.rfind(last) + last.size());
  made.add_raw(length.empty() ? static_cast<int32_t>(body.size()) : std::stoi(length), body);
}

std::string stack_bytes(const std::string& description) {
  stack made;
  size_t size = std::string::npos;
  std::istringstream all(description);
  for (std::string line; std::getline(all, line);) {
    const auto [field, value] = split(line);
    if (field == "record") add_record(made, value);
    if (field == "wrap") made.wrap();
    if (field == "version") made.version = std::stoi(value);
    if (field == "has_wrapped") made.header.has_wrapped = static_cast<uint8_t>(std::stoi(value));
    if (field == "bytes") size = static_cast<size_t>(std::stoi(value));
    if (OFFSETS.contains(field)) made.header.*OFFSETS.at(field) = std::stoi(value);
  }
  return made.bytes().substr(0, size);
}

/* ---- Stories ------------------------------------------------------------------------------------------------- */

bool is_about_decoding(const std::string& entry) {
  for (const char* routine : {"zk_conv_", "zk_obtain_", "zk_test_", "zk_decode_"})
    if (entry.starts_with(routine)) return true;
  return false;
}

struct golden : testing::TestWithParam<std::string> {
  std::istringstream story{contents(GOLDEN_FOLDER "/" + GetParam() + ".golden")};
  std::string shown; /* the story with what is printed now */
  std::string node = "[node]";

  std::string here(const std::string& text) { return replaced(replaced(text, "FOLDER", scratch()), "[node]", node); }

  /* Makes a file of the indented lines that follow. */
  void make_file(const std::string& name, bool is_stack) {
    const std::string path = name[0] == '/' ? name : scratch() + "/" + name;
    std::string all;
    std::ofstream(path) << "";
    char field[7] = "";
    if (is_stack && zk_get_base_64_inode(0, nullptr, path.c_str(), field) == 0) node = field;
    for (std::string line; story.peek() == ' ' && std::getline(story, line);) {
      shown += line + "\n";
      all += here(line.substr(2)) + "\n";
    }
    std::ofstream(path) << (is_stack ? stack_bytes(all) : all);
  }

  void run_command(const std::string& command) {
    const outcome result = shell(here(command));
    std::string entries;
    for (const std::string& entry : trace_entries(scratch() + "/trace"))
      if (!is_about_decoding(entry)) entries += entry;
    std::filesystem::remove(scratch() + "/trace");
    shown += result.out;
    if (!result.err.empty()) shown += "--- stderr\n" + result.err;
    if (result.status != 0) shown += "--- status " + std::to_string(result.status) + "\n";
    if (!entries.empty()) shown += "--- trace\n" + entries;
    /* Tracing makes no difference. */
    if (command.find("zkview") == command.npos || command.find("ZELKDEBUG") != command.npos) return;
    EXPECT_EQ(shell(here(command), {{"ZELKDEBUG", "unread-trace"}}), result);
  }
};

TEST_P(golden, says_what_it_said) {
  const std::set<std::string> ends_output = {"#", "$", "file", "stack"};
  bool is_output = false;
  for (std::string line; std::getline(story, line);) {
    const auto [first, rest] = split(line);
    if (is_output && !ends_output.contains(first)) continue;
    shown += line + "\n";
    if (first == "needs" && !has(rest)) GTEST_SKIP() << rest << " cannot be had";
    if (first == "file" || first == "stack") make_file(rest, first == "stack");
    if (first == "$") run_command(rest);
    is_output = first == "$";
  }
  shown = replaced(shown, contents(GOLDEN_FOLDER "/usage"), "[usage]\n");
  expect_golden(GetParam(), replaced(shown, node + "Fri", "[node]Fri"));
}

std::vector<std::string> stories() {
  std::vector<std::string> names;
  for (const auto& file : std::filesystem::directory_iterator(GOLDEN_FOLDER))
    if (file.path().extension() == ".golden" && contents(file.path()).starts_with("# "))
      names.push_back(file.path().stem());
  std::sort(names.begin(), names.end());
  return names;
}
INSTANTIATE_TEST_SUITE_P(files, golden, testing::ValuesIn(stories()),
                         [](const testing::TestParamInfo<std::string>& story) { return story.param; });

}  // namespace
