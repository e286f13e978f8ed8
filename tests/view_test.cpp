/* SPDX-License-Identifier: MIT */
/* The views of the command over long and large stacks. */
#include <sys/resource.h>

#include "support.h"

namespace {

/* 10,000 incidents of 200 processes, each third one the start of a chain of three. Their full report has 6 MB. */
struct many : testing::Test {
  static std::string name(int n) { return "n" + std::to_string(n); }
  many() {
    all.version = 8;
    for (int n = 0; n < 10000; ++n)
      all.add({.id = eid(name(n)),
               .related = n % 3 == 0 ? "" : eid(name(n - 1)),
               .pid = n % 200 + 1,
               .description = name(n)});
    for (int n = 0; n < 10000; ++n) in_order += line(name(n));
    for (int first = 0; first < 200; ++first)
      for (int n = first; n < 10000; n += 200) by_process += line(name(n));
  }
  stack all;
  std::string in_order = HEADING, by_process = HEADING;
};

TEST_F(many, are_listed_in_order) {
  EXPECT_EQ(view(all, {"-d"}), good(in_order));
  EXPECT_EQ(view(all, {"-r"}), good(in_order));
  EXPECT_EQ(view(all, {"-p"}), good(by_process));
}

/* Seconds of processor time that the children of this process have taken so far. */
double seconds_of_children() {
  rusage all = {};
  getrusage(RUSAGE_CHILDREN, &all);
  return static_cast<double>(all.ru_utime.tv_sec + all.ru_stime.tv_sec) +
         1e-6 * static_cast<double>(all.ru_utime.tv_usec + all.ru_stime.tv_usec);
}

TEST_F(many, are_reported_within_a_second) {
  const double limit = *FAULT_SHIM != '\0' ? 1 : 30; /* emulators and sanitizers are slow */
  const std::string path = all.file();
  for (const char* option : {"-d", "-r", "-p", "-da", "-ra", "-pa"}) {
    const double before = seconds_of_children();
    EXPECT_EQ(run({program("zkview"), option, "-s", path}).status, 0);
    EXPECT_LT(seconds_of_children() - before, limit) << option;
  }
}

TEST(wrapped_stack, may_be_larger_than_what_is_read_at_once) {
  stack s(200000);
  std::string shown = HEADING;
  s.version = 8;
  for (const std::string lap : {"older", "newer"}) {
    if (lap == "newer") s.wrap();
    for (int n = 0; n < 300; ++n) s.add(lap + std::to_string(n));
    for (int n = 0; n < 300; ++n) shown += line(lap + std::to_string(n));
  }
  for (const char* option : {"-d", "-r", "-p"}) EXPECT_EQ(view(s, {option}), good(shown)) << option;
}

}  // namespace
