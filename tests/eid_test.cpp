/* eid_test.cpp - Error IDs: their fields, whole IDs made and taken apart, the addresses of a node, and the
 * command that is given an Error ID. */
#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <sstream>

#include "support.h"
#include "zk_msg.h"

namespace fs = std::filesystem;

static timeval now_is = {1700000000, 0}; /* with microseconds below 0 it cannot be had */

extern "C" int gettimeofday(timeval* time, void*) noexcept {
  *time = now_is;
  return now_is.tv_usec < 0 ? -1 : 0;
}

static std::string digits(uint64_t value, size_t width) {
  char text[8] = "";
  return zk_l64a_r(value, text, sizeof text) == 0 ? (text + std::string(width, '.')).substr(0, width) : "failed";
}
/* This node's address with its type, encoded as ZELKADDR holds it; then one that no node has, and the end of an ID made
 * there. */
static std::string here() {
  char address[ZELK_ADDR_CODE_SIZE] = "", type[2] = "";
  return zk_get_ipaddr(0, nullptr, address, type) == 0 ? std::string(address) + type : "failed";
}
static const std::string ELSEWHERE = digits(0xC0000201, 24) + ".", MOMENT = ".2zIZ/.7S.", END = MOMENT + ELSEWHERE;

/* ---- Calls with their results and traces -------------------------------------------------------------- */

static struct outputs {
  int local, version, location, facility, priority, ipv6;
  unsigned int label;
  long seconds;
  timeval time;
  char text[ZELK_EID_SIZE], files[4][ZELK_FILE_SLOT_SIZE];
  unsigned char address[16];
} out;
static const outputs UNTOUCHED = {7, 7, 7, 7, 7, 7, 7, 0, {7, 7}, {}, {}, {}};
static const std::string TRACE = scratch() + "/trace";

