/* SPDX-License-Identifier: MIT */
/* Base-64 numbers and the fields of an Error ID. */
#include "faults.h"

#include <filesystem>
#include <fstream>
#include <random>

#include "support.h"

static std::string digits(uint64_t value, int length = 8) {
  char text[8] = "stale";
  errno = 0;
  return zk_l64a_r(value, text, length) == 0 ? text : text + std::string("failed with ") + std::to_string(errno);
}

TEST(base64, has_the_lowest_digit_first) {
  EXPECT_STREQ(base64_table, "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz");
  EXPECT_EQ(digits(0), "");
  EXPECT_EQ(digits(63), "z");
  EXPECT_EQ(digits(64), "./");
  EXPECT_EQ(digits(0xFFFFFFFFF), "zzzzzz");
  EXPECT_EQ(digits((1ULL << 36) + 65), "//...."); /* what six digits cannot hold is lost */
}

TEST(base64, takes_one_digit_more_than_the_length_and_no_other) {
  EXPECT_EQ(digits(64 * 64, 2), "../");
  EXPECT_EQ(digits(64 * 64, 1), "failed with 22");
  EXPECT_EQ(digits(1, 0), "/");
  EXPECT_EQ(digits(1, -1), "failed with 22");
  EXPECT_EQ(digits(0, -1), "");
  errno = 0;
  EXPECT_EQ(zk_l64a_r(1, nullptr, 8), -1);
  EXPECT_EQ(errno, 22);
}

TEST(base64, reads_a_whole_text_and_takes_other_characters_for_zero) {
  EXPECT_EQ(zk_a64l(nullptr), 0U);
  EXPECT_EQ(zk_a64l(""), 0U);
  EXPECT_EQ(zk_a64l("./."), 64U);
  EXPECT_EQ(zk_a64l("!/\xff./"), 64U + (1U << 24));
  EXPECT_EQ(zk_a64l("........../"), 1ULL << 60);
  EXPECT_EQ(zk_a64l("zzzzzzzzzzzzzz"), UINT64_MAX); /* what 64 bits cannot hold is lost */
  std::mt19937_64 random(1);
  for (int round = 0; round < 1000; ++round) {
    const uint64_t value = random() >> (28 + random() % 36);
    EXPECT_EQ(zk_a64l(digits(value).c_str()), value);
  }
}

TEST(fields, header_has_a_terminator_unless_it_is_the_digit_zero) {
  char text[4] = "###";
  EXPECT_EQ(zk_get_base_64_hdr(0, nullptr, 1, 0, text), 0);
  EXPECT_STREQ(text, ".##");
  EXPECT_EQ(zk_get_base_64_hdr(0, nullptr, 2, 2, text), 0);
  EXPECT_EQ(std::string(text, 3), std::string("8\0#", 3));
}

TEST(fields, selector_is_cut_out_of_an_id) {
  char text[10] = "123456789";
  zk_selector_substr("8M6....2zIZ/.", text);
  EXPECT_STREQ(text, "M6....789");
  zk_selector_substr("8x", text);
  zk_selector_substr("", text + 1);
  EXPECT_STREQ(text, "x6....789");
  zk_selector_substr("8M6....", nullptr);
}

TEST(fields, time_needs_a_clock) {
  const std::string trace = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=16384\n");
  char text[11] = "as before";
  long seconds = 99;
  refuse("gettimeofday", EFAULT, 2); /* the trace asks for it too */
  EXPECT_EQ(zk_get_base_64_time(1, trace.c_str(), text, &seconds), -1);
  EXPECT_EQ(
      trace_entries(trace).back(),
      traced("zk_get_base_64_time", "Cannot obtain current time of day - returning ZELK_FAILURE(-1) to caller\n"));
  EXPECT_EQ(text + std::to_string(seconds), "as before99");
}

TEST(fields, inode_search_keeps_to_its_slots_and_closes_the_directory) {
  const std::string folder = scratch() + "/folder", longest(255, 'n');
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  std::ofstream(folder + "/" + longest) << "a file with two names more";
  for (const char* name : {"/second", "/third"})
    std::filesystem::create_hard_link(folder + "/" + longest, folder + name);
  std::string slots(3 * 256, '#'), entry(7, '\0');
  ASSERT_EQ(zk_get_base_64_inode(0, nullptr, (folder + "/second").c_str(), entry.data()), 0);
  const size_t open_files = open_descriptors();
  EXPECT_EQ(zk_conv_base_64_inode(0, nullptr, folder.c_str(), entry.c_str(), slots.data(), 2), 0);
  EXPECT_TRUE(slots[0] != '#' && slots[255] == '#' && slots[256] != '#' && slots.substr(511) == std::string(257, '#'));
  EXPECT_EQ(open_descriptors(), open_files);
}

TEST(fields, inode_refuses_what_may_not_be_searched) {
  const std::string shut = scratch() + "/shut";
  ASSERT_EQ(mkdir(shut.c_str(), 0) | chmod(scratch().c_str(), 0755), 0);
  as_ordinary_user([&] {
    char text[256] = "";
    EXPECT_EQ(zk_get_base_64_inode(0, nullptr, (shut + "/x").c_str(), text), -25);
    EXPECT_EQ(zk_conv_base_64_inode(0, nullptr, shut.c_str(), "/", text, 1), -13);
  });
}
