/* eid_test.cpp - Error IDs: their fields, whole IDs made and taken apart, the addresses of a node, and the
 * command that is given an Error ID. */
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>

#include "support.h"
#include "zk_msg.h"

namespace fs = std::filesystem;

/* ---- What the system answers: the truth, unless a test says otherwise --------------------------------- */

static timeval now_is = {};       /* the time of day when not 0; with microseconds below 0 it cannot be had */
static ino_t high_inode_bits = 0; /* of every directory entry */
static unsigned long failing = 0; /* the interface request that fails */
static std::vector<int> errors = {}; /* of the next such requests, the last one first */

extern "C" int gettimeofday(timeval* time, void*) noexcept {
  timespec clock = {};
  clock_gettime(CLOCK_REALTIME, &clock);
  *time = now_is.tv_sec != 0 ? now_is : timeval{clock.tv_sec, static_cast<suseconds_t>(clock.tv_nsec / 1000)};
  return time->tv_usec < 0 ? -1 : 0;
}
extern "C" dirent* readdir(DIR* folder) {
  static void* const next = dlsym(RTLD_NEXT, sizeof(ino_t) > sizeof(void*) ? "readdir64" : "readdir");
  dirent* entry = reinterpret_cast<dirent* (*)(DIR*)>(next)(folder);
  if (entry != nullptr) entry->d_ino |= high_inode_bits;
  return entry;
}
extern "C" int ioctl(int fildes, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  if (request != failing || errors.empty())
    return static_cast<int>(syscall(SYS_ioctl, fildes, request, argument));
  errno = errors.back();
  errors.pop_back();
  return -1;
}

/* ---- Error IDs in the making -------------------------------------------------------------------------- */

static std::string digits(uint64_t value, size_t width) {
  char text[8] = "";
  EXPECT_EQ(zk_l64a_r(value, text, sizeof text), 0);
  return (text + std::string(width, '.')).substr(0, width);
}
static std::string entry_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return digits(status.st_ino, 6);
}
/* Encoded addresses with their type, as ZELKADDR holds them: one that no node has, and this node's. */
static const std::string ELSEWHERE = digits(0xC0000201, 24) + ".";
static std::string here() {
  char address[ZELK_ADDR_CODE_SIZE] = "", type[2] = "";
  EXPECT_EQ(zk_get_ipaddr(0, nullptr, address, type), 0);
  return std::string(address) + type;
}
#define NEEDS_ADDRESS() \
  if (here().back() != '.') GTEST_SKIP() << "this machine has no IPv4 address"
constexpr timeval THEN = {1700000000, 123456};
static const std::string END = ".2zIZ/.7S." + ELSEWHERE; /* of an ID made then, elsewhere */

/* ---- Calls with their results and traces -------------------------------------------------------------- */

struct outputs {
  int local, version, location, facility, priority, ipv6;
  unsigned int label;
  long seconds;
  timeval time;
  char text[ZELK_EID_SIZE], files[4][ZELK_FILE_SLOT_SIZE];
  unsigned char address[16];
};
static const outputs UNTOUCHED = {7, 7, 7, 7, 7, 7, 7, 0, {7, 7}, {}, {}, {}};
static outputs out;
#define HDR &out.version, &out.location
#define SEL &out.facility, &out.priority
#define TARGETS &out.label, SEL, &out.time, out.address, &out.ipv6
#define OLD_TARGETS &out.label, &out.time, out.address, &out.ipv6

static const char* trace_file() {
  static const std::string path = scratch() + "/trace";
  return zk_create_debug_file(path.c_str()) == 0 ? path.c_str() : nullptr;
}

struct routine {
  const char *key, *name;
  std::function<int(const char*)> call;
};
#define CALL(name, ...) \
  "zk_" #name, [&]([[maybe_unused]] const char* t) { return zk_##name(1, trace_file(), __VA_ARGS__); }