static int decode(const std::string& id, int limit = 4, int traced = 0) {
  return zk_decode_eid_2(traced, TRACE.c_str(), id.c_str(), &out.local, &out.version, &out.location, out.files[0],
                         limit, &out.label, &out.facility, &out.priority, &out.time, out.address, &out.ipv6);
}
/* The number at a place of a list with commas. */
static int number(const char* list, int place) {
  for (; place > 0; --place) list = std::strchr(list, ',') + 1;
  return std::atoi(list);
}
static const char NODE[3][ZELK_ADDR_SLOT_SIZE] = {"10.0.0.1", "10.0.0.2"};
/* Calls a routine with `t`, which for generation is a stack ("-" for none), a label, a facility and a priority. */
static int call(const std::string& name, const char* t, int tracing) {
  const std::string whole = strlen(t) == 7 ? t + END : t, file(t, strcspn(t, ","));
  const char* stack = file == "-" ? nullptr : file.c_str();
#define CALL(routine, ...) \
  if (name == #routine) return zk_##routine(tracing, TRACE.c_str(), __VA_ARGS__)
  CALL(conv_base_64_hdr, t, &out.version, &out.location);
  CALL(conv_base_64_inode, *t == '/' ? t : "/", *t == '/' ? "/....." : t, out.files[0], 1);
  CALL(conv_base_64_templ, t, &out.label);
  CALL(conv_base_64_selector, t, &out.facility, &out.priority);
  CALL(conv_base_64_time, t, &out.time);
  CALL(conv_ipaddr, t + 1, *t, out.address);
  CALL(test_ipaddr, t, NODE[0]);
  CALL(get_base_64_hdr, number(t, 0), number(t, 1), out.text);
  CALL(get_base_64_inode, t, out.text);
  CALL(get_base_64_selector, number(t, 0), number(t, 1), out.text);
  CALL(get_base_64_time, (now_is.tv_usec = number(t, 0), out.text), &out.seconds);
  CALL(generate_eid, stack, static_cast<unsigned int>(number(t, 1)), &out.seconds, out.text);
  CALL(generate_eid_2, stack, static_cast<unsigned int>(number(t, 1)), number(t, 2), number(t, 3), &out.seconds,
       out.text);
  CALL(decode_eid, whole.c_str(), &out.local, &out.version, &out.location, out.files[0], &out.label, &out.time,
       out.address, &out.ipv6);
  return decode(whole, 4, tracing);
}

/* Makes the calls of a table. A row has the routine unless it is that of the row before, the result, arguments and,
 * behind a colon, how the newest trace entry begins then. Success changes outputs and failure leaves them alone, unless
 * there is a "!" behind the result. Arguments are on the heap in their exact size, for a sanitizer to see. In an entry
 * "|" is a newline, "@" the argument, "&" is END. */
static void expect(const std::string& table) {
  std::istringstream rows(table);
  std::string routine;
  now_is = {1700000000, 123456};
  for (std::string row; std::getline(rows, row, ';');) {
    SCOPED_TRACE(row);
    const size_t colon = row.find(": ");
    std::vector<std::string> parts = words(row.substr(0, colon));
    if (std::isalpha(parts[0][0])) routine = parts[0], parts.erase(parts.begin());
    const int result = std::stoi(parts[0]);
    for (size_t place = 1; place < parts.size(); ++place) {
      const std::vector<char> argument(parts[place].c_str(), parts[place].c_str() + parts[place].size() + 1);
      zk_create_debug_file(TRACE.c_str());
      for (int tracing : {0, 1}) { /* which makes no difference */
        std::memcpy(&out, &UNTOUCHED, sizeof out);
        EXPECT_EQ(call(routine, argument.data(), tracing), result) << parts[place];
      }
      EXPECT_EQ(std::memcmp(&out, &UNTOUCHED, sizeof out) != 0, (result == 0) != (parts[0].back() == '!'));
      if (colon == row.npos) continue;
      std::string entry;
      for (char c : row.substr(colon + 2))
        entry += c == '\n' ? " " : c == '|' ? "\n" : c == '@' ? parts[place] : c == '&' ? END : std::string(1, c);
      EXPECT_EQ(trace_entries(TRACE).back().find(traced("zk_" + routine, entry)), 0U) << trace_entries(TRACE).back();
    }
  }
}

/* ---- Fields ------------------------------------------------------------------------------------------- */

TEST(fields, come_back_as_they_were_given) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 3000; ++round) {
    const uint64_t number = random() >> random() % 64;
    const bool syslog = round % 3 == 0, old = round % 3 == 1;
    const unsigned int label = static_cast<unsigned int>(number | 1), given = syslog ? 0 : label;
    const int facility = syslog ? static_cast<int>(number % 185) : 185, priority = static_cast<int>(number % 8);
    const uint32_t address[4] = {htonl(label), htonl(static_cast<uint32_t>(number >> 32)), 0, UINT32_MAX};
    setenv("ZELKADDR", (digits(label, 6) + digits(number >> 32, 6) + "......zzzzz1/").c_str(), 1);
    now_is = {static_cast<time_t>(number % INT32_MAX + 1), static_cast<suseconds_t>(number % 1000000)};
    out = UNTOUCHED;
    int made = old ? zk_generate_eid(0, nullptr, nullptr, label, &out.seconds, out.text)
                   : zk_generate_eid_2(0, nullptr, nullptr, given, facility, priority, &out.seconds, out.text);
    EXPECT_TRUE(made == 0 && decode(out.text) == 0) << out.text;
    const int expected[] = {old ? 1 : 2, syslog ? 2 : 0, syslog ? facility / 8 * 8 : 7, syslog ? priority : 7, 1};
    EXPECT_EQ(std::memcmp(&out.version, expected, sizeof expected), 0) << out.text;
    EXPECT_EQ(out.label, syslog ? 7 : label);
    EXPECT_TRUE(out.seconds == now_is.tv_sec && out.time.tv_sec == now_is.tv_sec && out.time.tv_usec == now_is.tv_usec);
    EXPECT_EQ(std::memcmp(out.address, address, sizeof address), 0) << out.text;
  }
}

