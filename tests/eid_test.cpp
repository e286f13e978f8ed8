/* eid_test.cpp - Error IDs: their fields, whole IDs made and taken apart, the addresses of a node, and the
 * command that is given an Error ID. */
#include <arpa/inet.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
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
#include "zk_trace.h"

namespace fs = std::filesystem;

/* ---- What the system answers: the truth, unless a test says otherwise --------------------------------- */

static timeval now_is = {};          /* the time of day when not 0; with microseconds below 0 it cannot be had */
static ino_t high_inode_bits = 0;    /* of every directory entry */
static unsigned long failing = 0;    /* the interface request that fails */
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
  if (request != failing || errors.empty()) return static_cast<int>(syscall(SYS_ioctl, fildes, request, argument));
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
static const std::string STACKS = ZELK_STACK_DIR "/";
static std::string put(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
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
#define HDR &out.local, &out.version, &out.location
#define SEL &out.facility, &out.priority
#define MADE &out.seconds, out.text

static const char* trace_file() {
  static const std::string path = scratch() + "/trace";
  return zk_create_debug_file(path.c_str()) == 0 ? path.c_str() : nullptr;
}

/* Calls by a key. In one, `given` of the outputs are there and the rest are null. */
struct routine {
  const char *key, *name;
  std::function<int(const char*)> call;
};
#define CALL(name, ...) \
  "zk_" #name, [&]([[maybe_unused]] const char* t) { return zk_##name(1, trace_file(), __VA_ARGS__); }
static int given;
template <typename T>
static T* give(int place, T* output) {
  return place < given ? output : nullptr;
}

/* Makes the calls of a table. A line of it has the key, with "/" and a digit when not all outputs are given; the
 * argument ("-" for a null text and an empty one, "NULL" for null alone); the result; and the newest trace entry
 * then, "..." where it is not looked at. Success changes outputs and failure leaves them alone, unless there is a "!"
 * behind the result. Arguments are on the heap in their exact size, for a sanitizer to see. In an entry "|" is a
 * newline, "@" the argument, "#" the result, "~" and "^" are two ways to tell it, "&" is END, "$" and "%" are what
 * stands before and behind the parts of such an ID, "=" is how a wrong combination of origins is told. */
static void expect(const std::vector<routine>& routines, const std::string& table) {
  std::istringstream lines(table);
  for (std::string line, key, argument, result, text; std::getline(lines, line);) {
    std::istringstream words(line);
    if (!(words >> key >> argument >> result >> std::ws)) continue;
    std::getline(words, text);
    SCOPED_TRACE(line);
    const std::string name = key.substr(0, key.find('/'));
    given = key == name ? 9 : key.back() - '0';
    const int code = std::stoi(result);
    const std::string told = zk_result_name(code) + ("(" + std::to_string(code) + ")");
    const std::string meanings[] = {
        "\n",
        argument,
        told,
        "Returning " + told + " to caller",
        "Returning " + told + " to the caller",
        END,
        END + "\" decodes into:\nVersion ",
        "\nTimestamp Tue Nov 14 22:13:20 2023\n\nIP Address 0xc0000201000 (IPv4 type)\nReturn code ",
        "Caller requested a zk_eid_t be generated for both a stack and "};
    std::string entry;
    for (char c : text) {
      const size_t sign = std::string("|@#~^&$%=").find(c);
      entry += sign == std::string::npos ? std::string(1, c) : meanings[sign];
    }
    std::vector<char> exact(argument.c_str(), argument.c_str() + argument.size() + 1);
    std::vector<const char*> values = {exact.data()};
    if (argument == "NULL") values = {nullptr};
    if (argument == "-") values = {nullptr, ""};
    const auto called = std::find_if(routines.begin(), routines.end(), [&](const routine& r) { return r.key == name; });
    ASSERT_NE(called, routines.end());
    for (const char* value : values) {
      std::memcpy(&out, &UNTOUCHED, sizeof out);
      EXPECT_EQ(called->call(value), code);
      EXPECT_EQ(std::memcmp(&out, &UNTOUCHED, sizeof out) != 0, (code == 0) != (result.back() == '!'));
      EXPECT_TRUE(text == "..." || trace_entries(trace_file()).back() == traced(called->name, entry))
          << trace_entries(trace_file()).back();
    }
  }
}
static int decode(int traced, const std::string& id, int limit = 4) {
  return zk_decode_eid_2(traced, trace_file(), id.c_str(), HDR, out.files[0], limit, &out.label, SEL, &out.time,
                         out.address, &out.ipv6);
}
static int decode_old(int traced, const std::string& id) {
  return zk_decode_eid(traced, trace_file(), id.c_str(), HDR, out.files[0], &out.label, &out.time, out.address,
                       &out.ipv6);
}

static int number(const char* pair, int index) {
  return std::atoi(index == 0 ? pair : std::strchr(pair, ',') + 1);
}

/* ---- Numbers and fields ------------------------------------------------------------------------------- */

TEST(numbers, have_their_lowest_digit_first) {
  char text[8] = "stale";
  EXPECT_EQ(digits((1ULL << 36) + 64, 7), "./.....");
  EXPECT_TRUE(zk_l64a_r(64, text, 0) == -1 && errno == EINVAL && text[0] == '\0');
  EXPECT_TRUE(zk_l64a_r(63, text, 0) == 0 && std::string(text) == "z");
  EXPECT_EQ(zk_l64a_r(1, nullptr, 8), -1);
  EXPECT_EQ(zk_a64l(nullptr), 0U);
  EXPECT_EQ(zk_a64l("!/\xff./"), 64U + (1ULL << 24)); /* what is no digit counts as 0 */
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
    const int facility = syslog ? static_cast<int>(number % 185) : 185, priority = static_cast<int>(number % 8);
    const uint32_t words[4] = {htonl(label), htonl(static_cast<uint32_t>(number >> 32)), 0, UINT32_MAX};
    const std::string address = digits(label, 6) + digits(number >> 32, 6) + "......zzzzz1/";
    setenv("ZELKADDR", address.c_str(), 1);
    now_is = {static_cast<time_t>(number % INT32_MAX + 1), static_cast<suseconds_t>(number % 1000000)};
    out = UNTOUCHED;
    EXPECT_EQ(old ? zk_generate_eid(0, nullptr, nullptr, label, MADE)
                  : zk_generate_eid_2(0, nullptr, nullptr, syslog ? 0 : label, facility, priority, MADE),
              0);
    EXPECT_EQ(decode(0, out.text), 0) << out.text;
    const int expected[] = {old ? 1 : 2, syslog ? 2 : 0, syslog ? facility / 8 * 8 : 7, syslog ? priority : 7, 1};
    EXPECT_EQ(std::memcmp(&out.version, expected, sizeof expected), 0) << out.text;
    EXPECT_EQ(out.label, syslog ? 7 : label);
    EXPECT_TRUE(out.seconds == now_is.tv_sec && out.time.tv_sec == now_is.tv_sec && out.time.tv_usec == now_is.tv_usec);
    EXPECT_EQ(std::memcmp(out.address, words, sizeof words), 0) << out.text;
  }
  now_is = {};
  char selector[8] = "xxxxxxx";
  zk_selector_substr("8M6.....2zIZ/.7S.", selector);
  EXPECT_STREQ(selector, "M6....x");
  zk_selector_substr("8M6.....2zIZ/.7S.", nullptr);
}