/* Makes the calls of a table. A line of it has the routine's key, the argument ("-" for a null text and an
 * empty one, "0" for null alone), the result, and the newest trace entry then, "..." where it is not looked
 * at. In an entry "|" is a newline, "#" the result, "@" the argument. Success changes outputs and failure
 * leaves them alone, unless there is a "!" behind the result. */
static void expect(const std::vector<routine>& routines, const std::string& table) {
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string key, argument, result, text, entry;
    words >> key >> argument >> result >> std::ws;
    if (key.empty()) continue;
    SCOPED_TRACE(line);
    std::getline(words, text);
    const int code = std::stoi(result);
    const std::string returned = zk_result_name(code) + ("(" + std::to_string(code) + ")");
    const std::string meanings[] = {
        "\n",
        argument,
        returned,
        "Returning " + returned + " to caller\n",
        "Returning " + returned + " to the caller\n",
        END,
        END + "\" decodes into:\nVersion ",
        "\nTimestamp Tue Nov 14 22:13:20 2023\n\nIP Address 0xc0000201000 (IPv4 type)\nReturn code "};
    for (char c : text) {
      const size_t sign = std::string("|@#~^&$%").find(c);
      entry += sign == std::string::npos ? std::string(1, c) : meanings[sign];
    }
    for (const routine& called : routines) {
      if (key != called.key) continue;
      std::vector<const char*> values = {argument.c_str()};
      if (argument == "-" || argument == "0") values = {nullptr, ""};
      values.resize(argument == "-" ? 2 : 1);
      for (const char* value : values) {
        std::memcpy(&out, &UNTOUCHED, sizeof out);
        EXPECT_EQ(called.call(value), code);
        EXPECT_EQ(std::memcmp(&out, &UNTOUCHED, sizeof out) != 0, (code == 0) != (result.back() == '!'));
        if (text == "...") continue;
        const std::string found = trace_entries(trace_file()).back();
        zk_debug(trace_file(), called.name, "%s", entry.c_str());
        EXPECT_EQ(found, trace_entries(trace_file()).back());
      }
    }
  }
}

/* ---- Numbers and fields ------------------------------------------------------------------------------- */