TEST(fields, have_limits) {
  char text[8] = "stale";
  EXPECT_EQ(digits((1ULL << 36) + 64, 7), "./....."); /* the lowest digit first */
  EXPECT_TRUE(zk_l64a_r(64, text, 0) == -1 && errno == EINVAL && text[0] == '\0');
  EXPECT_EQ(zk_a64l("!/\xff./"), 64U + (1ULL << 24)); /* what is no digit counts as 0 */
  expect(R"rows(conv_base_64_hdr -99 ./ G; -99! 9; 0 8; conv_base_64_inode -14 /none /dev/null; -24 ......; 0 /proc;
conv_base_64_templ -1! ...... : Cannot convert base-64 valueof @ to a valid template ID value; 0 zzzzzzz !/;
conv_base_64_selector -4 ./.... /..... // //.../ N7....; -4 M7.... : Selector "@" yielded invalid priority value 8 -
returning ZELK_INV_PARAM3(-4); 0 M6.... : Selector "@" yielded:|	Facility 23	Priority 7|Returning ZELK_SUCCESS(0);
conv_base_64_time -36! ......z z......7o1; 0 z; 0 z.....z6o1 : Time base-64 rep of @ converted to 63 secs 999999 usecs;
conv_ipaddr -5 xz; 0 .02.e.1.................. : IP Address representation 02.e.1.................. converted to
0xc0a80102; 0 /...Uy1............/.....; 0 /z : IP Address representation z converted to 0x3flxlxlx;
test_ipaddr 0! 10.0.0.2; -1 10.0 : No matches fo address @ found in 2 known base addresses;
get_base_64_hdr -4 0,0 3,3; -5 1,-1 2,3; 0 1,0 2,2; get_base_64_inode -24 /none; -14 /dev/null/x; 0 /proc;
get_base_64_time -1 -1; 0 999999; get_base_64_selector 0 184,7; -4 185,0; -5 0,-1 0,8;
-4 -1,-1 : facility 127 invalid - returning ZELK_INV_PARAM3(-4))rows");
}

TEST(fields, need_their_arguments_in_order) {
  int one = 0, *none = nullptr;
  char text[12] = "", *no_text = nullptr;
#define FOR traced, TRACE.c_str()
  auto results = [](auto... each) { return std::vector<int>{each...}; };
  const std::vector<int> expected = {-6, -4, -5, -6, -4, -5, -4, -5, -6, -6, -5, -4, -5, -6,
                                     -4, -5, -6, -4, -5, -4, -5, -4, -5, -4, -4, -5, -3};
  for (int traced : {0, 1}) {
    const std::vector<int> made =
        results(zk_get_base_64_hdr(FOR, 1, 1, nullptr), zk_conv_base_64_hdr(FOR, "", none, none),
                zk_conv_base_64_hdr(FOR, "/", none, none), zk_conv_base_64_hdr(FOR, "/", &one, none),
                zk_get_base_64_inode(FOR, "", nullptr), zk_get_base_64_inode(FOR, "/", nullptr),
                zk_conv_base_64_inode(FOR, "", "", no_text, 0), zk_conv_base_64_inode(FOR, "/", "", no_text, 0),
                zk_conv_base_64_inode(FOR, "/", "/", no_text, 1), zk_conv_base_64_inode(FOR, "/", "/", text, 0),
                zk_get_base_64_templ(FOR, 1, nullptr), zk_conv_base_64_templ(FOR, nullptr, &out.label),
                zk_conv_base_64_templ(FOR, "/", nullptr), zk_get_base_64_selector(FOR, 8, 3, nullptr),
                zk_conv_base_64_selector(FOR, "", none, none), zk_conv_base_64_selector(FOR, "x", none, none),
                zk_conv_base_64_selector(FOR, "x", &one, none), zk_get_base_64_time(FOR, nullptr, nullptr),
                zk_get_base_64_time(FOR, text, nullptr), zk_conv_base_64_time(FOR, "", nullptr),
                zk_conv_base_64_time(FOR, "/", nullptr), zk_get_ipaddr(FOR, nullptr, nullptr),
                zk_get_ipaddr(FOR, text, nullptr), zk_conv_ipaddr(FOR, "", '.', text), zk_test_ipaddr(FOR, "", nullptr),
                zk_test_ipaddr(FOR, "1.2.3.4", nullptr),
                zk_decode_eid_2(FOR, "", none, none, none, no_text, 0, nullptr, none, none, nullptr, nullptr, none));
    EXPECT_EQ(made, expected);
  }
  zk_selector_substr("8M", text);
  zk_selector_substr("8M6....more", text + 1);
  zk_selector_substr("8M6....", nullptr);
  EXPECT_STREQ(text, "MM6....");
}

