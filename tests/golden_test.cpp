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
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "support.h"

namespace {

const std::string STACKS = "/var/adm/zelk/stacks";

bool has(const std::string& ability) {
  if (ability == "stacks-directory") return has_private_var();
  if (ability == "native") return *EMULATOR == '\0';
  if (ability == "faults") return *FAULT_SHIM != '\0';
  if (ability == "loopback") return run({"/bin/sh", "-c", "grep -q '127.0.0.1' /proc/net/fib_trie"}).status == 0;
  return run({"/bin/sh", "-c", "command -v " + ability}, {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}}).status == 0;
}

/* The i-node field of an Error ID of that file. */
std::string node_of(const std::string& path) {
  char field[7] = "";
  EXPECT_EQ(zk_get_base_64_inode(0, nullptr, path.c_str(), field), 0);
  return field;
}

/* A byte stands as "\x9b". */
std::string unescaped(std::string text) {
  for (size_t at = 0; (at = text.find("\\x", at)) != text.npos; ++at)
    text.replace(at, 4, 1, static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16)));
  return text;
}

void set_field(incident& made, const std::string& field, const std::string& value) {
  const std::map<std::string, std::string incident::*> texts = {
      {"process", &incident::process}, {"file", &incident::file},
      {"product", &incident::product}, {"file_version", &incident::file_version},
      {"catalog", &incident::catalog}, {"description", &incident::description},
      {"id", &incident::id},           {"details", &incident::details}};
  const std::map<std::string, int32_t incident::*> numbers = {
      {"time", &incident::time},      {"pid", &incident::pid},
      {"parent", &incident::parent},  {"thread", &incident::thread},
      {"line", &incident::line},      {"set", &incident::set},
      {"number", &incident::number},  {"argument_count", &incident::arg_count},
      {"version", &incident::version}};
  auto argument = [&](const std::string& bytes) { ++made.arg_count, made.args += bytes; };
  if (texts.contains(field))
    made.*texts.at(field) = unescaped(value);
  else if (numbers.contains(field))
    made.*numbers.at(field) = std::stoi(value);
  else if (field == "related")
    made.related = value.size() == 42 ? value : eid(value);
  else if (field == "int")
    argument(int_arg(std::stoi(value)));
  else if (field == "long")
    argument(int_arg(std::stoi(value), 1));
  else if (field == "long_long")
    argument(wide_arg<int64_t>(2, std::stoll(value)));
  else if (field == "double")
    argument(wide_arg<double>(3, std::stod(value)));
  else if (field == "reserved")
    argument(wide_arg<int64_t>(4, std::stoll(value)));
  else if (field == "string")
    argument(string_arg(value));
  else
    ADD_FAILURE() << "no field " << field << " in a record";
}

/* A record of the fields in `fields`, each after two blanks; "cut TEXT" ends it behind that text, "length N" is for a
 * length word that is wrong. */
void add_record(stack& made, const std::string& fields) {
  const std::string name = fields.substr(0, fields.find("  "));
  incident what = {.id = eid(name), .description = name};
  std::string last, length;
  for (size_t at = name.size(); at < fields.size();) {
    const size_t start = at + 2, end = std::min(fields.find("  ", start), fields.size());
    const std::string pair = fields.substr(start, end - start), field = pair.substr(0, pair.find(' '));
    const std::string value = pair.size() > field.size() ? pair.substr(field.size() + 1) : "";
    if (field == "cut")
      last = value;
    else if (field == "length")
      length = value;
    else
      set_field(what, field, value);
    at = end;
  }
  std::string body = what.body();
  if (!last.empty() && body.rfind(last) != body.npos) body.resize(body.rfind(last) + last.size());
  made.add_raw(length.empty() ? static_cast<int32_t>(body.size()) : std::stoi(length), body);
}