TEST(numbers, have_their_lowest_digit_first) {
  const struct {
    uint64_t value;
    int length;
    const char* text;
  } rows[] = {{0, 8, ""}, {63, 0, "z"}, {64, 1, "./"}, {(1ULL << 36) + 63, 8, "z....."}, {64, 0, nullptr}};
  for (const auto& row : rows) {
    char text[8] = "stale";
    EXPECT_EQ(zk_l64a_r(row.value, text, row.length), row.text != nullptr ? 0 : -1) << row.value;
    EXPECT_STREQ(text, row.text != nullptr ? row.text : "");
  }
  EXPECT_EQ(zk_l64a_r(1, nullptr, 8), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(zk_a64l(nullptr), 0U);
  EXPECT_EQ(zk_a64l("!/\xff./"), 64U + (1ULL << 24)); /* what is no digit counts as 0 */
}

/* Texts of exactly their size on the heap: under a sanitizer no read past the NUL goes unnoticed. */
TEST(fields, may_be_short_and_are_read_no_further_than_their_width) {
  const struct {
    const char* text;
    uint32_t first, second;
    suseconds_t microseconds;
  } rows[] = {{"z", 63, 0, 0},
              {"!/", 64, 0, 0},
              {"z.....!/", 63, 64, 64},
              {"z.....////////z", 63, 0x41041041, 266305}};
  for (const auto& row : rows) {
    const std::vector<char> exact(row.text, row.text + std::strlen(row.text) + 1);
    uint32_t words[4] = {};
    EXPECT_EQ(zk_conv_base_64_templ(0, nullptr, exact.data(), &out.label), 0);
    EXPECT_EQ(zk_conv_base_64_time(0, nullptr, exact.data(), &out.time), 0);
    EXPECT_EQ(zk_conv_ipaddr(0, nullptr, exact.data(), '/', words), 0);
    EXPECT_EQ(zk_conv_base_64_inode(0, nullptr, "/dev/null", exact.data(), out.files[0], 4),
              ZELK_DIR_MISSING);
    EXPECT_EQ(zk_conv_base_64_selector(0, nullptr, exact.data(), SEL), ZELK_INV_PARAM3);
    EXPECT_TRUE(out.label == row.first && out.time.tv_sec == row.first &&
                out.time.tv_usec == row.microseconds);
    EXPECT_TRUE(ntohl(words[0]) == row.first && ntohl(words[1]) == row.second) << row.text;
  }
  char selector[8] = "xxxxxxx";
  zk_selector_substr("8M6.....2zIZ/.7S.", selector);
  EXPECT_STREQ(selector, "M6....x");
  zk_selector_substr("8M6.....2zIZ/.7S.", nullptr);
}

TEST(fields, come_back_as_they_were_given) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 3000; ++round) {
    const uint64_t number = random() >> random() % 64;
    EXPECT_EQ(zk_a64l(digits(number, 6).c_str()), number & 0xFFFFFFFFF);
    const bool syslog = round % 3 == 0, old = round % 3 == 1;
    const unsigned int label = static_cast<unsigned int>(number | 1);
    const int facility = syslog ? static_cast<int>(number % 185) : 185,
              priority = static_cast<int>(number % 8);
    const uint32_t words[4] = {htonl(label), htonl(static_cast<uint32_t>(number >> 32)), 0, UINT32_MAX};
    const std::string address = digits(label, 6) + digits(number >> 32, 6) + "......zzzzz1/";
    setenv("ZELKADDR", address.c_str(), 1);
    now_is = {static_cast<time_t>(number % INT32_MAX + 1), static_cast<suseconds_t>(number % 1000000)};
    out = UNTOUCHED;
    EXPECT_EQ(old ? zk_generate_eid(0, nullptr, nullptr, label, &out.seconds, out.text)
                  : zk_generate_eid_2(0, nullptr, nullptr, syslog ? 0 : label, facility, priority,
                                      &out.seconds, out.text),
              0);
    EXPECT_EQ(zk_decode_eid_2(0, nullptr, out.text, &out.local, HDR, out.files[0], 4, TARGETS), 0)
        << out.text;
    const int expected[] = {old ? 1 : 2, syslog ? 2 : 0, syslog ? facility / 8 * 8 : 7, syslog ? priority : 7,
                            1};
    EXPECT_EQ(std::memcmp(&out.version, expected, sizeof expected), 0) << out.text;
    EXPECT_EQ(out.label, syslog ? 7 : label);
    EXPECT_TRUE(out.seconds == now_is.tv_sec && out.time.tv_sec == now_is.tv_sec &&
                out.time.tv_usec == now_is.tv_usec);
    EXPECT_EQ(std::memcmp(out.address, words, sizeof words), 0) << out.text;
  }
  now_is = {};
}

