/* SPDX-License-Identifier: MIT */
/* golden_test.cpp - what the command says, word for word. Each file of golden/ tells a story:
 *
 *   # any line                what follows is about; it ends the output of a command
 *   needs gencat              program or ability without which nothing of the file is tried
 *   file NAME                 makes FOLDER/NAME of the indented lines that follow
 *   stack NAME                the same, an Error Stack, as described_stack() takes it
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
    std::ofstream(path) << (is_stack ? described_stack(all) : all);
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
  if (*EMULATOR != '\0') GTEST_SKIP() << "an emulator runs no shell of this host";
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
  shown = replaced(replaced(shown, node + "Fri", "[node]Fri"), scratch(), "FOLDER");
  expect_golden(GOLDEN_FOLDER "/" + GetParam() + ".golden", shown);
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
