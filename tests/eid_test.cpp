/* Error IDs as a whole: made, and taken apart. */
#include "faults.h"

#include <cstring>
#include <random>

#include "node.h"
#include "transcript.h"

namespace fs = std::filesystem;

/* What an ID ends with: 14 November 2023, 22:13:20.123456 UTC, at 127.0.0.1, 192.168.1.2 or 2001:db8:0:3:5:0:0:4. */
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

static void give_outputs(transcript& said) {
  char address[64] = "";
  inet_ntop(out.ipv6 == 1 ? AF_INET6 : AF_INET, out.address, address, sizeof address);
  said.gives("local", out.local, "version", out.version, "location", out.location);
  said.gives("label", out.label, "facility", out.facility, "priority", out.priority);
  said.gives("time", out.time.tv_sec, out.time.tv_usec, "IPv6", out.ipv6, address);
  said.gives("files", out.files[0], out.files[1], out.files[2]);
}
static void note_decode_2(transcript& said, const std::string& id) {
  said.note("zk_decode_eid_2(\"" + id + "\")",
            [&](int active, const char* file) { return decode_2(id, 4, active, file); });
  give_outputs(said);
}
static void note_decode_1(transcript& said, const std::string& id) {
  said.note("zk_decode_eid(\"" + id + "\")", [&](int active, const char* file) { return decode_1(id, active, file); });
  give_outputs(said);
}

struct decoding : testing::Test {
  void SetUp() override {
    node = {{"lo", "127.0.0.1", LOOPBACK}};
    setenv("TZ", "UTC", 1);
  }
};

TEST_F(decoding, of_version_two_knows_three_locations) {
  transcript said{"decode_2", true};
  note_decode_2(said, "8M6...." + HERE);
  note_decode_2(said, "6b7/..." + ELSEWHERE);
  note_decode_2(said, "7......" + IPV6);
  note_decode_2(said, "0M6...." + ELSEWHERE);
  note_decode_2(said, "8M7...." + HERE);
  note_decode_2(said, "6......" + HERE);
  note_decode_2(said, "8M6...." + std::string(6, '.') + HERE.substr(6));
  note_decode_2(said, "8M6...." + HERE.substr(0, 34) + "x");
  note_decode_2(said, "9M6...." + HERE);
  said.compare();
}

TEST_F(decoding, of_version_one_knows_two_locations) {
  transcript said{"decode", true};
  note_decode_1(said, ".b7/..." + HERE);
  note_decode_1(said, "/......" + ELSEWHERE);
  note_decode_1(said, "0M6...." + HERE);
  note_decode_1(said, "6b7/..." + HERE);
  said.compare();
}

TEST_F(decoding, needs_an_id_of_42_characters_and_a_place_for_each_output) {
  transcript said{"decode_needs", true};
  const std::string id = "8M6...." + HERE;
  for (const std::string& bad : {std::string(), id.substr(1), id + "."}) {
    said.note("zk_decode_eid_2(\"" + bad + "\")", [&](int active, const char* file) {
      return zk_decode_eid_2(active, file, bad.c_str(), nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                             nullptr, nullptr, nullptr, nullptr);
    });
  }
  for (int given = 0; given < 9; ++given) {
    auto give = [&](int place, auto* output) { return place < given ? output : nullptr; };
    const std::string outputs = " with " + std::to_string(given) + " outputs";
    said.note("zk_decode_eid_2" + outputs, [&](int active, const char* file) {
      return zk_decode_eid_2(active, file, id.c_str(), &out.local, give(0, &out.version), give(1, &out.location),
                             give(2, out.files[0]), 1, give(3, &out.label), give(8, &out.facility),
                             give(9, &out.priority), give(4, &out.time), give(5, out.address), give(6, &out.ipv6));
    });
    if (given > 6) continue;
    said.note("zk_decode_eid" + outputs, [&](int active, const char* file) {
      return zk_decode_eid(active, file, id.c_str(), &out.local, give(0, &out.version), give(1, &out.location),
                           give(2, out.files[0]), give(3, &out.label), give(4, &out.time), give(5, out.address),
                           give(6, &out.ipv6));
    });
  }
  const unsigned int pointer = static_cast<unsigned int>(reinterpret_cast<uintptr_t>(&out.facility));
  char place[16];
  snprintf(place, sizeof place, "(0x%x)", pointer);
  said.places = {{place, "(where it is)"}};
  said.compare();
  EXPECT_EQ(zk_decode_eid(0, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
            -3);
}

TEST_F(decoding, writes_four_bytes_of_an_ipv4_address) {
  std::memset(&out, '#', sizeof out);
  EXPECT_EQ(
      zk_decode_eid_2(0, nullptr, ("8M6...." + ELSEWHERE).c_str(), &out.local, &out.version, &out.location,
                      out.files[0], 1, &out.label, &out.facility, &out.priority, &out.time, out.address, &out.ipv6),
      0);
  EXPECT_EQ(std::string(out.address, out.address + 16), "\xc0\xa8\x01\x02############");
  EXPECT_EQ(std::string(out.files[0], out.files[1]), std::string(256, '#'));
}

TEST_F(decoding, takes_an_id_for_local_by_any_address_of_the_node) {
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"eth0", "10.0.0.1", DOWN}, {"eth1", "192.168.1.2", UP}};
  EXPECT_EQ(decode_2("8M6...." + ELSEWHERE) + out.local, 1);
  EXPECT_EQ(decode_2("8M6...." + IPV6) + out.local, 0);
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

