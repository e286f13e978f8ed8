/* SPDX-License-Identifier: MIT */
/* fault_test.cpp - the command while something fails at the first, the second, ... time that it can, until there is none
 * any more. */
#include <unistd.h>

#include <fstream>
#include <functional>
#include <set>

#include "support.h"

namespace {

std::string joined(const std::set<std::string>& texts) {
  std::string all;
  for (const std::string& text : texts) all += text;
  return all;
}

struct faults : testing::Test {
  void SetUp() override { NEEDS_FAULTS(); }
  void make_stack(const stack& s) { std::ofstream(scratch() + "/disk") << s.bytes(); }

  /* Calls `check` with the result, and the trace, for each time that `what` can fail; returns how often. */
  int each(const std::string& what, const std::string& error, const std::string& options,
           const std::function<void(int, const outcome&, const std::vector<std::string>&)>& check) {
    const std::string hit = scratch() + "/hit", trace = scratch() + "/trace";
    for (int number = 1;; ++number) {
      unlink(hit.c_str());
      unlink(trace.c_str());
      const std::string fault = what + " " + std::to_string(number) + " " + error;
      const outcome result = shell("zkview " + options + " -s " + scratch() + "/disk",
                                   {{"FAULT", fault}, {"FAULT_HIT", hit}, {"ZELKDEBUG", trace}});
      if (access(hit.c_str(), F_OK) != 0) return number - 1;
      check(number, result, trace_entries(trace));
    }
  }
};

/* A record that cannot be had is damage, or the end of its lap where its length word is missing; where the file has been
 * read already nothing is lost. */
TEST_F(faults, of_reading_records_show_none_of_them) {
  stack s;
  make_stack(s.add("older").wrap().add("newer"));
  const outcome newer = good(lines("newer")), both = good(lines("older newer"));
  const int reads =
      each("reading disk", "EIO", "-d", [&](int number, const outcome& result, const std::vector<std::string>&) {
        EXPECT_TRUE(result == corrupt("") || (number > 1 && (result == newer || result == both))) << number << result;
      });
  EXPECT_GE(reads, 1);
}

TEST_F(faults, of_writing_leave_no_hole) {
  stack s;
  s.version = 8;
  for (int n = 0; n < 3000; ++n) s.add("n" + std::to_string(n)); /* more than a megabyte in full */
  make_stack(s);
  const std::string whole = view(s, {"-a", "-d"}).out;
  ASSERT_GT(whole.size(), size_t{1} << 20);
  const int writes =
      each("writing stdout", "EIO", "-a -d", [&](int, const outcome& result, const std::vector<std::string>&) {
        EXPECT_TRUE(whole.starts_with(result.out) && result.out.size() < whole.size());
        EXPECT_EQ(result.err, unexpected("fflush", 5));
        EXPECT_EQ(result.status, 99);
      });
  EXPECT_GT(writes, 1);
}

TEST_F(faults, of_memory_for_the_lists_end_the_run) {
  make_stack(stack().add("A").add("B", "A").add("C"));
  std::set<std::string> last;
  for (const char* view : {"-r", "-p"}) {
    int lost = 0;
    each("memory -", "ENOMEM", view, [&](int, const outcome& result, const std::vector<std::string>& trace) {
      if (result.status == 0) return; /* a description is empty then */
      EXPECT_EQ(result, (outcome{"", NO_MEMORY, 18}));
      last.insert(trace.back());
      ++lost;
    });
    EXPECT_GE(lost, 6) << "an element and a copy for each record";
  }
  expect_golden("memory_of_lists", joined(last));
}

/* An argument that cannot be kept is a damaged description; a text that cannot be made is an empty one. */
TEST_F(faults, of_memory_for_a_description_cost_that_one) {
  make_stack(stack().add({.description = "%1$s %2$d", .arg_count = 2, .args = string_arg("disk") + int_arg(-7)}));
  const outcome damaged = corrupt(HEADING + RECORD_CORRUPT), empty = good(HEADING + line("")),
                whole = good(HEADING + line("disk -7"));
  int of_arguments = 0, of_text = 0;
  std::set<std::string> last;
  each("memory -", "ENOMEM", "-d", [&](int number, const outcome& result, const std::vector<std::string>& trace) {
    EXPECT_TRUE(result == damaged || result == empty || result == whole) << number << result;
    if (result == damaged) last.insert(*(trace.end() - 2) + trace.back());
    of_arguments += result == damaged;
    of_text += result == empty;
  });
  EXPECT_EQ(of_arguments, 2) << "the array, and a copy of the text";
  EXPECT_GE(of_text, 1);
  expect_golden("memory_of_descriptions", joined(last));
}

}  // namespace