TEST(fields, are_checked_and_traced_when_taken_apart) {
  const char list[3][ZELK_ADDR_SLOT_SIZE] = {"10.0.0.1", "10.0.0.2"};
  expect({{"hdr", CALL(conv_base_64_hdr, t, HDR)},
          {"hdr_", CALL(conv_base_64_hdr, t, &out.version, nullptr)},
          {"hdr__", CALL(conv_base_64_hdr, t, nullptr, nullptr)},
          {"folder", CALL(conv_base_64_inode, t, "/.....", out.files[0], 1)},
          {"folder_", CALL(conv_base_64_inode, t, nullptr, nullptr, 0)},
          {"inode", CALL(conv_base_64_inode, "/", t, out.files[0], 1)},
          {"inode_", CALL(conv_base_64_inode, "/", t, nullptr, 1)},
          {"inode__", CALL(conv_base_64_inode, "/", t, out.files[0], 0)},
          {"templ", CALL(conv_base_64_templ, t, &out.label)},
          {"templ_", CALL(conv_base_64_templ, t, nullptr)},
          {"sel", CALL(conv_base_64_selector, t, SEL)},
          {"sel_", CALL(conv_base_64_selector, t, &out.facility, nullptr)},
          {"sel__", CALL(conv_base_64_selector, t, nullptr, nullptr)},
          {"time", CALL(conv_base_64_time, t, &out.time)},
          {"time_", CALL(conv_base_64_time, t, nullptr)},
          {"ipv4", CALL(conv_ipaddr, t, '.', out.address)},
          {"ipv6", CALL(conv_ipaddr, t, '/', out.address)},
          {"ip_", CALL(conv_ipaddr, t, 'x', nullptr)},
          {"test", CALL(test_ipaddr, t, list[0])},
          {"list", CALL(test_ipaddr, "10.0.0.2", t)}},
         R"rows(
hdr__    -       -4    Called with a NULL value for hdr64rep|~
hdr__    8       -5    Called with a NULL value for version_id|~
hdr_     8       -6    Called with a NULL value for location_mask|~
hdr      ./      -99   Header code @ converted to value 0x40, outside of supported range|^
hdr      G       -99   Unsupported ZELK Version 0x10 detected|Maximum supported 0x8|Returning #
hdr      9       -99!  Unsupported record location 0x3 detected|Maximum supported 0x2|Returning #
hdr      A       -99!  Unsupported record location 0x4 detected|Maximum supported 0x2|Returning #
hdr      8       0     Header code @ translated into version 2 and location 0x2|^
folder_  -       -4    Called with a NULL value for directory - cannot locate file without it|~
inode_   -       -5    Called with a NULL value for inode64rep - cannot convert to file name|~
inode_   z       -6    Called with a NULL pointer for file name list|~
inode__  z       -6    Called with a NULL pointer for file name list|~
folder   /none   -14   Unable to open the directory @ - errno is 2|
folder   /dev/null -14 Unable to open the directory @ - errno is 20|
inode    ......  -24   Cannot locate the base-64 i-node @ (decimal 0) in directory /|^
folder   /proc   0     1 matches to base-64 i-node /..... (decimal 1) found in directory @|First match: .|^
templ_   0       -4    Called with a NULL pointer for templ64rep|~
templ_   z       -5    Asked to translate a template ID of 0, which seems invalid|Returning # to the caller
templ    ......  -1!   Cannot convert base-64 valueof @ to a valid template ID value|~
templ    zzzzzz  0     Converted template base-64 value of @ to -1|^
sel__    0       -4    Selector "(null)" at location 0x0 appears invalid - returning #
sel__    -       -4    ...
sel__    ..x     -5    Facility pointer 0x0 invalid - returning #
sel_     ..x     -6    Priority pointer 0x0 invalid - returning #
sel      ./....  -4    Selector "@" invalid - returning #
sel      /.....  -4    Selector "@" invalid - returning #
sel      //.../  -4    Selector "@" invalid - returning #
sel      N7....  -4    Selector "@" yielded invalid facility value 24 - returning #
sel      M7....  -4    Selector "@" yielded invalid priority value 8 - returning #
sel      M6....  0     Selector "@" yielded:|	Facility 23	Priority 7|Returning #
time_    -       -4    Called with a NULL string for a base-64 TOD|~
time_    .       -5    No data area provided in tbuf parameter|Returning # to caller|ZELK_INV_PARAM4
time     ......z -36!  Secs ...... translated to 0 - assuming an invalid time rep provided|~
time  z......7o1 -36!  Usecs .7o1 translated to 1000000 - assuming an invalid time rep provided|~
time  z.....z6o1 0     Time base-64 rep of @ converted to 63 secs 999999 usecs|~
ip_      -       -4    Invalid pointer or string provided for IP address - returning # to caller
ip_      z       -5    Invalid IP address type provided: 'x' - returning # to caller
ipv4  02.e.1.................. 0 IP Address representation @ converted to 0xc0a80102
ipv6  ...Uy1............/..... 0 IP Address representation @ converted to 0xfe800000lxlxlx
test     -       -4    Invalid string provided for ip_addr|Returning #
list     -       -5    Invalid array provided for ip_list|Returning #
test  10.0.0.2   0!    Match found for address @ at index 1|Returning #
test  10.0.0.    -1    No matches fo address @ found in 2 known base addresses|Assuming this address not on this node|Returning #
)rows");
}

