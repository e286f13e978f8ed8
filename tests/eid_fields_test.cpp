/* Base-64 numbers and the fields of an Error ID. */
#include "faults.h"

#include <dirent.h>

#include <cstring>
#include <random>

#include "transcript.h"

/* Files with these i-nodes and names are all that there is, once there are any. */
static std::vector<std::pair<ino_t, std::string>> only_files;
static size_t files_read;

extern "C" dirent* readdir(DIR* directory) {
  static dirent entry;
  if (only_files.empty()) {
    dirent* next = nullptr;
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    readdir_r(directory, &entry, &next);
    return next;
  }
  if (files_read == only_files.size()) return nullptr;
  entry.d_ino = only_files[files_read].first;
  std::strcpy(entry.d_name, only_files[files_read++].second.c_str());
  return &entry;
}

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

TEST(fields, header_is_a_version_and_a_location) {
  transcript said{"header"};
  char text[2] = "";
  int version = 7, location = 7;
  CALL(said, zk_get_base_64_hdr, 1, 0, text).gives(text);
  CALL(said, zk_get_base_64_hdr, 1, 1, text).gives(text);
  CALL(said, zk_get_base_64_hdr, 1, 2, text).gives(text);
  CALL(said, zk_get_base_64_hdr, 2, 0, text).gives(text);
  CALL(said, zk_get_base_64_hdr, 2, 1, text).gives(text);
  CALL(said, zk_get_base_64_hdr, 2, 2, text).gives(text);
  CALL(said, zk_get_base_64_hdr, 0, 3, nullptr);
  CALL(said, zk_get_base_64_hdr, 3, 3, nullptr);
  CALL(said, zk_get_base_64_hdr, 1, -1, nullptr);
  CALL(said, zk_get_base_64_hdr, 1, 3, nullptr);
  CALL(said, zk_get_base_64_hdr, 1, 1, nullptr);
  CALL(said, zk_conv_base_64_hdr, ".", &version, &location).gives(version, location);
  CALL(said, zk_conv_base_64_hdr, "7", &version, &location).gives(version, location);
  CALL(said, zk_conv_base_64_hdr, "0...", &version, &location).gives(version, location);
  CALL(said, zk_conv_base_64_hdr, "9", &version, &location).gives(version, location);
  CALL(said, zk_conv_base_64_hdr, "G", &version, &location).gives(version, location);
  CALL(said, zk_conv_base_64_hdr, "./", &version, &location).gives(version, location);
  CALL(said, zk_conv_base_64_hdr, nullptr, nullptr, nullptr);
  CALL(said, zk_conv_base_64_hdr, "", nullptr, nullptr);
  CALL(said, zk_conv_base_64_hdr, "/", nullptr, nullptr);
  CALL(said, zk_conv_base_64_hdr, "/", &version, nullptr);
  said.compare();
}

TEST(fields, template_label_is_not_zero) {
  transcript said{"template"};
  char text[7] = "";
  unsigned int label = 7;
  CALL(said, zk_get_base_64_templ, 4711, text).gives(text);
  CALL(said, zk_get_base_64_templ, 0xFFFFFFFF, text).gives(text);
  CALL(said, zk_get_base_64_templ, 1, nullptr);
  CALL(said, zk_conv_base_64_templ, "b7/...more", &label).gives(label);
  CALL(said, zk_conv_base_64_templ, "b7/", &label).gives(label);
  CALL(said, zk_conv_base_64_templ, "zzzzzz", &label).gives(label);
  CALL(said, zk_conv_base_64_templ, ".....2", &label).gives(label);
  CALL(said, zk_conv_base_64_templ, nullptr, nullptr);
  CALL(said, zk_conv_base_64_templ, "/", nullptr);
  CALL(said, zk_conv_base_64_templ, "", &label).gives(label);
  said.compare();
}