/* ---- Whole IDs ---------------------------------------------------------------------------------------- */

TEST(ids, are_decoded_only_with_every_output) {
  for (int given = 0; given < 7; ++given) {
    auto give = [&](int place, auto* output) { return place < given ? output : nullptr; };
    const int result = zk_decode_eid(0, nullptr, (".z....." + END).c_str(), &out.local, give(0, &out.version),
                                     give(1, &out.location), give(2, out.files[0]), give(3, &out.label),
                                     give(4, &out.time), give(5, out.address), give(6, &out.ipv6));
    EXPECT_EQ(result, -4 - given);
  }
}

TEST(ids, are_taken_apart_by_their_version) {
  setenv("TZ", "UTC", 1);
  expect(R"rows(decode_eid -3 123456789+123456789+123456789+123456789+1 123456789+123456789+123456789+123456789+123
: ZELK Error ID "@"is not correct size|Returning ZELK_INV_PARAM2(-3) to the caller|;
-99! 6z..... : ZELK Error ID is an unsupported version: 0x2|Returning ZELK_UNSUPPORTED(-99) to the caller|;
-1! 0M6.... : Unknown location type 0x2 returned from zk_conv_base_64_hdr|Returning ZELK_FAILURE(-1) to caller|;
0 /zzzzzz : ZELK Error ID "@&" decodes into:|Version 1, Location 0x1|Stack File none, Template ID 7(0x7);
0 .z..... : ZELK Error ID "@&" decodes into:|Version 1, Location 0x0|Stack File none, Template ID 63(0x3f)|Timestamp
Tue Nov 14 22:13:20 2023||IP Address 0xc0000201000 (IPv4 type)|Return code 0;
decode_eid_2 -3 123456789+123456789+123456789+123456789+1; -99! 9z.....; -1! 6......; 0 0M6.... 7zzzzzz 6z.....;
0 8M6.... : ZELK Error ID "@&" decodes into:|Version 2, Location 0x2|First Stack File (none), Template ID 0x7 Syslog
Facility 23 Priority 7|Timestamp Tue Nov 14 22:13:20 2023||IP Address 0xc0000201000 (IPv4 type)|Return code 0;
-4! 8M7.... : ZELK Error ID "@&" decodes into:|Version 2, Location 0x2|First Stack File (none), Template ID 0x7 Syslog
Facility 0 Priority 7|Timestamp Tue Nov 14 22:13:20 2023||IP Address 0xc0000201000 (IPv4 type)|Return code -4;
-36! 6z...........z............................; -5! 6z.....z.................................x)rows");
}

