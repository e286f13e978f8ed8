/* The views of the command over whole, large and damaged stacks. */
#include <fcntl.h>
#include <unistd.h>

#include <climits>

#include "support.h"

namespace {

const nl_catd none = reinterpret_cast<nl_catd>(-1); /* no catalog */

/* ---- Order --------------------------------------------------------------------------------------------------- */

TEST(related, stand_directly_behind_their_cause) {
  stack s;
  s.add("A").add("B", "A").add("A").add("X", "C").add("C", "B");
  EXPECT_EQ(view(s, {"-r"}), good(lines("A B C A X")));
}

TEST(related, may_be_members_at_any_depth) {
  stack s;
  s.add("A").add("B", "A").add("C", "B").add("D", "C").add("Z").add("E", "B").add("F", "A");
  EXPECT_EQ(view(s, {"-r"}), good(lines("A F B E C D Z")));
}

TEST(related, are_those_of_the_first_with_that_error_id) {
  stack s;
  s.add("X").add("A", "X").add({.id = eid("A"), .description = "twin"}).add("B", "A");
  EXPECT_EQ(view(s, {"-r"}), good(lines("X A B twin")));
}

TEST(related, are_told_by_42_characters) {
  const std::string alike = std::string(41, 'a');
  stack s; /* the 43rd byte does not count, the 42nd does */
  s.add({.id = alike + "1x", .description = "one"}).add({.id = alike + "2", .description = "two"});
  s.add({.id = eid("C"), .related = alike + "1y", .description = "of-one"});
  EXPECT_EQ(view(s, {"-r"}), good(lines("one of-one two")));
}

TEST(error_id, has_42_characters_whatever_the_43rd_byte_is) {
  stack s;
  s.add({.id = eid("A") + "x", .related = eid("B") + "y"});
  const std::string report = view(s, {"-a"}).out;
  EXPECT_TRUE(report.starts_with("ZELK Error Identifier:\n\t " + eid("A") + "\nAssociated ZELK Error Identifier:\n\t " +
                                 eid("B") + "\n\n"))
      << report;
}

TEST(full_stack, is_read_round_once) {
  stack s; /* the newest, C, took the place of the oldest */
  s.add("C").add("A").add("B");
  const int32_t second = 24 + (s.header.write_pos - 24) / 3;
  s.header.write_pos = s.header.earliest_rec = second;
  s.header.has_wrapped = 1;
  for (const char* option : {"-d", "-r", "-p"}) EXPECT_EQ(view(s, {option}), good(lines("A B C"))) << option;
}

TEST(report, ends_at_the_newest_record) {
  stack s;
  s.add("A").add("B").add("C");
  s.header.write_pos = 24 + (s.header.write_pos - 24) / 3; /* behind A; what follows is of an older lap */
  for (const char* option : {"-d", "-r", "-p"}) EXPECT_EQ(view(s, {option}), good(lines("A"))) << option;
}

/* ---- Sizes --------------------------------------------------------------------------------------------------- */

TEST(record, is_shown_by_each_view_up_to_a_length) {
  const int32_t lengths[] = {1024, 1025, 1118, 1119, 2044, 2045, INT_MAX, -1, INT_MIN};
  for (int32_t length : lengths) {
    const bool is_cut = length < 0 || length > 2044; /* told before the message about the stack */
    const bool is_shown = !is_cut && length <= 1118; /* above, its process name is too far from the end */
    const bool is_grouped = !is_cut && length <= 1024;
    stack s(16384);
    incident sized = {.description = "sized"};
    sized.details += std::string(std::min(static_cast<uint32_t>(length), 2044U) - sized.body().size(), 'd');
    s.add("A").add_raw(length, sized.body());
    EXPECT_EQ(view(s, {"-d"}),
              is_shown ? good(lines("A sized")) : corrupt(lines("A") + (is_cut ? RECORD_CORRUPT : "")));
    for (const char* option : {"-r", "-p"})
      EXPECT_EQ(view(s, {option}), is_grouped ? good(lines("A sized")) : corrupt(is_cut ? RECORD_CORRUPT : ""))
          << length;
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
               .description = name(n),
               .details = std::string(10, 'd')});
    in_order = by_process = HEADING;
    for (int n = 0; n < 10000; ++n) in_order += line(name(n));
    for (int first = 0; first < 200; ++first)
      for (int n = first; n < 10000; n += 200) by_process += line(name(n));
  }
  stack all;
  std::string in_order, by_process;
};

TEST_F(many, are_listed_in_order) {
  EXPECT_EQ(view(all, {"-d"}), good(in_order));
  EXPECT_EQ(view(all, {"-r"}), good(in_order));
  EXPECT_EQ(view(all, {"-p"}), good(by_process));
}

TEST_F(many, lose_nothing_of_a_long_report) {
  size_t at = 0;
  const std::string report = view(all, {"-a", "-d"}).out;
  for (int n = 0; n < 10000; ++n) {
    const std::string start = "ZELK Error Identifier:\n\t " + eid(name(n)) + "\n",
                      end = "Description:\n" + name(n) + "\n\nDetails:\ndddddddddd\n" + SEPARATOR;
    ASSERT_EQ(report.substr(at, start.size()), start);
    at = report.find(end, at);
    ASSERT_NE(at, report.npos) << n;
    at += end.size();
  }
  EXPECT_EQ(at, report.size());
}

/* ---- What a walk leaves behind ------------------------------------------------------------------------------- */

TEST(walk, leaves_the_descriptor_at_the_start_and_opens_none) {
  stack bad;
  bad.add("A").add_raw(-1, "");
  for (const std::string& path : {stack().add("A").wrap().add("B").file(), bad.file(), new_file("no stack")}) {
    const int fildes = open(path.c_str(), O_RDWR);
    const size_t before = open_descriptors();
    zk_proc_list_t head = {};
    zk_stack_rec_t* table = nullptr;
    printed([&] {
      zk_dump_stack(0, nullptr, 0, 0, nullptr, 0, fildes, none);
      EXPECT_EQ(lseek(fildes, 100, SEEK_CUR), 100); /* where the next one starts */
      zk_read_stack(0, nullptr, 0, fildes, none, &head, nullptr);
      EXPECT_EQ(lseek(fildes, 100, SEEK_CUR), 100);
      zk_read_stack(0, nullptr, 1, fildes, none, nullptr, &table);
      EXPECT_EQ(lseek(fildes, 0, SEEK_CUR), 0);
    });
    EXPECT_EQ(open_descriptors(), before);
    close(fildes);
  }
}

TEST(walk, unlocks_all_wherever_the_descriptor_stood) {
  NEEDS_NATIVE();
  const std::string path = stack().add("A").file();
  const int fildes = open(path.c_str(), O_RDWR);
  for (int order : {-1, 0, 1}) {
    zk_proc_list_t head = {};
    zk_stack_rec_t* table = nullptr;
    lseek(fildes, 100, SEEK_SET);
    printed([&] {
      if (order == -1) zk_dump_stack(0, nullptr, 0, 0, nullptr, 0, fildes, none);
      if (order != -1) zk_read_stack(0, nullptr, order, fildes, none, &head, &table);
    });
    in_child([&] {
      const int other = open(path.c_str(), O_RDWR);
      EXPECT_EQ(lockf(other, F_TLOCK, 0), 0) << order;
    });
  }
  close(fildes);
}

}  // namespace