TEST(fields, are_checked_and_traced_when_taken_apart) {
  const char list[3][ZELK_ADDR_SLOT_SIZE] = {"10.0.0.1", "10.0.0.2"};
  expect({{"hdr", CALL(conv_base_64_hdr, t, give(0, &out.version), give(1, &out.location))},
          {"folder", CALL(conv_base_64_inode, t, give(0, "/....."), give(1, out.files[0]), 1)},
          {"inode", CALL(conv_base_64_inode, "/", t, give(0, out.files[0]), given)},
          {"templ", CALL(conv_base_64_templ, t, give(0, &out.label))},
          {"sel", CALL(conv_base_64_selector, t, give(0, &out.facility), give(1, &out.priority))},
          {"time", CALL(conv_base_64_time, t, give(0, &out.time))},
          {"ipv4", CALL(conv_ipaddr, t, '.', out.address)},
          {"ipv6", CALL(conv_ipaddr, t, '/', out.address)},
          {"ip", CALL(conv_ipaddr, t, 'x', nullptr)},
          {"test", CALL(test_ipaddr, t, give(0, list[0]))},
          {"list", CALL(test_ipaddr, "10.0.0.2", t)}},
         R"rows(
hdr/0    -       -4    Called with a NULL value for hdr64rep|~|
hdr/0    8       -5    Called with a NULL value for version_id|~|
hdr/1    8       -6    Called with a NULL value for location_mask|~|
hdr      ./      -99   Header code @ converted to value 0x40, outside of supported range|^|
hdr      G       -99   Unsupported ZELK Version 0x10 detected|Maximum supported 0x8|Returning #
hdr      9       -99!  Unsupported record location 0x3 detected|Maximum supported 0x2|Returning #
hdr      8       0     Header code @ translated into version 2 and location 0x2|^|
folder/0 -       -4    Called with a NULL value for directory - cannot locate file without it|~|
inode/0  -       -5    Called with a NULL value for inode64rep - cannot convert to file name|~|
folder/1 /       -6    Called with a NULL pointer for file name list|~|
folder   /none   -14   Unable to open the directory @ - errno is 2|
folder   /dev/null -14 Unable to open the directory @ - errno is 20|
inode    ......  -24   Cannot locate the base-64 i-node @ (decimal 0) in directory /|^|
folder   /proc   0     1 matches to base-64 i-node /..... (decimal 1) found in directory @|First match: .|^|
templ/0  NULL    -4    Called with a NULL pointer for templ64rep|~|
templ/0  z       -5    Asked to translate a template ID of 0, which seems invalid|^
templ    ......  -1!   Cannot convert base-64 valueof @ to a valid template ID value|~|
templ    zzzzzzz 0     Converted template base-64 value of zzzzzz to -1|^|
templ    !/      0     Converted template base-64 value of @ to 64|^|
sel/0    NULL    -4    Selector "(null)" at location 0x0 appears invalid - returning #
sel/0    -       -4    ...
sel/0    ..x     -5    Facility pointer 0x0 invalid - returning #
sel/1    ..x     -6    Priority pointer 0x0 invalid - returning #
sel      ./....  -4    Selector "@" invalid - returning #
sel      /.....  -4    Selector "@" invalid - returning #
sel      //      -4    Selector "@" invalid - returning #
sel      //.../  -4    Selector "@" invalid - returning #
sel      N7....  -4    Selector "@" yielded invalid facility value 24 - returning #
sel      M7....  -4    Selector "@" yielded invalid priority value 8 - returning #
sel      M6....  0     Selector "@" yielded:|	Facility 23	Priority 7|Returning #
time/0   -       -4    Called with a NULL string for a base-64 TOD|~|
time/0   .       -5    No data area provided in tbuf parameter|~|ZELK_INV_PARAM4
time     ......z -36!  Secs ...... translated to 0 - assuming an invalid time rep provided|~|
time  z......7o1 -36!  Usecs .7o1 translated to 1000000 - assuming an invalid time rep provided|~|
time     z       0     Time base-64 rep of @ converted to 63 secs 0 usecs|~|
time  z.....z6o1 0     Time base-64 rep of @ converted to 63 secs 999999 usecs|~|
ip       -       -4    Invalid pointer or string provided for IP address - returning # to caller
ip       z       -5    Invalid IP address type provided: 'x' - returning # to caller
ipv4  02.e.1.................. 0 IP Address representation @ converted to 0xc0a80102
ipv6  z                        0 IP Address representation @ converted to 0x3flxlxlx
ipv6  ...Uy1............/..... 0 IP Address representation @ converted to 0xfe800000lxlxlx
test/0   -       -4    Invalid string provided for ip_addr|Returning #
list     -       -5    Invalid array provided for ip_list|Returning #
test  10.0.0.2   0!    Match found for address @ at index 1|Returning #
test 10.0 -1 No matches fo address @ found in 2 known base addresses|Assuming this address not on this node|Returning #
)rows");
}