TEST(fields, are_checked_and_traced_when_made) {
  auto number = [](const char* digits_of_it) { return std::atoi(digits_of_it); };
  expect({{"hdr", CALL(get_base_64_hdr, number(t), 0, out.text)},
          {"hdr_", CALL(get_base_64_hdr, number(t), 3, nullptr)},
          {"where", CALL(get_base_64_hdr, 2, number(t), out.text)},
          {"where_", CALL(get_base_64_hdr, 2, number(t), nullptr)},
          {"inode", CALL(get_base_64_inode, t, out.text)},
          {"inode_", CALL(get_base_64_inode, t, nullptr)},
          {"templ", CALL(get_base_64_templ, static_cast<unsigned int>(number(t)), out.text)},
          {"templ_", CALL(get_base_64_templ, 1, nullptr)},
          {"facility", CALL(get_base_64_selector, number(t), 7, out.text)},
          {"facility_", CALL(get_base_64_selector, number(t), 9, nullptr)},
          {"priority_", CALL(get_base_64_selector, 0, number(t), nullptr)},
          {"time_", CALL(get_base_64_time, nullptr, nullptr)},
          {"time__", CALL(get_base_64_time, out.text, nullptr)},
          {"time", CALL(get_base_64_time, (now_is = {THEN.tv_sec, number(t)}, out.text), &out.seconds)},
          {"ip_", CALL(get_ipaddr, nullptr, nullptr)},
          {"ip__", CALL(get_ipaddr, out.text, nullptr)},
          {"list",
           CALL(obtain_ipaddrs, (failing = SIOCGIFCONF, errors = {EPERM, EINTR}, out.files[0]), 0, nullptr)},
          {"flags",
           CALL(obtain_ipaddrs, (failing = SIOCGIFFLAGS, errors = {EPERM, EINTR}, out.files[0]), 0, nullptr)},
          {"ip", "zk_get_ipaddr",
           [](const char*) {
             return zk_get_ipaddr(0, (errors = {EPERM}, trace_file()), out.text, out.files[0]);
           }}},
         R"rows(
hdr_       3   -4  Called with an invalid ZELK source code version of 3|Highest supported version 2|Returning # to the caller
hdr        0   -4  ...
where_    -1   -5  Called with an invalid location mask of 0xffffffff|Highest supported 0x2|^
where      3   -5  ...
where_     2   -6  Called with a NULL pointer for hdr64rep|~
hdr        1   0   Combined version code 0x0 and location 0x0 into header code 0x0|Base-64 equiv: .|^
where      2   0   Combined version code 0x8 and location 0x2 into header code 0xa|Base-64 equiv: 8|^
inode_     -   -4  Called with a NULL string for a file name|~
inode_  /proc  -5  Called with a NULL pointer for inode64rep|~
inode   /none  -24 Error trying to get status of file @|Errno is 2|
inode /dev/null/x -14 Error trying to get status of file @|Errno is 20|
inode   /proc  0   File @ i-node is 1|Base-64 representation is /.....|^
templ_     -   -5  Called with a NULL pointer for templ64rep|~
templ     -1   0   Converted template ID -1 to base-64 value of zzzzz1|^
facility_ -1   -4  facility 127 invalid - returning #|
facility 185   -4  facility 23 invalid - returning #|
facility_  0   -5  priority value 9 invalid - returning #|
priority_ -1   -5  priority value -1 invalid - returning #|
priority_  7   -6  sel64rep pointer 0x0 invalid - returning #|
facility 184   0   Facility 23 and priority 7 translated to code "M6...." - returning #
time_      -   -4  Called with a NULL parameter for tod64rep|~
time__     -   -5  Called with a NULL parameter for seconds|~
time      -1   -1  Cannot obtain current time of day - returning # to caller|
time  123456   0   Time of day value 1700000000 secs @ usecs converted to base-64 rep of .2zIZ/.7S.|~
ip_        -   -4  Parameter ip_addr is set to NULL|Returning # to caller
ip__       -   -5  Parameter ipv6_flag is set to NULL|Returning # to caller
list       -   -1  Cannot issue ioctl(1) on socket - error code 1|Returning # to caller
ip         -   -1  Unable to query any net adapters - return #
flags      -   -1  Cannot issue ioctl(2) on socket - error code 1|Returning # to caller
)rows");
  now_is = {};
  failing = 0;
}

