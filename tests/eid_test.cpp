/* SPDX-License-Identifier: MIT */
/* Error IDs as a whole: made, and taken apart. */
#include "node.h"

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>

#include "support.h"

namespace fs = std::filesystem;

/* What an ID ends with: 14 November 2023, 22:13:20.123456 UTC, at 127.0.0.1 or 192.168.1.2. */
static const std::string MOMENT = ".2zIZ/.7S.", HERE = MOMENT + "/...z/...................",
                         ELSEWHERE = MOMENT + "02.e.1...................", IPV6 = MOMENT + "sqE.U.1.......E/..2...../";

static struct outputs {
  int local, version, location, facility, priority, ipv6;
  unsigned int label;
  timeval time;
  unsigned char address[16];
  char files[4][256];
} out;

/* Decodes with every output 7 before. */
static int decode_2(const std::string& id, int limit = 4, int active = 0, const char* file = nullptr) {
  out = {7, 7, 7, 7, 7, 7, 7, {7, 7}, {}, {}};
  return zk_decode_eid_2(active, file, id.c_str(), &out.local, &out.version, &out.location, out.files[0], limit,
                         &out.label, &out.facility, &out.priority, &out.time, out.address, &out.ipv6);
}
static int decode_1(const std::string& id, int active = 0, const char* file = nullptr) {
  out = {7, 7, 7, 7, 7, 7, 7, {7, 7}, {}, {}};
  return zk_decode_eid(active, file, id.c_str(), &out.local, &out.version, &out.location, out.files[0], &out.label,
                       &out.time, out.address, &out.ipv6);
}

struct decoding : testing::Test {
  void SetUp() override {
    node = {{"lo", "127.0.0.1", LOOPBACK}};
    setenv("TZ", "UTC", 1);
  }
};

TEST_F(decoding, writes_four_bytes_of_an_ipv4_address) {
  std::memset(&out, '#', sizeof out);
  EXPECT_EQ(
      zk_decode_eid_2(0, nullptr, ("8M6...." + ELSEWHERE).c_str(), &out.local, &out.version, &out.location,
                      out.files[0], 1, &out.label, &out.facility, &out.priority, &out.time, out.address, &out.ipv6),
      0);
  EXPECT_EQ(std::string(out.address, out.address + 16), "\xc0\xa8\x01\x02############");
  EXPECT_EQ(std::string(out.files[0], out.files[1]), std::string(256, '#'));
}

TEST_F(decoding, needs_facility_and_priority_both) {
  const std::string trace = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=16384\n");
  char place[16]; /* its low 32 bits */
  snprintf(place, sizeof place, "0x%x", static_cast<unsigned int>(reinterpret_cast<uintptr_t>(&out.facility)));
  for (int* facility : {&out.facility, static_cast<int*>(nullptr)}) {
    int* const priority = facility == nullptr ? &out.facility : nullptr;
    EXPECT_EQ(zk_decode_eid_2(1, trace.c_str(), ("8M6...." + HERE).c_str(), &out.local, &out.version, &out.location,
                              out.files[0], 1, &out.label, facility, priority, &out.time, out.address, &out.ipv6),
              -11);
    EXPECT_EQ(trace_entries(trace).back(),
              traced("zk_decode_eid_2", std::string("Detected invalid pointer for bsd_priority (") +
                                            (priority != nullptr ? place : "0x0") + ") or bsd_facility (" +
                                            (facility != nullptr ? place : "0x0") +
                                            ")\nReturning ZELK_INV_PARAMCOMBO(-11) to the caller\n"));
  }
}

TEST_F(decoding, takes_an_id_for_local_by_any_address_of_the_node) {
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"eth0", "10.0.0.1", DOWN}, {"eth1", "192.168.1.2", UP}};
  EXPECT_EQ(decode_2("8M6...." + ELSEWHERE) + out.local, 1);
  node->clear();
  EXPECT_EQ(decode_2("8M6...." + HERE) + out.local, 0);
  node->resize(64, {"eth", "10.0.0.1", UP}); /* as many as can be listed */
  node->back().address = "192.168.1.2";
  EXPECT_EQ(decode_2("8M6...." + ELSEWHERE) + out.local, 1);
}

/* A stack of this node has three names. */
struct decoding_a_stack : decoding {
  const fs::path folder = "/var/adm/zelk/stacks";
  std::string entry;