TEST(fields, are_checked_and_traced_when_made) {
  expect({{"hdr", CALL(get_base_64_hdr, number(t, 0), number(t, 1), give(0, out.text))},
          {"inode", CALL(get_base_64_inode, t, give(0, out.text))},
          {"templ", CALL(get_base_64_templ, static_cast<unsigned int>(number(t, 0)), give(0, out.text))},
          {"sel", CALL(get_base_64_selector, number(t, 0), number(t, 1), give(0, out.text))},
          {"time",
           CALL(get_base_64_time, (now_is = {THEN.tv_sec, number(t, 0)}, give(0, out.text)), give(1, &out.seconds))},
          {"ip", CALL(get_ipaddr, give(0, out.text), give(1, out.files[0]))},
          {"list",
           CALL(obtain_ipaddrs,
                (failing = *t == '1' ? SIOCGIFCONF : SIOCGIFFLAGS, errors = {EPERM, EINTR}, out.files[0]), 0, nullptr)},
          {"quiet", "zk_get_ipaddr",
           [](const char*) { return zk_get_ipaddr(0, (errors = {EPERM}, trace_file()), out.text, out.files[0]); }}},
         R"rows(
hdr/0 3,3 -4 Called with an invalid ZELK source code version of 3|Highest supported version 2|^
hdr/0   1,-1 -5  Called with an invalid location mask of 0xffffffff|Highest supported 0x2|^|
hdr     2,3  -5  ...
hdr/0   2,2  -6  Called with a NULL pointer for hdr64rep|~|
hdr     1,0  0   Combined version code 0x0 and location 0x0 into header code 0x0|Base-64 equiv: .|^|
hdr     2,2  0   Combined version code 0x8 and location 0x2 into header code 0xa|Base-64 equiv: 8|^|
inode/0 -    -4  Called with a NULL string for a file name|~|
inode/0 /    -5  Called with a NULL pointer for inode64rep|~|
inode /none  -24 Error trying to get status of file @|Errno is 2|
inode /dev/null/x -14 Error trying to get status of file @|Errno is 20|
inode /proc  0   File @ i-node is 1|Base-64 representation is /.....|^|
templ/0 0    -5  Called with a NULL pointer for templ64rep|~|
templ   -1   0   Converted template ID -1 to base-64 value of zzzzz1|^|
sel/0 -1,-1  -4  facility 127 invalid - returning #|
sel   185,0  -4  facility 23 invalid - returning #|
sel/0   0,8  -5  priority value 8 invalid - returning #|
sel/0   0,7  -6  sel64rep pointer 0x0 invalid - returning #|
sel   184,7  0   Facility 23 and priority 7 translated to code "M6...." - returning #
time/0  1    -4  Called with a NULL parameter for tod64rep|~|
time/1  1    -5  Called with a NULL parameter for seconds|~|
time   -1    -1  Cannot obtain current time of day - returning # to caller|
time 123456  0   Time of day value 1700000000 secs @ usecs converted to base-64 rep of .2zIZ/.7S.|~|
ip/0    -    -4  Parameter ip_addr is set to NULL|~
ip/1    -    -5  Parameter ipv6_flag is set to NULL|~
list    1    -1  Cannot issue ioctl(1) on socket - error code 1|~
quiet   -    -1  Unable to query any net adapters - return #
)rows" + std::string(here().back() == '.' ? "list    2    -1  Cannot issue ioctl(2) on socket - error code 1|~\n"
                                          : ""));
  now_is = {};
  errors = {};
}