TEST(fields, selector_is_a_facility_and_a_priority) {
  transcript said{"selector"};
  char text[7] = "";
  int facility = 7, priority = 9;
  CALL(said, zk_get_base_64_selector, 0, 0, text).gives(text);
  CALL(said, zk_get_base_64_selector, 184, 7, text).gives(text);
  CALL(said, zk_get_base_64_selector, 23, 4, text).gives(text);
  CALL(said, zk_get_base_64_selector, 185, 8, nullptr);
  CALL(said, zk_get_base_64_selector, -1, 8, nullptr);
  CALL(said, zk_get_base_64_selector, 8, 8, nullptr);
  CALL(said, zk_get_base_64_selector, 8, -1, nullptr);
  CALL(said, zk_get_base_64_selector, 8, 7, nullptr);
  CALL(said, zk_conv_base_64_selector, "/M....", &facility, &priority).gives(facility, priority);
  CALL(said, zk_conv_base_64_selector, "N/....", &facility, &priority).gives(facility, priority);
  CALL(said, zk_conv_base_64_selector, "M7....", &facility, &priority).gives(facility, priority);
  CALL(said, zk_conv_base_64_selector, "!/....", &facility, &priority);
  CALL(said, zk_conv_base_64_selector, "./....", &facility, &priority);
  CALL(said, zk_conv_base_64_selector, "/.....", &facility, &priority);
  CALL(said, zk_conv_base_64_selector, "///...", &facility, &priority);
  CALL(said, zk_conv_base_64_selector, "//.../", &facility, &priority);
  CALL(said, zk_conv_base_64_selector, "//...", &facility, &priority);
  CALL(said, zk_conv_base_64_selector, "M6....more", &facility, &priority).gives(facility, priority);
  CALL(said, zk_conv_base_64_selector, nullptr, nullptr, nullptr);
  CALL(said, zk_conv_base_64_selector, "/", nullptr, nullptr);
  CALL(said, zk_conv_base_64_selector, "/", &facility, nullptr);
  said.compare();
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

TEST(fields, time_is_seconds_and_microseconds) {
  transcript said{"time"};
  char text[11] = "";
  long seconds = 7;
  timeval time = {7, 7};
  now_is = {1700000000, 123456};
  CALL(said, zk_get_base_64_time, text, &seconds).gives(text, seconds);
  now_is = {1, 0};
  CALL(said, zk_get_base_64_time, text, &seconds).gives(text, seconds);
  now_is = {63, 999999};
  CALL(said, zk_get_base_64_time, text, &seconds).gives(text, seconds);
  refuse("gettimeofday", EFAULT, 3); /* the trace asks for it too */
  CALL(said, zk_get_base_64_time, text, &seconds);
  CALL(said, zk_get_base_64_time, nullptr, nullptr);
  CALL(said, zk_get_base_64_time, text, nullptr);
  CALL(said, zk_conv_base_64_time, ".2zIZ/.7S.more", &time).gives(time.tv_sec, time.tv_usec);
  CALL(said, zk_conv_base_64_time, "z", &time).gives(time.tv_sec, time.tv_usec);
  CALL(said, zk_conv_base_64_time, "zzzzzzz6o1", &time).gives(time.tv_sec, time.tv_usec);
  CALL(said, zk_conv_base_64_time, "z......7o1", &time).gives(time.tv_sec, time.tv_usec);
  time = {7, 7};
  CALL(said, zk_conv_base_64_time, "......z...", &time).gives(time.tv_sec, time.tv_usec);
  CALL(said, zk_conv_base_64_time, nullptr, nullptr);
  CALL(said, zk_conv_base_64_time, "", nullptr);
  CALL(said, zk_conv_base_64_time, "z", nullptr);
  said.compare();
}

TEST(fields, inode_is_that_of_a_file) {
  transcript said{"inode"};
  char text[7] = "";
  every_inode = static_cast<ino_t>((1ULL << 36) + 4097); /* 36 bits of it are taken */
  CALL(said, zk_get_base_64_inode, "/", text).gives(text);
  every_inode = 0;
  CALL(said, zk_get_base_64_inode, "/none", text);
  CALL(said, zk_get_base_64_inode, "/dev/null/x", text);
  CALL(said, zk_get_base_64_inode, nullptr, nullptr);
  CALL(said, zk_get_base_64_inode, "", nullptr);
  CALL(said, zk_get_base_64_inode, "/", nullptr);
  said.compare();
}

TEST(fields, inode_leads_to_the_files_that_have_it) {
  transcript said{"files_of_inode"};
  char names[3 * 256] = "";
  auto find = [&](const std::string& entry, int limit) {
    std::memset(names, 0, sizeof names);
    const std::string call = "zk_conv_base_64_inode(\"/\", \"" + entry + "\", names, " + std::to_string(limit) + ")";
    said.note(call, [&](int active, const char* file) {
      files_read = 0;
      return zk_conv_base_64_inode(active, file, "/", entry.c_str(), names, limit);
    });
    said.gives(names, names + 256, names + 512);
  };
  only_files = {{4097, "first"}, {4098, "other"}, {(1ULL << 36) + 4097, "wide"}, {4097, "third"}, {4097, "last"}};
  find("/./...", 1);
  find("/./...more", 3);
  find("0./", 2);
  find("0.....", 2);
  only_files.clear();
  CALL(said, zk_conv_base_64_inode, "/none", "/./...", names, 1);
  CALL(said, zk_conv_base_64_inode, "/dev/null", "/./...", names, 1);
  CALL(said, zk_conv_base_64_inode, nullptr, nullptr, nullptr, 0);
  CALL(said, zk_conv_base_64_inode, "", nullptr, nullptr, 0);
  CALL(said, zk_conv_base_64_inode, "/", nullptr, nullptr, 0);
  CALL(said, zk_conv_base_64_inode, "/", "", nullptr, 0);
  CALL(said, zk_conv_base_64_inode, "/", "/", nullptr, 1);
  CALL(said, zk_conv_base_64_inode, "/", "/", names, 0);
  said.compare();
}

TEST(fields, inode_search_keeps_to_its_slots_and_closes_the_directory) {
  std::string slots(3 * 256, '#');
  const std::string longest(255, 'n');
  const size_t open_files = count_files("/proc/self/fd");
  only_files = {{9, longest}, {9, "short"}, {9, "one too many"}};
  files_read = 0;
  EXPECT_EQ(zk_conv_base_64_inode(0, nullptr, "/", "7.....", slots.data(), 2), 0);
  only_files.clear();
  EXPECT_EQ(slots, longest + "#" + text("short") + std::string(250 + 256, '#'));
  EXPECT_EQ(count_files("/proc/self/fd"), open_files);
}

TEST(fields, inode_refuses_what_may_not_be_searched) {
  const std::string shut = scratch() + "/shut";
  ASSERT_EQ(mkdir(shut.c_str(), 0) | chmod(scratch().c_str(), 0755), 0);
  ASSERT_EQ(symlink("loop", (scratch() + "/loop").c_str()), 0);
  as_ordinary_user([&] {
    char text[256] = "";
    EXPECT_EQ(zk_get_base_64_inode(0, nullptr, (shut + "/x").c_str(), text), -25);
    EXPECT_EQ(zk_conv_base_64_inode(0, nullptr, shut.c_str(), "/", text, 1), -13);
    EXPECT_EQ(zk_get_base_64_inode(0, nullptr, (scratch() + "/loop").c_str(), text), -1);
    EXPECT_EQ(zk_conv_base_64_inode(0, nullptr, (scratch() + "/loop").c_str(), "/", text, 1), -1);
  });
}
