/* SPDX-License-Identifier: MIT */
/* The texts and numbers that recording programs make. */
#include "support.h"

/* The field that a product, a file, version 1.5 and line -7 make in a buffer of "#", with some flags set. */
static std::string file_info(const std::string& product, const std::string& file, const std::vector<size_t>& set = {}) {
  std::string buffer(6000, '#');
  int flags[11] = {};
  for (const size_t flag : set) flags[flag] = 1;
  EXPECT_EQ(zk_make_file_info_msg(0, nullptr, buffer.data(), product.c_str(), file.c_str(), "1.5", -7, flags), 46);
  return buffer;
}
static std::string field(std::string text) {
  text.resize(46, ' ');
  text.resize(6000, '#');
  return text;
}

TEST(file_info, is_46_characters) {
  EXPECT_EQ(file_info("prod", "/usr/src/a/b.c"), field("prod,b.c,1.5,-7"));
  EXPECT_EQ(file_info("prod", "b.c//"), field("prod,b.c,1.5,-7"));
  EXPECT_EQ(file_info("", "//"), field(",/,1.5,-7"));
  EXPECT_EQ(file_info("", ""), field(",.,1.5,-7"));
}

TEST(file_info, has_something_else_for_what_is_not_usable) {
  EXPECT_EQ(file_info("prod", "b.c", {5}), field("prod,unknown_file,1.5,-7"));
  EXPECT_EQ(file_info("prod", "b.c", {6}), field("prod,b.c,no_version_num,-7"));
  EXPECT_EQ(file_info("prod", "b.c", {7}), field("pps_product,b.c,1.5,-7"));
  EXPECT_EQ(file_info("prod", "b.c", {8}), field("prod,b.c,1.5,0"));
  EXPECT_EQ(file_info("prod", "b.c", {0, 1, 2, 3, 4, 9, 10}), field("prod,b.c,1.5,-7"));
  int flags[9] = {0, 0, 0, 0, 0, 1, 1, 1, 1};
  char buffer[46];
  zk_make_file_info_msg(0, nullptr, buffer, nullptr, nullptr, nullptr, 12, flags);
  EXPECT_EQ(std::string(buffer, 46), "pps_product,unknown_file,no_version_num,0     ");
}

TEST(file_info, that_is_too_long_ends_in_a_mark) {
  const std::string p34(34, 'p'), long_file(5000, 'f'); /* 34 and ",b.c,1.5,-7" are 45 */
  EXPECT_EQ(file_info(p34, "b.c"), field(p34 + ",b.c,1.5,-7"));
  EXPECT_EQ(file_info(p34, "b.cc"), field(p34 + ",b.cc,1.5,->"));
  EXPECT_EQ(file_info(p34, "b.ccc").substr(0, 48), p34 + ",b.ccc,1.5,>" + '\0' + '#');
  EXPECT_EQ(file_info(p34, long_file),
            p34 + ",ffffffffff>" + std::string(5042 - 46, '\0') + std::string(6000 - 5042, '#'));
}

static const std::string TRACE = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=16384\n");

TEST(file_info, tells_what_it_cuts_off) {
  char buffer[60];
  int flags[9] = {};
  zk_make_file_info_msg(1, TRACE.c_str(), buffer, "a product with a long name", "/usr/src/file.c", "1.5 or so", 1234,
                        flags);
  EXPECT_EQ(trace_entries(TRACE).back(),
            traced("zk_make_file_info_msg",
                   "File Identification information \"a product with a long name,file.c,1.5 or so,1\" is "
                   "48 chars long, being truncated\nSome information will be lost\n"));
}

TEST(priority, comes_from_the_event_type) {
  const int expected[] = {7, 0, 3, 5, 4, 6, 7, 7, 7};
  for (int type = -1; type <= 7; ++type) {
    int flags[11] = {}, priority = -1;
    zk_determine_bsd_priority(0, nullptr, type, &priority, 1, flags);
    EXPECT_EQ(priority, expected[type + 1]) << type;
    EXPECT_EQ(flags[10], type == -1 || type == 7 ? 1 : 0) << type;
  }
}

TEST(priority, tells_of_a_bad_type_only_who_tracks_errors) {
  int priority = -1, flags[11] = {};
  for (const int track : {0, 2}) zk_determine_bsd_priority(0, nullptr, 9, &priority, track, flags);
  EXPECT_EQ(flags[10], 0);
  zk_determine_bsd_priority(1, TRACE.c_str(), -9, &priority, 0, nullptr);
  const std::vector<std::string> entries = trace_entries(TRACE);
  EXPECT_EQ(entries.end()[-2],
            traced("zk_determine_bsd_priority", "Invalid ZELK Event Type -9 - mapping to type ZELK_DEBUG(6)\n"));
  EXPECT_EQ(entries.back(), traced("zk_determine_bsd_priority", "Assigning SysLog priority of 7 to event type -9\n"));
}
