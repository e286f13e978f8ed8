/* SPDX-License-Identifier: MIT */
/* The views of the command over long and large stacks, and what a walk leaves behind. */
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>

#include "support.h"

namespace {

TEST(record, is_shown_by_each_view_up_to_a_length) {
  for (int32_t length : {1024, 1025, 1118, 1119, 2044, 2045, INT_MAX, -1, INT_MIN}) {
    const bool is_cut = length < 0 || length > 2044; /* told before the message about the stack */
    const bool is_shown = !is_cut && length <= 1118; /* above, its process name is too far from the end */
    const bool is_grouped = !is_cut && length <= 1024;
    const std::string told = is_cut ? RECORD_CORRUPT : "";
    stack s(16384);
    incident sized = {.description = "sized"};
    sized.details += std::string(std::min(static_cast<uint32_t>(length), 2044U) - sized.body().size(), 'd');
    s.add("A").add_raw(length, sized.body());
    EXPECT_EQ(view(s, {"-d"}), is_shown ? good(lines("A sized")) : corrupt(lines("A") + told)) << length;
    for (const char* option : {"-r", "-p"})
      EXPECT_EQ(view(s, {option}), is_grouped ? good(lines("A sized")) : corrupt(told)) << length;
  }
}

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
  auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
  };
  return seconds(all.ru_utime) + seconds(all.ru_stime);
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

TEST_F(many, lose_nothing_of_a_long_report) {
  size_t at = 0;
  const std::string report = view(all, {"-a", "-d"}).out;
  for (int n = 0; n < 10000; ++n) {
    const std::string start = "ZELK Error Identifier:\n\t " + eid(name(n)) + "\n";
    const std::string end = "Description:\n" + name(n) + "\n\nDetails:\ndetails\n" + SEPARATOR;
    ASSERT_EQ(report.substr(at, start.size()), start);
    ASSERT_NE(at = report.find(end, at), report.npos) << n;
    at += end.size();
  }
  EXPECT_EQ(at, report.size());
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

TEST(walk, leaves_the_stack_at_its_start_unlocked_and_nothing_open) {
  const nl_catd none = reinterpret_cast<nl_catd>(-1);
  for (const std::string& path : {stack().add("A").wrap().add("B").file(), new_file("no stack")})
    for (int order : {-1, 0, 1}) {
      const int fildes = open(path.c_str(), O_RDWR);
      const size_t before = open_descriptors();
      zk_proc_list_t head = {};
      zk_stack_rec_t* table = nullptr;
      lseek(fildes, 100, SEEK_SET);
      printed([&] {
        if (order == -1) zk_dump_stack(0, nullptr, 0, 0, nullptr, 0, fildes, none);
        if (order != -1) zk_read_stack(0, nullptr, order, fildes, none, &head, &table);
      });
      EXPECT_EQ(lseek(fildes, 0, SEEK_CUR), 0);
      EXPECT_EQ(open_descriptors(), before);
      keep(table);
      keep(head.next);
      in_child([&] { EXPECT_EQ(lockf(open(path.c_str(), O_RDWR), F_TLOCK, 0), 0) << order; });
      close(fildes);
    }
}

}  // namespace