/* ---- Whole IDs ---------------------------------------------------------------------------------------- */

TEST(ids, are_checked_and_traced_when_taken_apart) {
  setenv("TZ", "UTC", 1);
  std::string whole;
  auto complete = [&](const char* t) { return t != nullptr && strlen(t) == 7 ? (whole = t + END).c_str() : t; };
  expect({{"id", CALL(decode_eid_2, complete(t), give(8, &out.local), give(0, &out.version), give(1, &out.location),
                      give(2, out.files[0]), 4, give(3, &out.label), give(8, &out.facility), give(8, &out.priority),
                      give(4, &out.time), give(5, out.address), give(6, &out.ipv6))},
          {"old", CALL(decode_eid, complete(t), give(8, &out.local), give(0, &out.version), give(1, &out.location),
                       give(2, out.files[0]), give(3, &out.label), give(4, &out.time), give(5, out.address),
                       give(6, &out.ipv6))}},
         R"rows(
id/0  -       -3    Detected invalid ZELK Error ID|^|
old/0 -       -3    Detected invalid ZELK Error ID|^|
id/0  123456789+123456789+123456789+123456789+1   -3 ZELK Error ID "@"is not correct size|^|
old/0 123456789+123456789+123456789+123456789+123 -3 ZELK Error ID "@"is not correct size|^|
id/0 8M6.... -4 Detected invalid pointer for version_id|^|
id/1 8M6.... -5 Detected invalid pointer for location_mask|^|
id/2 8M6.... -6 Detected invalid pointer for stack_file_list|^|
id/3 8M6.... -7 Detected invalid pointer for err_templ_label|^|
id/4 8M6.... -8 Detected invalid pointer for timestamp|^|
id/5 8M6.... -9 Detected invalid pointer for ip_addr|^|
id/6 8M6.... -10 Detected invalid pointer for ipv6_flag|^|
id/7 8M6.... -11 Detected invalid pointer for bsd_priority (0x0) or bsd_facility (0x0)|^|
old/2 8M6.... -6 Detected invalid pointer for stack_file|^|
old/6 8M6.... -10 Detected invalid pointer for ipv6_flag|^|
id 8M6.... 0 ZELK Error ID "@$2, Location 0x2|First Stack File (none), Template ID 0x7 Syslog Facility 23 Priority 7%0
id 8M7.... -4! ZELK Error ID "@$2, Location 0x2|First Stack File (none), Template ID 0x7 Syslog Facility 0 Priority 7%-4
id 0M6.... 0 ZELK Error ID "@$1, Location 0x2|First Stack File (none), Template ID 0x7 Syslog Facility 23 Priority 7%0
id 6z..... 0 ZELK Error ID "@$2, Location 0x0|First Stack File (none), Template ID 0x3f Syslog Facility 0 Priority 7%0
id 7zzzzzz 0 ZELK Error ID "@$2, Location 0x1|First Stack File (none), Template ID 0x7 Syslog Facility 0 Priority 7%0
old /zzzzzz 0 ZELK Error ID "@$1, Location 0x1|Stack File none, Template ID 7(0x7)%0
old .z..... 0 ZELK Error ID "@$1, Location 0x0|Stack File none, Template ID 63(0x3f)%0
old 6z..... -99! ZELK Error ID is an unsupported version: 0x2|^|
old 0M6.... -1! Unknown location type 0x2 returned from zk_conv_base_64_hdr|~|
id 9z..... -99! ...
id 6...... -1! ...
id    6z...........z............................ -36! ...
id    6z.....z.................................x -5! ...
)rows");
}