std::string stack_bytes(const std::string& description) {
  const std::map<std::string, int32_t zk_estack_v1_header_t::*> header = {
      {"records_start", &zk_estack_v1_header_t::records_start},
      {"write_pos", &zk_estack_v1_header_t::write_pos},
      {"earliest_rec", &zk_estack_v1_header_t::earliest_rec},
      {"file_size", &zk_estack_v1_header_t::file_size}};
  stack made;
  size_t size = std::string::npos;
  std::istringstream all(description);
  for (std::string line; std::getline(all, line);) {
    const std::string field = line.substr(0, line.find(' ')),
                      value = line.substr(std::min(line.size(), field.size() + 1));
    if (field == "record")
      add_record(made, value);
    else if (field == "wrap")
      made.wrap();
    else if (field == "version")
      made.version = std::stoi(value);
    else if (field == "has_wrapped")
      made.header.has_wrapped = static_cast<uint8_t>(std::stoi(value));
    else if (field == "bytes")
      size = static_cast<size_t>(std::stoi(value));
    else
      made.header.*header.at(field) = std::stoi(value);
  }
  return made.bytes().substr(0, size);
}

bool is_about_decoding(const std::string& entry) {
  for (const char* routine : {"zk_conv_", "zk_obtain_", "zk_test_", "zk_decode_"})
    if (entry.starts_with(routine)) return true;
  return false;
}

struct golden : testing::TestWithParam<std::string> {};

TEST_P(golden, says_what_it_said) {
  const std::string usage = contents(GOLDEN_FOLDER "/usage");
  std::string shown, node = "[node]";
  auto here = [&](const std::string& text) { return replaced(replaced(text, "FOLDER", scratch()), "[node]", node); };
  /* Makes the file `path` of the indented lines that follow in `story`. */
  auto make_file = [&](std::istream& story, const std::string& path, bool is_stack) {
    std::string lines;
    std::ofstream(path) << "";
    if (is_stack) node = node_of(path);
    while (story.peek() == ' ') {
      std::string line;
      std::getline(story, line);
      shown += line + "\n";
      lines += here(line.substr(2)) + "\n";
    }
    std::ofstream(path) << (is_stack ? stack_bytes(lines) : lines);
  };
  auto run_command = [&](const std::string& command) {
    const std::string trace = scratch() + "/trace";
    outcome result = shell(here(command));
    std::string entries;
    for (const std::string& entry : trace_entries(trace))
      if (!is_about_decoding(entry)) entries += entry;
    std::filesystem::remove(trace);
    if (command.find("zkview") != command.npos && command.find("ZELKDEBUG") == command.npos) {
      EXPECT_EQ(shell(here(command), {{"ZELKDEBUG", "unread-trace"}}), result) << "tracing makes a difference";
    }
    shown += result.out;
    if (!result.err.empty()) shown += "--- stderr\n" + result.err;
    if (result.status != 0) shown += "--- status " + std::to_string(result.status) + "\n";
    if (!entries.empty()) shown += "--- trace\n" + entries;
  };

  std::istringstream story(contents(GOLDEN_FOLDER "/" + GetParam() + ".golden"));
  bool is_output = false;
  for (std::string line; std::getline(story, line);) {
    const std::string first = line.substr(0, line.find(' ')),
                      rest = line.substr(std::min(line.size(), first.size() + 1));
    is_output = is_output && first != "#" && first != "$" && first != "stack" && first != "file";
    if (is_output) continue;
    shown += line + "\n";
    if (first == "needs" && !has(rest)) GTEST_SKIP() << rest << " cannot be had";
    if (first == "file" || first == "stack")
      make_file(story, rest[0] == '/' ? rest : scratch() + "/" + rest, first == "stack");
    if (first == "$") run_command(rest);
    is_output = first == "$";
  }
  shown = replaced(shown, node + "Fri", "[node]Fri");
  if (!usage.empty()) shown = replaced(shown, usage, "[usage]\n");
  expect_golden(GetParam(), shown);
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