/* ---- Whole IDs ---------------------------------------------------------------------------------------- */

static int decode(int traced, const std::string& id, int limit = 4) {
  return zk_decode_eid_2(traced, trace_file(), id.c_str(), &out.local, HDR, out.files[0], limit, TARGETS);
}
static int decode_old(int traced, const std::string& id) {
  return zk_decode_eid(traced, trace_file(), id.c_str(), &out.local, HDR, out.files[0], OLD_TARGETS);
}

TEST(ids, are_checked_and_traced_when_taken_apart) {
  setenv("TZ", "UTC", 1);
  int given = 0; /* so many outputs */
  auto at = [&](int place, auto* output) { return place < given ? output : nullptr; };
#define SOME at(0, &out.version), at(1, &out.location), at(2, out.files[0])
  const std::string id = "8M6...." + END;
  expect(
      {{"id", "zk_decode_eid_2", [](const char* t) { return decode(1, t + END); }},
       {"whole", "zk_decode_eid_2", [](const char* t) { return decode(1, t); }},
       {"old", "zk_decode_eid", [](const char* t) { return decode_old(1, t + END); }},
       {"id_", CALL(decode_eid_2, t, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr, nullptr,
                    nullptr, nullptr, nullptr)},
       {"old_", CALL(decode_eid, t, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr)},
       {"part", CALL(decode_eid_2, (given = *t - '0', id.c_str()), nullptr, SOME, 4, at(3, &out.label),
                     nullptr, nullptr, at(4, &out.time), at(5, out.address), at(6, &out.ipv6))},
       {"oldpart", CALL(decode_eid, (given = *t - '0', id.c_str()), nullptr, SOME, at(3, &out.label),
                        at(4, &out.time), at(5, out.address), at(6, &out.ipv6))}},
      R"rows(
id_     -       -3    Detected invalid ZELK Error ID|^
old_    -       -3    Detected invalid ZELK Error ID|^
id_   123456789+123456789+123456789+123456789+1   -3 ZELK Error ID "@"is not correct size|^
old_  123456789+123456789+123456789+123456789+123 -3 ZELK Error ID "@"is not correct size|^
part    0       -4    Detected invalid pointer for version_id|^
part    1       -5    Detected invalid pointer for location_mask|^
part    2       -6    Detected invalid pointer for stack_file_list|^
part    3       -7    Detected invalid pointer for err_templ_label|^
part    4       -8    Detected invalid pointer for timestamp|^
part    5       -9    Detected invalid pointer for ip_addr|^
part    6       -10   Detected invalid pointer for ipv6_flag|^
part    7       -11   Detected invalid pointer for bsd_priority (0x0) or bsd_facility (0x0)|^
oldpart 0       -4    Detected invalid pointer for version_id|^
oldpart 2       -6    Detected invalid pointer for stack_file|^
oldpart 6       -10   Detected invalid pointer for ipv6_flag|^
id      8M6.... 0     ZELK Error ID "@$2, Location 0x2|First Stack File (none), Template ID 0x7 Syslog Facility 23 Priority 7%0
id      8M7.... -4!   ZELK Error ID "@$2, Location 0x2|First Stack File (none), Template ID 0x7 Syslog Facility 0 Priority 7%-4
id      0M6.... 0     ZELK Error ID "@$1, Location 0x2|First Stack File (none), Template ID 0x7 Syslog Facility 23 Priority 7%0
id      6z..... 0     ZELK Error ID "@$2, Location 0x0|First Stack File (none), Template ID 0x3f Syslog Facility 0 Priority 7%0
id      7zzzzzz 0     ZELK Error ID "@$2, Location 0x1|First Stack File (none), Template ID 0x7 Syslog Facility 0 Priority 7%0
old     /zzzzzz 0     ZELK Error ID "@$1, Location 0x1|Stack File none, Template ID 7(0x7)%0
old     .z..... 0     ZELK Error ID "@$1, Location 0x0|Stack File none, Template ID 63(0x3f)%0
old     6z..... -99!  ZELK Error ID is an unsupported version: 0x2|^
old     0M6.... -1!   Unknown location type 0x2 returned from zk_conv_base_64_hdr|~
id      9z..... -99!  ...
id      Gz..... -99   ...
id      6...... -1!   ...
whole   6z..........z............................ -36! ...
whole   6z.....z.................................x -5!  ...
)rows");
}