TEST(ids, name_the_stack_files_of_this_node) {
  NEEDS_PRIVATE_VAR();
  NEEDS_ADDRESS();
  const std::string file = STACKS + "x", id = entry_of(put(file, "")) + END.substr(0, 10) + here();
  put(STACKS + "y", "");
  auto look = [](int result) { /* the result, whether the ID is of this node, how many files, the longest name */
                               size_t count = 0, longest = 0;
                               for (; count < 4 && out.files[count][0] == 'x'; ++count)
                                 longest = std::max(longest, strlen(out.files[count]));
                               std::ostringstream found;
                               found << result << " " << out.local << " " << count << " " << longest;
                               out = UNTOUCHED;
                               return found.str();
  };
  out = UNTOUCHED;
  EXPECT_EQ(look(decode(0, "7" + id)), "0 1 1 1");
  EXPECT_EQ(look(decode(0, "7" + entry_of(file) + END)), "0 0 0 0");
  fs::create_hard_link(file, STACKS + std::string(255, 'x'));
  high_inode_bits = static_cast<ino_t>(uint64_t{5} << 36);
  EXPECT_EQ(look(decode(0, "7" + id)), "0 1 2 255");
  high_inode_bits = 0;
  for (const char* name : {"x1", "x2", "x3"}) fs::create_hard_link(file, STACKS + name);
  EXPECT_EQ(look(decode(0, "/" + id, 3)).substr(0, 5), "0 1 3");
  EXPECT_EQ(look(decode(0, "/" + id, 0)), "-6 1 0 0");
  EXPECT_EQ(look(decode_old(0, "/" + id)).substr(0, 5), "0 1 1");
  failing = SIOCGIFCONF;
  errors = {EPERM};
  EXPECT_EQ(look(decode(0, "7" + id)), "0 0 0 0"); /* which addresses are this node's cannot be known */
  for (const auto& entry : fs::directory_iterator(STACKS)) fs::remove(entry);
  EXPECT_EQ(look(decode_old(1, "/" + id)), "-24 1 0 0");
  EXPECT_TRUE(trace_entries(trace_file()).back().ends_with("Return code -24\n"));
  EXPECT_EQ(decode(0, "7" + id), -24);
  EXPECT_TRUE(out.time.tv_usec == THEN.tv_usec && out.ipv6 == 0 && out.version == 2); /* the rest is valid */
}

