/* SPDX-License-Identifier: MIT */
/* What is made of a unit's properties, what caused its failure, and which failures are passed over. Real units fail in script/test-sources. */
#include <sys/time.h>

#include <fstream>
#include <thread>

#include "../sources/cause.h"
#include "../sources/repeats.h"
#include "qx_record.h"
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
  for (const char* same : {"timeout", "watchdog", "resources", "success"}) EXPECT_EQ(in_words(same, 0), same);
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
  for (const char* other : {"exit status 33", "exit status 3"}) /* another result is another failure */
    EXPECT_FALSE(is_passed_over(other, 10'600));
  EXPECT_TRUE(is_passed_over("timeout", 13'599));
  EXPECT_FALSE(is_passed_over("timeout", 13'600));
  EXPECT_EQ(told.passed_over, 2U);
  EXPECT_EQ(told.since, 10'500);
  EXPECT_TRUE(is_passed_over("timeout", 13'700)); /* what was told is not counted again */
  EXPECT_FALSE(is_passed_over("timeout", 17'200));
  EXPECT_EQ(told.passed_over, 1U);
  EXPECT_EQ(told.since, 13'700);
  EXPECT_FALSE(is_passed_over("timeout", 9'000)); /* the clock was set back */
  EXPECT_EQ(told.passed_over, 0U);
}

TEST(failed_unit, is_remembered_in_a_file_whatever_stands_in_it) {
  const std::string folder = scratch();
  known = {{.recorded = 10'000, .passed_over = 2, .since = 10'500, .result = "exit status 3"},
           {.recorded = 10'000, .passed_over = 0, .since = 0, .result = "timeout"}};
  ASSERT_TRUE(write_repeats(folder, "a.service", 14'000, known)); /* the second is old, and tells nothing */
  EXPECT_EQ(contents(folder + "/a.service"), "10000 2 10500 exit status 3\n");
  known = read_repeats(folder, "a.service");
  EXPECT_TRUE(is_passed_over("exit status 3", 13'000));
  EXPECT_FALSE(is_passed_over("exit status 3", 13'600));
  EXPECT_EQ(std::pair(told.passed_over, told.since), std::pair(uint64_t{3}, int64_t{10'500}));

  std::string damaged("\0\n1 2\nx 1 1 r\n1 2 3 kept\n", 25);
  for (int i = 0; i < 1000; ++i) damaged += "1 2 3 " + std::to_string(i) + "\n";
  std::ofstream(folder + "/b.service") << damaged;
  known = read_repeats(folder, "b.service");
  EXPECT_EQ(known.size(), 256U);
  EXPECT_EQ(known[0].result, "kept");
  EXPECT_TRUE(read_repeats(folder, "none.service").empty());
  EXPECT_FALSE(write_repeats(folder, "", 14'000, known));
  EXPECT_FALSE(std::ifstream(folder + "/." + std::to_string(getpid())).is_open()); /* nor is half of it left */
}

/* ---- Causes -------------------------------------------------------------------------------------------------------- */

/* Records an incident of a process, the failure of `unit` where there is one. Returns its Error ID. */
static std::string recorded(const char* stack, int32_t process, int32_t parent, std::string unit = "") {
  cu_error_arg_t argument = {.cu_arg_type = CU_ERROR_ARG_CHAR_STR, .cu_arg_value = {}};
  argument.cu_arg_value.cu_arg_char_str = unit.data();
  zk_incident_t incident = {};
  incident.process_id = process;
  incident.parent_id = parent;
  incident.default_message = "%1$s";
  incident.arguments = &argument;
  incident.argument_count = 1;
  zk_recorder_t* recorder = nullptr;
  zk_eid_t eid = "";
  zk_open_or_create_recorder(0, nullptr, stack, 8192, &recorder); /* the smallest */
  EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), ZELK_SUCCESS);
  zk_close_recorder(recorder);
  return eid;
}

static int64_t microseconds_now() {
  timeval now;
  gettimeofday(&now, nullptr);
  return now.tv_sec * 1'000'000 + now.tv_usec;
}

TEST(cause_of_a_failure, is_the_newest_incident_of_its_processes_and_their_children) {
  NEEDS_PRIVATE_VAR();
  const int64_t now = time(nullptr);
  unit_t unit = {};
  unit.started = now * 1'000'000;
  unit.processes = {4999};
  unit.needs = {"other.service"};
  const run_t run = {.lines = "", .processes = {5002}};
  for (int i = 0; i < 200; ++i) recorded("causes", 4000, INT32_MIN); /* so many that it wraps; a parent of 0 */
  EXPECT_EQ(find_cause(unit, run, now), "");
  unit.process_id = 5001;
  std::string eid;
  for (auto [process, parent] : {std::pair{4999, 1}, {5001, 1}, {5002, 1}, {5003, 5001}, {5004, 5003}}) {
    eid = recorded(process == 5003 ? "others" : "causes", process, parent);
    EXPECT_EQ(find_cause(unit, run, now), eid) << process;
    if (process != 5003) continue;
    EXPECT_EQ(rename(ZELK_STACK_DIR "/others", ZELK_DIR "/kept"), 0);
    EXPECT_EQ(symlink("../kept", ZELK_STACK_DIR "/others"), 0);
    EXPECT_EQ(find_cause(unit, run, now), eid) << "a stack that is kept elsewhere";
  }
  const std::string needed = recorded(UNITS_STACK, 5001, 1, "other.service"); /* not by itself */
  recorded("causes", 4000, 1);
  EXPECT_EQ(find_cause(unit, run, now), eid);
  unit.started = microseconds_now() + 900'000; /* noted after it had recorded */
  eid = recorded("causes", 5001, 1);
  EXPECT_EQ(find_cause(unit, run, now), eid);
  unit.started = microseconds_now() + 1'000'000; /* of a run before */
  EXPECT_EQ(find_cause(unit, run, now), needed);
}

TEST(cause_of_a_failure, is_else_that_of_a_unit_it_needs_in_the_same_minute) {
  NEEDS_PRIVATE_VAR();
  unit_t unit = {};
  unit.needs = {"db.service", "net.service"};
  const std::string eid = recorded(UNITS_STACK, 1, 1, "net.service");
  recorded(UNITS_STACK, 1, 1, "clock.service");
  recorded("causes", 1, 1, "db.service"); /* stands in another stack, and is no failure */
  const int64_t now = time(nullptr);
  EXPECT_EQ(find_cause(unit, {}, now), eid);
  EXPECT_EQ(find_cause(unit, {}, now + 59), eid);
  EXPECT_EQ(find_cause(unit, {}, now + 62), "");
  unit.result = "success"; /* nothing of its own failed: what it needs is about to be recorded */
  std::string late, found; /* a busy machine may need more than one */
  for (int tries = 0; tries < 20 && found.empty(); ++tries) {
    const std::string name = "late" + std::to_string(tries) + ".service";
    unit.needs = {name};
    std::thread recorder = once_asleep([&] { late = recorded(UNITS_STACK, 1, 1, name); });
    found = find_cause(unit, {}, now);
    recorder.join();
  }
  EXPECT_EQ(found, late);
}