TEST_F(decoding_a_stack, says_when_it_is_gone_or_another_nodes) {
  fs::remove(folder / "second");
  fs::remove(folder / "third");
  transcript said{"decode_stack", true};
  said.places = {{entry, "I-NODE"}};
  note_decode_2(said, "7" + entry + HERE);
  note_decode_1(said, "/" + entry + HERE);
  note_decode_2(said, "7" + entry + ELSEWHERE);
  fs::remove(folder / "stack");
  note_decode_2(said, "/" + entry + HERE);
  note_decode_1(said, "/" + entry + HERE);
  fs::remove(folder);
  note_decode_2(said, "7" + entry + HERE);
  note_decode_1(said, "/" + entry + HERE);
  fs::create_directory(folder);
  said.compare();
}

/* ---- Generation ------------------------------------------------------------------------------------------------- */

struct generation : testing::Test {
  char id[43] = "as before";
  long seconds = 7;

  void SetUp() override {
    setenv("ZELKADDR", HERE.substr(10).c_str(), 1);
    every_inode = 4097; /* of whatever file stands for a stack */
  }
  void TearDown() override { every_inode = 0; }
};

TEST_F(generation, of_version_two_takes_the_last_location_given) {
  transcript said{"generate_2", true};
  CALL(said, zk_generate_eid_2, "/", 0, -1, 0, &seconds, id).gives(id, seconds);
  CALL(said, zk_generate_eid_2, nullptr, 4711, 185, 0, &seconds, id).gives(id, seconds);
  CALL(said, zk_generate_eid_2, nullptr, 0, 184, 7, &seconds, id).gives(id, seconds);
  CALL(said, zk_generate_eid_2, nullptr, 4711, 0, 0, &seconds, id).gives(id, seconds);
  CALL(said, zk_generate_eid_2, "/", 0, 24, 0, &seconds, id).gives(id, seconds);
  said.compare();
}

TEST_F(generation, of_version_one_takes_a_stack_or_a_template) {
  transcript said{"generate", true};
  CALL(said, zk_generate_eid, "/", 0, &seconds, id).gives(id, seconds);
  CALL(said, zk_generate_eid, nullptr, 4711, &seconds, id).gives(id, seconds);
  said.compare();
}

TEST_F(generation, that_fails_writes_nothing) {
  transcript said{"generate_fails", true};
  CALL(said, zk_generate_eid, "/", 4711, &seconds, id);
  CALL(said, zk_generate_eid, nullptr, 0, &seconds, id);
  CALL(said, zk_generate_eid, "", 0, &seconds, id);
  CALL(said, zk_generate_eid, "/none", 0, &seconds, id);
  CALL(said, zk_generate_eid_2, "/", 4711, -1, 40, &seconds, id);
  CALL(said, zk_generate_eid_2, "/", 0, 0, 184, &seconds, id);
  CALL(said, zk_generate_eid_2, "/", 0, 23, 0, &seconds, id);
  CALL(said, zk_generate_eid_2, nullptr, 0, 185, 0, &seconds, id);
  CALL(said, zk_generate_eid_2, nullptr, 0, -1, 0, &seconds, id);
  CALL(said, zk_generate_eid_2, "", 0, -1, 0, &seconds, id);
  CALL(said, zk_generate_eid_2, nullptr, 0, 8, 8, &seconds, id);
  refuse("gettimeofday", EFAULT, 3); /* the trace asks for it too */
  CALL(said, zk_generate_eid_2, nullptr, 4711, -1, 0, &seconds, id);
  unsetenv("ZELKADDR");
  CALL(said, zk_generate_eid_2, nullptr, 4711, -1, 0, &seconds, id);
  setenv("ZELKADDR", "", 1);
  CALL(said, zk_generate_eid, nullptr, 4711, &seconds, id);
  setenv("ZELKADDR", "12345678901234567890123456", 1);
  CALL(said, zk_generate_eid, nullptr, 4711, &seconds, id);
  setenv("ZELKADDR", "123456789012345678901234", 1);
  CALL(said, zk_generate_eid_2, nullptr, 4711, -1, 0, &seconds, id);
  said.gives(id, seconds);
  said.compare();
}

TEST_F(generation, makes_what_decoding_takes_apart) {
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
