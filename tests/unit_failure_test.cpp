/* SPDX-License-Identifier: MIT */
/* What is made of a unit's properties, and which failures of it are passed over. Real units fail in script/test-sources. */
#include <fstream>

#include "../sources/repeats.h"
#include "../sources/unit.h"
#include "support.h"

static std::string in_words(const std::string& result, int32_t status, const std::string& need = "") {
  unit_t unit = {};
  unit.result = result;
  unit.status = status;
  unit.failed_need = need;
  return result_in_words(unit);
}

TEST(failed_unit, says_why_it_failed) {
  EXPECT_EQ(in_words("exit-code", 203), "exit status 203");
  EXPECT_EQ(in_words("signal", 9), "killed by SIGKILL");
  EXPECT_EQ(in_words("core-dump", 11), "core dump by SIGSEGV");
  EXPECT_EQ(in_words("signal", 64), "killed by signal 64"); /* has no name */
  EXPECT_EQ(in_words("oom-kill", 9), "out of memory");
  EXPECT_EQ(in_words("start-limit-hit", 1), "start limit hit");
  for (const char* same : {"timeout", "watchdog", "resources"}) EXPECT_EQ(in_words(same, 0), same);
  EXPECT_EQ(in_words("success", 0, "db.service"), "a unit it needs failed: db.service");
  EXPECT_EQ(in_words("", 0), "unknown result");
}

static std::vector<repeat_t> known;
static repeat_t told;
static bool is_passed_over(const std::string& result, int64_t now) {
  return is_repeat(result, now, &known, &told);
}

TEST(failed_unit, is_recorded_once_an_hour_and_counted) {
  known.clear();
  EXPECT_FALSE(is_passed_over("timeout", 10'000));
  EXPECT_TRUE(is_passed_over("timeout", 10'500));
  EXPECT_FALSE(is_passed_over("watchdog", 10'600)); /* another result is another failure */
  EXPECT_TRUE(is_passed_over("timeout", 13'599));
  EXPECT_FALSE(is_passed_over("timeout", 13'600));
  EXPECT_EQ(told.passed_over, 2U);
  EXPECT_EQ(told.since, 10'500);
  EXPECT_FALSE(is_passed_over("timeout", 9'000)); /* the clock was set back */
}

TEST(failed_unit, is_remembered_in_a_file_whatever_stands_in_it) {
  const std::string folder = scratch();
  known = {{.recorded = 10'000, .passed_over = 2, .since = 10'500, .result = "exit status 3"},
           {.recorded = 10'000, .passed_over = 0, .since = 0, .result = "timeout"}};
  ASSERT_TRUE(write_repeats(folder, "a.service", 14'000, known)); /* the second is old, and tells nothing */
  known = read_repeats(folder, "a.service");
  ASSERT_EQ(known.size(), 1U);
  EXPECT_EQ(known[0].result, "exit status 3");
  EXPECT_EQ(known[0].passed_over, 2U);

  std::string damaged("\0\n1 2\nx 1 1 r\n1 2 3 kept\n", 25);
  for (int i = 0; i < 1000; ++i) damaged += "1 2 3 " + std::to_string(i) + "\n";
  std::ofstream(folder + "/b.service") << damaged;
  known = read_repeats(folder, "b.service");
  EXPECT_EQ(known.size(), 256U);
  EXPECT_EQ(known[0].result, "kept");
  EXPECT_TRUE(read_repeats(folder, "none.service").empty());
  EXPECT_FALSE(write_repeats(folder + "/none", "a.service", 14'000, known));
}
