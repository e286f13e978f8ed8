/* SPDX-License-Identifier: MIT */
/* record_message_test.cpp - recording in one line, from C and from C++. What must not compile is in bad_formats.py. */

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <thread>

#include "qx_record.h"
#include "qx_record.hpp"
#include "support.h"

/* What printf does with formats that a compiler would refuse is tried on purpose. */
#pragma GCC diagnostic ignored "-Wformat"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

static std::string new_name() {
  return new_file("") + "-stack";
}

/* The report of the newest incident. */
static std::string report(const std::string& path) {
  const std::string all = run({program("zkview"), "-a", "-d", "-s", path}).out;
  return all.substr(("\n" + all).rfind("\nZELK Error Identifier"));
}

static std::string between(const std::string& text, const std::string& start, const std::string& end) {
  const size_t from = text.find(start) + start.size();
  return text.substr(from, text.find(end, from) - from);
}
static std::string description(const std::string& path) {
  return between(report(path), "Description:\n", "\n\n");
}

/* Bytes in memory behind which none can be read. */
static const char* last_bytes(std::string_view bytes) {
  const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
  char* pages = static_cast<char*>(mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  EXPECT_EQ(mprotect(pages + page, page, PROT_NONE), 0);
  return std::copy(bytes.begin(), bytes.end(), pages + page - bytes.size()) - bytes.size();
}

/* ---- zk_record_message ------------------------------------------------------------------------------------------- */

/* A stack for a test, with the recorder that makes it. */
struct one_line : testing::Test {
  std::string path = new_name();
  zk_recorder_t* recorder = nullptr;

  void SetUp() override { ASSERT_EQ(zk_open_or_create_recorder(0, nullptr, path.c_str(), 0, &recorder), 0); }
  void TearDown() override { zk_close_recorder(recorder); }

  /* Both what printf makes of it and what a report shows. */
  template <typename... Arguments>
  void shows_as_printf(const char* format, Arguments... arguments) {
    char printed[2048];
    std::snprintf(printed, sizeof printed, format, arguments...);
    ASSERT_EQ(zk_record_message(recorder, nullptr, nullptr, nullptr, format, arguments...), 0) << format;
    EXPECT_EQ(description(path), printed) << format;
  }
  int result_of(const char* format) { return zk_record_message(recorder, nullptr, nullptr, nullptr, format, 1, 2, 3); }
};

TEST_F(one_line, shows_what_printf_shows) {
  shows_as_printf("Disk %s: %d of %u sectors, %5.1f%%", "disk07", -3, 4000000000U, 0.5);
  shows_as_printf("%hhd %hhu %hd %hx %ld %lu", 300, 300, 70000, -1, LONG_MIN, ULONG_MAX);
  shows_as_printf("%lld %llx %jd %zu %td %i", LLONG_MIN, ULLONG_MAX, INTMAX_MIN, SIZE_MAX, PTRDIFF_MIN, INT_MIN);
  shows_as_printf("%c%c %p %Lf %e %+05d|%-6s|%#o", 'o', 'k', static_cast<void*>(&path), 2.5L, 1e300, 7, "ab", 8);
  shows_as_printf("%1$s %1$.3s, %2$.3s %2$s", "volume", "backup");
  shows_as_printf("%1$.1f %1$e %1$G %2$x %2$u %2$o %2$d %3$lf", 2.5, 70, 3.5);
  shows_as_printf("%X %#X %'d|% d|%-+5d|%05i", 255, 255, 1000, 7, 8, 9);
  shows_as_printf("%a %A %F %G %E %.1024g", 0.5, 0.5, 0.5, 1e9, 0.5, 0.5);
  shows_as_printf("100%% of it %% %1024d", 5);
  shows_as_printf("%s", static_cast<const char*>(nullptr));
}

TEST_F(one_line, shows_its_arguments_in_any_order) {
  std::vector<std::string> parts = {"%1$.4s,", "%1$.2s,", "%2$d,", "%3$.1f,"};
  do {
    const std::string format = parts[0] + parts[1] + parts[2] + parts[3];
    shows_as_printf(format.c_str(), "volume", -7, 2.5);
  } while (std::ranges::next_permutation(parts).found);
}

TEST_F(one_line, reads_no_text_beyond_its_precision) {
  const char* disk = last_bytes("disk");
  ASSERT_EQ(zk_record_message(recorder, nullptr, nullptr, nullptr, "%.4s %.2s|%.0s", disk, "abc", disk + 4), 0);
  EXPECT_EQ(description(path), "disk ab|");
}

TEST_F(one_line, keeps_the_message_apart_from_its_arguments) {
  if (access(program("zkexport").c_str(), X_OK) != 0) GTEST_SKIP() << "zkexport is not built";
  ASSERT_EQ(zk_record_message(recorder, nullptr, nullptr, nullptr, "%s is %ld of %d", "a", 5L, 7), 0);
  const std::string json = run({program("zkexport"), path}).out;
  EXPECT_NE(
      json.find(
          R"("default":"%s is %ld of %d","arguments":[{"type":"string","value":"a"},{"type":"long_long","value":5},{"type":"int","value":7}])"),
      std::string::npos)
      << json;
}

TEST_F(one_line, refuses_what_cannot_be_recorded_before_it_records) {
  for (const char* format :
       {"%n", "%*d", "%.*d", "%m",   "%lc",     "%ls",       "%hs",        "%llf",   "%Ld",     "%b",  "%y",
        "%",  "%5",  "%0$d", "%2$d", "%1$d %d", "%1$d %1$s", "%1$d %1$ld", "%1025d", "%.1025d", "% %", "%201$s"})
    EXPECT_EQ(result_of(format), -5) << format;
  EXPECT_EQ(zk_record_message(recorder, nullptr, nullptr, nullptr, nullptr), -5);
  EXPECT_EQ(zk_record_message(nullptr, nullptr, nullptr, nullptr, nullptr), -4);
  std::string many;
  for (int i = 0; i < 201; ++i) many += "%d";
  EXPECT_EQ(result_of(many.c_str()), -33);
  EXPECT_EQ(run({program("zkview"), "-d", "-s", path}).out, HEADING);
}

TEST_F(one_line, takes_cause_and_details) {
  zk_eid_t id, first;
  ASSERT_EQ(zk_record_message(recorder, "", nullptr, id, "the cause"), 0); /* which has none itself */
  std::memcpy(first, id, sizeof first);
  ASSERT_EQ(zk_record_message(recorder, id, "line one\nline two", id, "the effect"), 0);
  const std::string shown = report(path);
  EXPECT_NE(shown.find(std::string("Associated ZELK Error Identifier:\n\t ") + first), std::string::npos) << shown;
  EXPECT_NE(shown.find("Details:\nline one\nline two\n"), std::string::npos) << shown;
  EXPECT_EQ(zk_record_message(recorder, "no ID", nullptr, id, "refused"), -36);
  EXPECT_STREQ(id, "");
}

/* ---- zk_open_or_create_recorder ---------------------------------------------------------------------------------- */

static int open_or_create(const std::string& path, int32_t size) {
  zk_recorder_t* recorder = nullptr;
  const int result = zk_open_or_create_recorder(0, nullptr, path.c_str(), size, &recorder);
  EXPECT_EQ(recorder != nullptr, result == 0);
  zk_close_recorder(recorder);
  return result;
}

TEST(open_or_create, makes_a_stack_once) {
  const std::string path = new_name();
  const size_t open_files = open_descriptors();
  EXPECT_EQ(open_or_create(path, 8192), 0);
  EXPECT_EQ(open_or_create(path, 0), 0);
  EXPECT_EQ(open_descriptors(), open_files);
  for (int32_t size : {16385, -8192}) EXPECT_EQ(open_or_create(path, size), -5); /* also where none is made */
  EXPECT_EQ(contents(path).size(), 8192U);
  const std::string usual = new_name();
  EXPECT_EQ(open_or_create(usual, 0), 0);
  EXPECT_EQ(contents(usual).size(), 16384U);
}

TEST(open_or_create, checks_its_arguments_in_their_order) {
  zk_recorder_t* recorder = nullptr;
  EXPECT_EQ(zk_open_or_create_recorder(0, nullptr, nullptr, 1, nullptr), -4);
  EXPECT_EQ(zk_open_or_create_recorder(0, nullptr, "", 1, &recorder), -4);
  EXPECT_EQ(zk_open_or_create_recorder(0, nullptr, "x", 8191, nullptr), -5);
  EXPECT_EQ(zk_open_or_create_recorder(0, nullptr, "x", 16385, &recorder), -5);
  EXPECT_EQ(zk_open_or_create_recorder(0, nullptr, "x", 0, nullptr), -6);
  EXPECT_EQ(open_or_create("/missing/x.stack", 0), -14);
  EXPECT_EQ(open_or_create(new_file("no stack"), 0), -26);
  EXPECT_EQ(open_or_create(new_file("no folder") + "/x", 0), -25);
}

/* ---- qx_record.hpp ----------------------------------------------------------------------------------------------- */

enum colour_t { RED = 4 };

TEST(one_line_of_cpp, shows_every_kind_of_argument) {
  const std::string path = new_name();
  const zelk::recorder_t recorder(path.c_str(), "stn.node");
  const char letters[] = "array";
  const char full[] = {'n', 'o', ' ', 'e', 'n', 'd'};
  ASSERT_EQ(recorder.result, 0);
  ASSERT_EQ(record(recorder, nullptr, "%s %s %s %s %s", "literal", std::string("string"),
                   std::string_view("view of more").substr(0, 4), letters, full)
                .result,
            0);
  EXPECT_EQ(description(path), "literal string view array no end");
  record(recorder, nullptr, "%d %u %d %lu %hhd %x %d %d %c", -1, 4000000000U, 4000000000U, UINT64_MAX, int8_t{-3}, -1,
         RED, true, 'c');
  EXPECT_EQ(description(path), "-1 4000000000 4000000000 18446744073709551615 -3 ffffffff 4 1 c");
  const double half = 0.5;
  record(recorder, nullptr, "%.1f %g %p %p%%", half, 0.25F, nullptr, static_cast<const void*>(&half));
  char expected[64];
  std::snprintf(expected, sizeof expected, "0.5 0.25 (nil) %p%%", static_cast<const void*>(&half));
  EXPECT_EQ(description(path), expected);
  const char* nothing = nullptr;
  record(recorder, nullptr, "%2$d %1$s", nothing, 5L);
  EXPECT_EQ(description(path), "5 (null)");
}

TEST(one_line_of_cpp, shows_of_an_argument_what_printf_shows) {
  const std::string path = new_name();
  const zelk::recorder_t recorder(path.c_str());
  const char* disk = last_bytes("disk");
  record(recorder, nullptr, "%.4s%.0s %hhd %hhx %hx %hd", disk, disk + 4, 300, -1, -1, 70000L);
  EXPECT_EQ(description(path), "disk 44 ff ffff 4464");
}

TEST(one_line_of_cpp, records_where_it_stands_and_what_caused_it) {
  const std::string path = new_name();
  const size_t open_files = open_descriptors();
  {
    const zelk::recorder_t recorder(path.c_str(), "stn.node");
    const zelk::recorded_t cause = record(recorder, nullptr, "the cause");
    const std::string id = cause.eid;
    for (const zelk::cause_t each : {zelk::cause_t(cause), zelk::cause_t(id.c_str()), zelk::cause_t(id)}) {
      EXPECT_EQ(record(recorder, each, zelk::details_t{"in detail"}, "the effect").result, 0);
      const std::string shown = report(path);
      EXPECT_NE(shown.find("File Name: " __FILE__ "\n"), std::string::npos) << shown;
      EXPECT_NE(shown.find("Within the File: " + std::to_string(__LINE__ - 3) + "\n"), std::string::npos) << shown;
      EXPECT_NE(shown.find("Product: stn.node\n"), std::string::npos) << shown;
      EXPECT_NE(shown.find("\t " + id), std::string::npos) << shown;
      EXPECT_NE(shown.find("Details:\nin detail"), std::string::npos) << shown;
    }
  }
  EXPECT_EQ(open_descriptors(), open_files);
  EXPECT_EQ(contents(path).size(), 16384U);
}

TEST(one_line_of_cpp, lets_a_program_go_on_without_a_stack) {
  const zelk::recorder_t recorder("/missing/x.stack");
  EXPECT_EQ(recorder.result, -14);
  const zelk::recorded_t lost = record(recorder, nullptr, "nowhere");
  EXPECT_EQ(lost.result, -4);
  EXPECT_EQ(record(recorder, lost, "nowhere either").result, -4);
}