TEST(ids, are_made_for_the_last_location_given) {
  const std::string file = new_file(""), entry = entry_of(file);
  auto made = [&](bool old, const char* arguments) {
    char name[8];
    unsigned int label;
    int facility, priority;
    EXPECT_EQ(sscanf(arguments, "%7[^,],%u,%d,%d", name, &label, &facility, &priority), 4);
    const char* stack = *name == '-' ? nullptr : *name == 'f' ? file.c_str() : *name == '"' ? "" : name;
    return old ? zk_generate_eid(1, trace_file(), stack, label, MADE)
               : zk_generate_eid_2(1, trace_file(), stack, label, facility, priority, MADE);
  };
  now_is = THEN;
  setenv("ZELKADDR", ELSEWHERE.c_str(), 1);
  expect({{"new", "zk_generate_eid_2", [&](const char* t) { return made(false, t); }},
          {"old", "zk_generate_eid", [&](const char* t) { return made(true, t); }},
          {"at", "zk_generate_eid",
           [&](const char* t) {
             return t != nullptr ? setenv("ZELKADDR", t, 1) : unsetenv("ZELKADDR"), made(true, "-,9,0,0");
           }}},
         R"rows(
new  /s,9,-1,40 -11 =either an error template or  Syslog messges|Stack file is /s|template is 9|Syslog facility is 5|~|
new  f,0,0,0    -11 ...
new  f,0,23,0   -11 ...
new  -,0,185,0  -11 ...
new  -,0,-1,0   -11 ...
new  ",0,-1,0   -4  ZELK Error Stack File  does not exist - caller must be repaired|^|
new  /s,0,-1,0  -1  ...
new  -,0,8,8    -1  ...
new  f,0,24,0   0   Created ZELK Error ID 82/....&|~|
new  -,9,-1,9   0   Created ZELK Error ID 67.....&|~|
new  -,9,184,7  0   Created ZELK Error ID 8M6....&|~|
old  /s,9,0,0   -11 =a error template|Stack file is /s|template is 9|~|
old -,0,0,0 -11 ...
old ",0,0,0 -4 ...
old -,9,0,0 0 Created ZELK Error ID .7.....&|~|
new  f,0,-1,0   0   Created ZELK Error ID 7)rows" +
             entry + "&|~|\nold  f,0,0,0    0   Created ZELK Error ID /" + entry + R"rows(&|~|
at  123456789012345678901234   -1 Value stored in environment for ZELKADDR does not appear to be valie: @|^
at  12345678901234567890123456 -1 Value stored in environment for ZELKADDR does not appear to be valie: @|^
at   -          -1  Cannot find ZELKADDR data in environment|^
)rows");
  EXPECT_EQ(out.seconds, 0);
  now_is = {};
}

/* ---- Addresses of a node ------------------------------------------------------------------------------------- */