  void SetUp() override {
    NEEDS_PRIVATE_VAR();
    decoding::SetUp();
    fs::remove_all(folder);
    ASSERT_TRUE(fs::create_directory(folder));
    std::ofstream(folder / "stack") << "any bytes";
    char text[7] = "";
    ASSERT_EQ(zk_get_base_64_inode(0, nullptr, (folder / "stack").c_str(), text), 0);
    entry = text;
    for (const char* link : {"second", "third"}) fs::create_hard_link(folder / "stack", folder / link);
  }
};

TEST_F(decoding_a_stack, gives_its_names_as_far_as_there_are_slots) {
  EXPECT_EQ(decode_2("7" + entry + HERE), 0);
  EXPECT_TRUE(*out.files[0] != 0 && *out.files[1] != 0 && *out.files[2] != 0 && *out.files[3] == 0);
  EXPECT_EQ(decode_2("7" + entry + HERE, 2), 0);
  EXPECT_TRUE(*out.files[0] != 0 && *out.files[1] != 0 && *out.files[2] == 0);
  EXPECT_EQ(decode_2("/" + entry + HERE, 0), -6);
  EXPECT_EQ(decode_1("/" + entry + HERE), 0);
  EXPECT_TRUE(*out.files[0] != 0 && *out.files[1] == 0);
}

TEST_F(decoding_a_stack, has_everything_else_when_it_is_gone_or_another_nodes) {
  EXPECT_EQ(decode_2("7" + entry + ELSEWHERE), 0);
  EXPECT_TRUE(out.local == 0 && *out.files[0] == 0);
  fs::remove_all(folder);
  EXPECT_EQ(decode_2("7" + entry + HERE), -14);
  EXPECT_EQ(decode_1("/" + entry + HERE), -14);
  fs::create_directory(folder);
  for (const int result : {decode_2("/" + entry + HERE), decode_1("/" + entry + HERE)}) {
    EXPECT_EQ(result, -24);
    EXPECT_TRUE(out.local == 1 && out.version == 1 && out.location == 1 && *out.files[0] == 0);
    EXPECT_TRUE(out.time.tv_sec == 1700000000 && out.time.tv_usec == 123456 && out.ipv6 == 0 && out.address[3] == 1);
  }
}

TEST_F(decoding_a_stack, tells_its_name_and_when_it_has_none) {
  const std::string trace = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=16384\n"), id = "/" + entry + HERE;
  auto told = [&](int result) { return std::to_string(result) + trace_entries(trace).back(); };
  const std::string head = "ZELK Error ID \"" + id + "\" decodes into:\nVersion 1, Location 0x1\n";
  const std::string tail = "Timestamp Tue Nov 14 22:13:20 2023\n\nIP Address 0x7f000001000 (IPv4 type)\nReturn code ";
  fs::remove(folder / "second");
  fs::remove(folder / "third");
  EXPECT_EQ(told(decode_1(id, 1, trace.c_str())),
            "0" + traced("zk_decode_eid", head + "Stack File stack, Template ID 7(0x7)\n" + tail + "0"));
  fs::remove(folder / "stack");
  EXPECT_EQ(told(decode_1(id, 1, trace.c_str())),
            "-24" + traced("zk_decode_eid", head + "Stack File none, Template ID 7(0x7)\n" + tail + "-24"));
  EXPECT_EQ(
      told(decode_2(id, 4, 1, trace.c_str())),
      "-24" + traced("zk_decode_eid_2",
                     head + "First Stack File (none), Template ID 0x7 Syslog Facility 0 Priority 7\n" + tail + "-24"));
}

TEST(generation, needs_an_address_and_a_clock_and_writes_nothing_without) {
  char id[43] = "as before";
  long seconds = 7;
  unsetenv("ZELKADDR");
  EXPECT_EQ(zk_generate_eid(0, nullptr, nullptr, 4711, &seconds, id), -1);
  setenv("ZELKADDR", HERE.substr(10).c_str(), 1);
  refuse("gettimeofday", EFAULT);
  EXPECT_EQ(zk_generate_eid_2(0, nullptr, nullptr, 4711, -1, 0, &seconds, id), -1);
  EXPECT_EQ(id + std::to_string(seconds), "as before7");
}

TEST(generation, makes_what_decoding_takes_apart) {
  char id[43] = "";
  long seconds = 7;
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
  now_is = {1700000000, 123456};
}