TEST(ids, are_made_for_the_last_location_given) {
  setenv("ZELKADDR", ELSEWHERE.c_str(), 1);
  expect(R"rows(generate_eid_2 -11 /s,9,-1,40 : Caller requested a zk_eid_t be generated for both a stack and either an
error template or  Syslog messges|Stack file is /s|template is 9|Syslog facility is 5;
-11 /s,0,0,0 /s,0,23,0 -,0,185,0 -,0,-1,0; -1 /s,0,-1,0 -,0,8,8; 0 /proc,0,24,0 : Created ZELK Error ID 82/....&;
-4 ,0,-1,0 : ZELK Error Stack File  does not exist - caller must be repaired; 0 -,9,-1,9; 0 /proc,0,-1,0;
0 -,9,184,7 : Created ZELK Error ID 8M6....&|Returning ZELK_SUCCESS(0) to caller|;
generate_eid -11 /s,9 : Caller requested a zk_eid_t be generated for both a stack and a error template|Stack file is /s;
-11 -,0; -4 ,0; 0 /proc,0 : Created ZELK Error ID //.....&; 0 -,-1 : Created ZELK Error ID .zzzzz1&)rows");
  unsetenv("ZELKADDR");
  expect("generate_eid -1 -,9 : Cannot find ZELKADDR data in environment|Returning ZELK_FAILURE(-1) to the caller");
  for (const std::string wrong : {"123456789012345678901234", "12345678901234567890123456"}) {
    setenv("ZELKADDR", wrong.c_str(), 1);
    expect("generate_eid -1 -,9 : Value stored in environment for ZELKADDR does not appear to be valie: " + wrong);
  }
}

/* ---- Addresses of a node ------------------------------------------------------------------------------------- */

TEST(addresses, are_those_of_the_interfaces) {
  const int machine = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "the machine forbids a network namespace";
  const int fildes = socket(AF_INET, SOCK_DGRAM, 0);
  auto set = [&](unsigned long what, const std::string& name, short family_or_flags, const std::string& address = "") {
    ifreq interface = {};
    name.copy(interface.ifr_name, IFNAMSIZ - 1);
    interface.ifr_flags = family_or_flags; /* both stand at the same place */
    inet_pton(AF_INET, address.c_str(), interface.ifr_addr.sa_data + sizeof(in_port_t));
    EXPECT_EQ(ioctl(fildes, what, &interface), 0) << name;
  };
  /* The addresses, each with a blank behind it; their number is told right. */
  auto listed = [] {
    char list[ZELK_ADDR_LIST_SLOTS][ZELK_ADDR_SLOT_SIZE] = {};
    zk_create_debug_file(TRACE.c_str());
    int count = 0, result = zk_obtain_ipaddrs(1, TRACE.c_str(), list[0], 0, &count);
    std::string addresses;
    for (const char* slot = list[0]; *slot != '\0'; slot += sizeof list[0], --count) addresses.append(slot) += ' ';
    return result == 0 && count == 0 ? addresses : "failed";
  };
  EXPECT_EQ(listed() + here(), std::string(24, '.') + "/");
  set(SIOCSIFADDR, "lo", AF_INET, "127.0.0.1");
  std::string all = "127.0.0.1 ";
  EXPECT_EQ(listed(), all);
  EXPECT_EQ(trace_entries(TRACE).end()[-2],
            traced("zk_obtain_ipaddrs", "Adapt Info: lo 00000008 address=127.0.0.1 AF_INET   IFF_LOOPBACK"));
  set(SIOCSIFFLAGS, "lo", IFF_UP);
  EXPECT_EQ(here(), digits(0x7F000001, 24) + ".");
  for (int alias = 1; alias < 70; ++alias) {
    const std::string number = std::to_string(alias);
    set(SIOCSIFADDR, "lo:" + number, AF_INET, "10.0.0." + number);
    if (alias < 64) all += "10.0.0." + number + " ";
  }
  EXPECT_EQ(listed() + here(), all + digits(0x0A000001, 24) + "."); /* a second loopback that is up */
  set(SIOCSIFFLAGS, "lo", 0);
  EXPECT_EQ(here(), digits(0x7F000001, 24) + "."); /* the first one, now that it is not up */
  for (uint32_t address : {0x0A000015U, 0x0A00003FU, 0x0A000040U})
    EXPECT_TRUE(decode("8M6...." + MOMENT + digits(address, 24) + ".") == 0 && out.local == (address < 0x0A000040));
  EXPECT_EQ(setns(machine, CLONE_NEWNET) + close(machine) + close(fildes), 0);
}

/* ---- The command, given an ID -------------------------------------------------------------------------------- */

struct given_an_id : testing::Test {
  void SetUp() override {
    NEEDS_PRIVATE_VAR();
    if (here().back() != '.') GTEST_SKIP() << "this machine has no IPv4 address";
  }
};