TEST(ids, name_the_stack_files_of_this_node) {
  NEEDS_PRIVATE_VAR();
  NEEDS_ADDRESS();
  const std::string file = ZELK_STACK_DIR "/x", longest = ZELK_STACK_DIR "/" + std::string(255, 'x');
  for (const char* name : {"/x", "/y"}) std::ofstream(ZELK_STACK_DIR + std::string(name));
  const std::string when = ".2zIZ/.7S.", id = entry_of(file) + when + here();
  auto found = [](int result) { /* the result, whether the ID is of this node, files and their longest name */
                                size_t count = 0, length = 0;
                                for (; count < 4 && out.files[count][0] == 'x'; ++count)
                                  length = std::max(length, std::strlen(out.files[count]));
                                std::vector<int> all = {result, out.local, static_cast<int>(count),
                                                        static_cast<int>(length)};
                                out = UNTOUCHED;
                                return all;
  };
  using are = std::vector<int>;
  out = UNTOUCHED;
  EXPECT_EQ(found(decode(0, "7" + id)), are({0, 1, 1, 1}));
  EXPECT_EQ(found(decode(0, "7" + entry_of(file) + END)), are({0, 0, 0, 0}));
  fs::create_hard_link(file, longest);
  high_inode_bits = static_cast<ino_t>(uint64_t{5} << 36);
  EXPECT_EQ(found(decode(0, "7" + id)), are({0, 1, 2, 255}));
  high_inode_bits = 0;
  for (const char* name : {"/x1", "/x2", "/x3"})
    fs::create_hard_link(file, ZELK_STACK_DIR + std::string(name));
  EXPECT_EQ(found(decode(0, "/" + id, 3))[2], 3);
  EXPECT_EQ(found(decode(0, "/" + id, 0)), are({-6, 1, 0, 0}));
  EXPECT_EQ(found(decode_old(0, "/" + id))[2], 1);
  failing = SIOCGIFCONF;
  errors = {EPERM};
  EXPECT_EQ(found(decode(0, "7" + id)), are({0, 0, 0, 0})); /* no address is known to be of this node */
  for (const auto& entry : fs::directory_iterator(ZELK_STACK_DIR)) fs::remove(entry);
  EXPECT_EQ(found(decode_old(0, "/" + id)), are({-24, 1, 0, 0}));
  EXPECT_EQ(decode(0, "7" + id), -24);
  EXPECT_TRUE(out.time.tv_usec == THEN.tv_usec && out.ipv6 == 0 && out.version == 2); /* the rest is valid */
}