TEST(addresses, are_those_of_the_interfaces) {
  const int machine = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
  if (unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "the machine forbids a network namespace";
  auto set = [](unsigned long what, const std::string& name, short family_or_flags, const std::string& address) {
    ifreq interface = {};
    sockaddr_in place = {};
    name.copy(interface.ifr_name, IFNAMSIZ - 1);
    place.sin_addr.s_addr = inet_addr(address.c_str());
    std::memcpy(&interface.ifr_addr, &place, sizeof place);
    interface.ifr_flags = family_or_flags; /* both stand at the same place */
    const int fildes = socket(AF_INET, SOCK_DGRAM, 0);
    EXPECT_EQ(ioctl(fildes, what, &interface), 0) << name;
    close(fildes);
  };
  auto listed = [] { /* the addresses, each with a blank behind it; their number is told right */
                     std::vector<char> list(ZELK_ADDR_LIST_SLOTS * ZELK_ADDR_SLOT_SIZE);
                     int count = 0;
                     EXPECT_EQ(zk_obtain_ipaddrs(1, trace_file(), list.data(), 0, &count), 0);
                     std::string addresses;
                     for (const char* slot = list.data(); *slot != '\0'; slot += ZELK_ADDR_SLOT_SIZE, --count)
                       addresses += slot + std::string(" ");
                     EXPECT_EQ(count, 0);
                     return addresses;
  };
  auto shown = [](const std::string& text) {
    EXPECT_EQ(*(trace_entries(trace_file()).end() - 2), traced("zk_obtain_ipaddrs", "Adapt Info: lo " + text));
  };
  const std::string loopback = "/...z/...................";

  EXPECT_EQ(listed(), "");
  EXPECT_EQ(here(), std::string(24, '.') + "/");
  set(SIOCSIFADDR, "lo", AF_INET, "127.0.0.1");
  EXPECT_EQ(listed(), "127.0.0.1 ");
  shown("00000008 address=127.0.0.1 AF_INET   IFF_LOOPBACK");
  set(SIOCSIFFLAGS, "lo", IFF_UP, "");
  EXPECT_EQ(listed(), "127.0.0.1 ");
  shown("00000049 address=127.0.0.1 AF_INET IFF_UP IFF_LOOPBACK");
  EXPECT_EQ(here(), loopback);
  std::string all = "127.0.0.1 ";
  for (int alias = 1; alias < 70; ++alias) {
    const std::string address = "10.0.0." + std::to_string(alias);
    set(SIOCSIFADDR, "lo:" + std::to_string(alias), AF_INET, address);
    if (alias < 64) all += address + " ";
  }
  EXPECT_EQ(listed(), all);
  EXPECT_EQ(here(), digits(0x0A000001, 24) + "."); /* a second loopback that is up */
  set(SIOCSIFFLAGS, "lo", 0, "");
  EXPECT_EQ(here(), loopback); /* the first one, now that it is not up */
  for (uint32_t last : {21U, 63U, 64U}) {
    EXPECT_EQ(decode(0, "8M6.....2zIZ/.7S." + digits(0x0A000000 + last, 24) + "."), 0);
    EXPECT_EQ(out.local, last < 64 ? 1 : 0) << last;
  }
  failing = SIOCGIFFLAGS;
  errors = {EADDRNOTAVAIL, EINTR};
  EXPECT_EQ(listed(), all.substr(all.find(' ') + 1)); /* one went away meanwhile */
  setns(machine, CLONE_NEWNET);
  close(machine);
}

/* ---- The command, given an ID -------------------------------------------------------------------------------- */

/* Makes a stack in the stacks folder with an incident for each name; gives their Error IDs. */
static std::vector<std::string> record(const std::string& name, const std::vector<std::string>& names) {
  stack made;
  std::vector<std::string> ids;
  const std::string path = put(STACKS + name, "");
  setenv("ZELKADDR", here().c_str(), 1);
  for (const std::string& description : names) {
    incident what;
    now_is = {THEN.tv_sec + static_cast<time_t>(ids.size()), 0};
    EXPECT_EQ(zk_generate_eid_2(0, nullptr, path.c_str(), 0, -1, 0, &out.seconds,
                                what.id.assign(ZELK_EID_LENGTH, '.').data()),
              0);
    what.description = description;
    what.related = ids.empty() ? "" : ids.back();
    ids.push_back(what.id);
    made.add(what);
  }
  now_is = {};
  put(path, made.bytes());
  return ids;
}

/* What the command says of `id` and how it ends. */
static outcome refusal(int number, const std::string& id, int status, const std::string& code = "") {
  std::string said = message(number);
  for (size_t at; (at = said.find("%1$s")) != said.npos;) said.replace(at, 4, id);
  if (size_t at = said.find("%2$d"); at != said.npos) said.replace(at, 4, code);
  return {"", said, status};
}
static outcome unexpected(const std::string& code) {
  return refusal(ZK_MSG_UNEXPECTED, "zk_display_recs_by_proc", 99, code);
}
static outcome shown(std::vector<std::string> options, const char* by, const std::string& stack) {
  options.insert(options.end(), {by, stack});
  return zkview(options);
}
static outcome by_id(const std::string& id, const std::vector<std::string>& options = {}) {
  return shown(options, "-f", id);
}
static outcome by_name(const std::string& name, const std::vector<std::string>& options = {}) {
  return shown(options, "-s", name);
}

TEST(given_an_id, the_command_reports_its_stack) {
  NEEDS_PRIVATE_VAR();
  NEEDS_ADDRESS();
  const std::vector<std::string> ids = record("views", {"cause", "effect"});
  const std::string absent = ids[0].substr(0, 7) + END.substr(0, 10) + here();
  const std::vector<std::string> views[] = {{}, {"-r"}, {"-p"}, {"-d"}, {"-a"}, {"-a", "-p"}, {"-a", "-d"}};
  for (const auto& view : views)
    for (const std::string& id : {ids[1], ids[1] + "cut off", absent}) /* a single candidate is not searched */
      EXPECT_EQ(by_id(id, view), by_name("views", view)) << id;
  for (const char* other : {"-i", "-p", "-r"})
    EXPECT_EQ(by_id(ids[1], {"-i", other}), (outcome{HEADING + line("effect"), "", 0}));
  EXPECT_EQ(by_id(absent, {"-i"}), (outcome{HEADING, "", 0}));
  const std::string full = by_name("views", {"-a", "-d"}).out;
  EXPECT_EQ(by_id(ids[0], {"-i", "-a"}), (outcome{full.substr(0, full.find(SEPARATOR)), "", 0}));
}

TEST(given_an_id, the_command_searches_several_candidates) {
  NEEDS_PRIVATE_VAR();
  NEEDS_ADDRESS();
  const std::string id = record("links", {"first", "second"})[1], absent = id.substr(0, 7) + END.substr(0, 10) + here();
  fs::create_hard_link(STACKS + "links", STACKS + "more links");
  for (const char* view : {"-d", "-p", "-r"})
    EXPECT_EQ(by_id(id, {view}), (outcome{line("second") + by_name("links", {view}).out, "", 0}));
  EXPECT_EQ(by_id(id, {"-i"}), (outcome{line("second") + HEADING + line("second"), "", 0}));
  EXPECT_EQ(by_id(absent), refusal(ZK_MSG_ID_STACK_GONE, absent, 20));

  /* Another file in the place of a link has that link's i-node in the folder. */
  out = UNTOUCHED;
  ASSERT_EQ(decode(0, id), 0);
  const std::string first = STACKS + out.files[0], second = STACKS + out.files[1];
  const std::string other = stack().add("other").file(), damaged = new_file("damaged");
  ASSERT_EQ(mount(other.c_str(), first.c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(by_id(id, {"-d"}), (outcome{line("second") + by_name(second, {"-d"}).out, "", 0}));
  ASSERT_EQ(mount(damaged.c_str(), second.c_str(), nullptr, MS_BIND, nullptr), 0);
  EXPECT_EQ(by_id(id), unexpected("-1"));
  EXPECT_EQ(umount(first.c_str()) + umount(second.c_str()), 0);
}

TEST(given_an_id, the_command_tells_why_there_is_no_report) {
  NEEDS_PRIVATE_VAR();
  NEEDS_ADDRESS();
  const std::string id = record("refused", {"one"})[0], gone = record("gone", {"one"})[0],
                    end = END.substr(0, 10) + here();
  fs::remove(STACKS + "gone");
  const struct {
    std::string id;
    int number, status;
  } rows[] = {{"9" + id.substr(1), ZK_MSG_LATER_VERSION, 11},
              {"z" + id.substr(1), ZK_MSG_LATER_VERSION, 11},
              {id.substr(0, 41), ZK_MSG_NOT_A_STACK_ID, 27},
              {"6z....." + end, ZK_MSG_NOT_A_STACK_ID, 27},
              {"6z....." + END, ZK_MSG_NOT_A_STACK_ID, 27},
              {"8M6...." + END, ZK_MSG_NOT_A_STACK_ID, 27},
              {id.substr(0, 7) + END, ZK_MSG_REMOTE, 43},
              {gone, ZK_MSG_ID_STACK_GONE, 20},
              {"7......" + id.substr(7, 34) + "/", ZK_MSG_REMOTE, 43}};
  for (const auto& row : rows) EXPECT_EQ(by_id(row.id), refusal(row.number, row.id, row.status));
  EXPECT_EQ(by_id("6......" + end), unexpected("-1"));
  EXPECT_EQ(by_id(id.substr(0, 41) + "x"), unexpected("-1"));
  fs::rename(ZELK_STACK_DIR, ZELK_DIR "/away");
  EXPECT_EQ(by_id(id), unexpected("-14"));
  fs::rename(ZELK_DIR "/away", ZELK_STACK_DIR);

  fs::permissions(scratch(), fs::perms::all);
  fs::permissions(STACKS + "refused", fs::perms::none);
  as_ordinary_user([&] { EXPECT_EQ(by_id(id), refusal(ZK_MSG_ID_NO_ACCESS, id, 20)); });
  fs::permissions(STACKS, fs::perms::none);
  as_ordinary_user([&] { EXPECT_EQ(by_id(id), unexpected("-13")); });
  fs::permissions(STACKS, static_cast<fs::perms>(0755));
}

TEST(sample, makes_an_id_that_the_command_takes) {
  NEEDS_PRIVATE_VAR();
  NEEDS_ADDRESS();
  record("sample", {"one"});
  const outcome made = run({program("use_error_ids"), STACKS + "sample"});
  EXPECT_EQ(made.status, 0) << made;
  EXPECT_NE(made.out.find("\nversion     2\nlocation    1\nthis node   yes\ntime stamp  "), made.out.npos) << made;
  EXPECT_NE(made.out.find("\nstack file  sample\n"), made.out.npos) << made;
  EXPECT_EQ(by_id(made.out.substr(12, ZELK_EID_LENGTH)), by_name("sample"));
  EXPECT_NE(run({program("use_error_ids")}).out.find("\nselector    16.3\n"), std::string::npos);
}
