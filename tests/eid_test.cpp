/* SPDX-License-Identifier: MIT */
/* Error IDs: what holds for all of them. What the routines answer stands in golden/library. */
#include "node.h"

#include <cstring>
#include <fstream>
#include <random>

#include "support.h"

/* 14 November 2023, 22:13:20.123456 UTC, at 127.0.0.1 and at 192.168.1.2. */
static const std::string HERE = ".2zIZ/.7S./...z/...................",
                         ELSEWHERE = ".2zIZ/.7S.02.e.1...................";

static struct outputs {
  int local, version, location, facility, priority, ipv6;
  unsigned int label;
  timeval time;
  unsigned char address[16];
  char files[256];
} out;

static int decode_1(const std::string& id) {
  return zk_decode_eid(0, nullptr, id.c_str(), &out.local, &out.version, &out.location, out.files, &out.label,
                       &out.time, out.address, &out.ipv6);
}
static int decode_2(const std::string& id) {
  return zk_decode_eid_2(0, nullptr, id.c_str(), &out.local, &out.version, &out.location, out.files, 1, &out.label,
                         &out.facility, &out.priority, &out.time, out.address, &out.ipv6);
}

TEST(error_id, of_an_ipv4_node_gives_four_bytes_of_address_and_no_file) {
  std::memset(&out, '#', sizeof out);
  EXPECT_EQ(decode_2("8M6...." + ELSEWHERE), 0);
  EXPECT_EQ(std::string(out.address, out.address + 16), "\xc0\xa8\x01\x02############");
  EXPECT_EQ(std::string(out.files, 256), std::string(256, '#'));
}

TEST(error_id, is_decoded_into_facility_and_priority_both) {
  const std::string id = "8M6...." + HERE, trace = new_file(EMPTY_TRACE);
  auto decode_into = [&](int* facility, int* priority) {
    return zk_decode_eid_2(1, trace.c_str(), id.c_str(), &out.local, &out.version, &out.location, out.files, 1,
                           &out.label, facility, priority, &out.time, out.address, &out.ipv6);
  };
  auto traced = [&] { return replaced(trace_entries(trace).back(), "\n\t", ""); };
  EXPECT_EQ(decode_into(&out.facility, nullptr), -11);
  EXPECT_NE(traced().find("bsd_priority (0x0) or bsd_facility (0x"), std::string::npos);
  EXPECT_EQ(decode_into(nullptr, &out.priority), -11);
  EXPECT_NE(traced().find("bsd_facility (0x0)"), std::string::npos);
}

TEST(error_id, that_is_made_is_taken_apart_again) {
  char id[43] = "";
  long seconds = 0;
  setenv("ZELKADDR", HERE.substr(10).c_str(), 1);
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const unsigned int label = static_cast<unsigned int>(random()) | 1;
    const int facility = static_cast<int>(random() % 24) * 8, priority = static_cast<int>(random() % 8);
    now_is = {static_cast<time_t>(random() % INT32_MAX + 1), static_cast<suseconds_t>(random() % 1000000)};
    ASSERT_EQ(zk_generate_eid(0, nullptr, nullptr, label, &seconds, id) + decode_1(id), 0) << id;
    EXPECT_EQ(out.label, label);
    ASSERT_EQ(zk_generate_eid_2(0, nullptr, nullptr, 0, facility, priority, &seconds, id) + decode_2(id), 0) << id;
    EXPECT_EQ(out.facility * 8 + out.priority, facility * 8 + priority) << id;
    EXPECT_EQ(out.time.tv_sec, now_is.tv_sec);
    EXPECT_EQ(out.time.tv_usec, now_is.tv_usec);
  }
}

TEST(fields, are_written_with_a_terminator_but_for_a_header_of_the_digit_zero) {
  char text[10] = "###";
  EXPECT_EQ(zk_get_base_64_hdr(0, nullptr, 1, 0, text), 0);
  EXPECT_STREQ(text, ".##");
  EXPECT_EQ(zk_get_base_64_hdr(0, nullptr, 2, 2, text), 0);
  EXPECT_EQ(std::string(text, 3), std::string("8\0#", 3));
  std::strcpy(text, "123456789");
  zk_selector_substr("8M6....2zIZ/.", text);
  EXPECT_STREQ(text, "M6....789");
}

TEST(fields, inode_gives_a_name_of_255_characters_within_its_slot) {
  const std::string folder = scratch() + "/folder", name(255, 'n');
  ASSERT_EQ(mkdir(folder.c_str(), 0700), 0);
  std::ofstream(folder + "/" + name) << "any bytes";
  char entry[7] = "";
  ASSERT_EQ(zk_get_base_64_inode(0, nullptr, (folder + "/" + name).c_str(), entry), 0);
  std::string slots(2 * 256, '#');
  EXPECT_EQ(zk_conv_base_64_inode(0, nullptr, folder.c_str(), entry, slots.data(), 1), 0);
  EXPECT_EQ(slots, name + std::string(257, '#'));
}