TEST(ids, are_made_for_the_last_location_given) {
  const std::string file = new_file(""), entry = entry_of(file);
#define MADE &out.seconds, out.text
  auto made = [&](bool old, const char* arguments) {
    char name[8];
    unsigned int label;
    int facility, priority;
    EXPECT_EQ(sscanf(arguments, "%7[^,],%u,%d,%d", name, &label, &facility, &priority), 4);
    const char* stack = *name == '-' ? nullptr : *name == 'f' ? file.c_str() : *name == '"' ? "" : name;
    return old ? zk_generate_eid(1, trace_file(), stack, label, MADE)
               : zk_generate_eid_2(1, trace_file(), stack, label, facility, priority, MADE);
  };
  auto at_address = [](const char* value) {
    value != nullptr ? setenv("ZELKADDR", value, 1) : unsetenv("ZELKADDR");
    return zk_generate_eid(1, trace_file(), nullptr, 9, MADE);
  };
  now_is = THEN;
  setenv("ZELKADDR", ELSEWHERE.c_str(), 1);
  expect({{"new", "zk_generate_eid_2", [&](const char* t) { return made(false, t); }},
          {"old", "zk_generate_eid", [&](const char* t) { return made(true, t); }},
          {"at", "zk_generate_eid", at_address}},
         R"rows(
new  /s,9,-1,40 -11 Caller requested a zk_eid_t be generated for both a stack and either an error template or  Syslog messges|Stack file is /s|template is 9|Syslog facility is 5|~
new  f,0,0,0    -11 ...
new  f,0,23,0   -11 ...
new  -,0,185,0  -11 ...
new  -,0,-1,0   -11 ...
new  ",0,-1,0   -4  ZELK Error Stack File  does not exist - caller must be repaired|^
new  /s,0,-1,0  -1  ...
new  -,0,8,8    -1  ...
new  f,0,24,0   0   Created ZELK Error ID 82/....&|~
new  -,9,-1,9   0   Created ZELK Error ID 67.....&|~
new  -,9,184,7  0   Created ZELK Error ID 8M6....&|~
old  /s,9,0,0   -11 Caller requested a zk_eid_t be generated for both a stack and a error template|Stack file is /s|template is 9|~
old  -,0,0,0    -11 ...
old  ",0,0,0    -4  ...
old  -,9,0,0    0   Created ZELK Error ID .7.....&|~
new  f,0,-1,0   0   Created ZELK Error ID 7)" +
             entry + "&|~\nold  f,0,0,0    0   Created ZELK Error ID /" + entry + R"rows(&|~
at  123456789012345678901234   -1 Value stored in environment for ZELKADDR does not appear to be valie: @|Returning # to the caller
at  12345678901234567890123456 -1 Value stored in environment for ZELKADDR does not appear to be valie: @|Returning # to the caller
at   -          -1  Cannot find ZELKADDR data in environment|Returning # to the caller
)rows");
  EXPECT_EQ(out.seconds, 0);
  now_is = {};
}

/* ---- Addresses of a node ------------------------------------------------------------------------------ */

/* What `work` tells about a network without anything but a loopback interface that is down and has no
 * address. */
static std::string in_own_network(std::string (*work)()) {
  const std::string path = new_file("forbidden");
  const pid_t child = fork();
  if (child == 0) {
    if (unshare(CLONE_NEWNET) == 0) std::ofstream(path) << work();
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  return contents(path);
}

static bool change_interface(unsigned long request, const std::string& name, const std::string& address,
                             short flags) {
  ifreq change = {};
  name.copy(change.ifr_name, IFNAMSIZ - 1);
  sockaddr_in value = {};
  value.sin_family = AF_INET;
  value.sin_addr.s_addr = inet_addr(address.c_str());
  if (request == SIOCSIFADDR)
    std::memcpy(&change.ifr_addr, &value, sizeof value);
  else
    change.ifr_flags = flags;
  const int fildes = socket(AF_INET, SOCK_DGRAM, 0), result = ioctl(fildes, request, &change);
  close(fildes);
  return result == 0;
}
static bool add_address(const std::string& name, const std::string& address) {
  return change_interface(SIOCSIFADDR, name, address, 0);
}

TEST(addresses, are_those_of_the_interfaces) {
  auto look = [] {
    std::vector<char> list(ZELK_ADDR_LIST_SLOTS * ZELK_ADDR_SLOT_SIZE);
    int count = 0;
    EXPECT_EQ(zk_obtain_ipaddrs(1, trace_file(), list.data(), 0, &count), 0);
  };
}
