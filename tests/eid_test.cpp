/* eid_test.cpp - Error IDs: their fields, whole IDs made and taken apart, the addresses of a node, and the command
 * that is given an Error ID. */
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
#include <functional>
#include <memory>
#include <random>
#include <regex>

#include "support.h"
#include "zk_msg.h"

/* ---- What the system answers: its own answers, unless a test changes them ------------------------------------ */

static timeval now_is = {};         /* the time of day when not 0; with microseconds below 0 it cannot be had */
static ino_t high_inode_bits = 0;   /* of every directory entry */
static unsigned long failing = 0;   /* 1 for a socket, else the request to an interface */
static std::vector<int> errors = {}; /* of the next such calls, the last first */

static bool fails(unsigned long call) {
  if (call != failing || errors.empty()) return false;
  errno = errors.back();
  errors.pop_back();
  return true;
}
extern "C" int socket(int domain, int type, int protocol) noexcept {
  return fails(1) ? -1 : static_cast<int>(syscall(SYS_socket, domain, type, protocol));
}
extern "C" int ioctl(int fildes, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* argument = va_arg(arguments, void*);
  va_end(arguments);
  return fails(request) ? -1 : static_cast<int>(syscall(SYS_ioctl, fildes, request, argument));
}
extern "C" int gettimeofday(timeval* time, void*) noexcept {
  timespec clock = {};
  clock_gettime(CLOCK_REALTIME, &clock);
  *time = now_is.tv_sec != 0 ? now_is : timeval{clock.tv_sec, static_cast<suseconds_t>(clock.tv_nsec / 1000)};
  return time->tv_usec < 0 ? -1 : 0;
}
extern "C" dirent* readdir(DIR* folder) {
  using reader = dirent* (*)(DIR*);
  static const auto next =
      reinterpret_cast<reader>(dlsym(RTLD_NEXT, sizeof(ino_t) > sizeof(void*) ? "readdir64" : "readdir"));
  dirent* entry = next(folder);
  if (entry != nullptr) entry->d_ino |= high_inode_bits;
  return entry;
}

/* ---- Error IDs in the making --------------------------------------------------------------------------------- */

static std::string digits(uint64_t value, size_t width) {
  char text[8] = "";
  EXPECT_EQ(zk_l64a_r(value, text, sizeof text), 0);
  std::string field = text;
  field.resize(width, '.');
  return field;
}
/* Encoded address with its type character. */
static std::string code(const char* dotted) { return digits(ntohl(inet_addr(dotted)), 24) + "."; }
static const std::string ELSEWHERE = code("192.0.2.1"); /* for documents: no node has it */
static const std::string WHEN = ".2zIZ/.7S.";           /* 1700000000.123456 */
static std::string made(const std::string& head, const std::string& entry, const std::string& address = ELSEWHERE,
                        const std::string& when = WHEN) {
  return head + entry + when + address;
}
/* This node's encoded address with its type. */
static std::string here() {
  char address[ZELK_ADDR_CODE_SIZE] = "", type[2] = "";
  EXPECT_EQ(zk_get_ipaddr(0, nullptr, address, type), 0);
  return std::string(address) + type;
}
#define NEEDS_ADDRESS() \
  if (here().back() != '.') GTEST_SKIP() << "this machine has no IPv4 address"

static std::string entry_of(const std::string& path) {
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  return digits(status.st_ino, 6);
}

/* ---- Calls with their results and traces --------------------------------------------------------------------- */

constexpr int UNSET = 7;
static struct outputs {
  int local, version, location, facility, priority, ipv6;
  unsigned int label;
  long seconds;
  timeval time;
  char text[ZELK_EID_SIZE], files[4 * ZELK_FILE_SLOT_SIZE];
  unsigned char address[16];
} out;

static void reset_outputs(outputs& fresh = out) {
  std::memset(&fresh, 0, sizeof fresh);
  fresh.local = fresh.version = fresh.location = fresh.facility = fresh.priority = fresh.ipv6 = fresh.label = UNSET;
}
static const std::string& trace() {
  static const std::string path = scratch() + "/trace";
  EXPECT_EQ(zk_create_debug_file(path.c_str()), 0);
  return path;
}
static std::string folded(const char* format, ...) ZELK_PRINTF_LIKE(1, 2);
static std::string folded(const char* format, ...) {
  char lines[512] = "";
  va_list arguments;
  va_start(arguments, format);
  zk_format_debug_info(lines, format, arguments);
  va_end(arguments);
  return lines;
}

struct expectation {
  const char* routine;
  std::function<int()> call;
  int result;
  std::string text; /* of the last trace entry, with "%s(%d)" for the result; empty: not looked at */
  bool writes = false; /* whether any output is changed */
};
#define CALL(routine, ...) #routine, [&] { return routine(1, trace().c_str(), __VA_ARGS__); }
#define CALLER "\nReturning %s(%d) to caller\n"
#define THE_CALLER "\nReturning %s(%d) to the caller\n"

static void expect(std::vector<expectation> rows) {
  for (expectation& row : rows) {
    SCOPED_TRACE(std::string(row.routine) + ": " + row.text);
    outputs before;
    reset_outputs();
    reset_outputs(before);
    EXPECT_EQ(row.call(), row.result);
    EXPECT_EQ(std::memcmp(&out, &before, sizeof out) != 0, row.writes);
    if (row.text.empty()) continue;
    if (size_t at = row.text.find("%s(%d)"); at != row.text.npos)
      row.text.replace(at, 6, zk_result_name(row.result) + ("(" + std::to_string(row.result) + ")"));
    const std::vector<std::string> entries = trace_entries(trace());
    EXPECT_EQ(entries.empty() ? "" : entries.back(), row.routine + ("\n" + folded("%s", row.text.c_str())));
  }
}

/* ---- Numbers and fields -------------------------------------------------------------------------------------- */

TEST(numbers, have_their_lowest_digit_first) {
  const struct {
    uint64_t value;
    int length;
    const char* text;
  } rows[] = {{0, 8, ""},           {1, 8, "/"},       {63, 0, "z"},       {64, 1, "./"},
              {999999, 8, "z6o1"},  {0xFFFFFFFF, 4, ""}, {0xFFFFFFFF, 5, "zzzzz1"},
              {(1ULL << 36) + 63, 8, "z"}, {1ULL << 36, 8, "......"}};
  for (const auto& row : rows) {
    char text[8] = "stale";
    const bool fits = row.text[0] != '\0' || row.value == 0;
    errno = 0;
    EXPECT_EQ(zk_l64a_r(row.value, text, row.length), fits ? 0 : -1) << row.value;
    EXPECT_EQ(errno, fits ? 0 : EINVAL);
    EXPECT_STREQ(text, row.text);
    EXPECT_EQ(zk_a64l(text), fits ? row.value & 0xFFFFFFFFF : 0);
  }
  EXPECT_EQ(zk_l64a_r(1, nullptr, 8), -1);
  EXPECT_EQ(zk_a64l(nullptr), 0U);
  EXPECT_EQ(zk_a64l("!/\xff./"), 64U + (1ULL << 24));
}

/* Texts of exactly their size on the heap: a read past the NUL does not go unnoticed under a sanitizer. */
TEST(fields, may_be_short_and_hold_foreign_characters) {
  auto exact = [](const std::string& text) {
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    std::memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
  };
  reset_outputs();
  const struct {
    const char* text;
    uint32_t label;
    time_t seconds;
    suseconds_t microseconds;
    uint32_t ipv4, ipv6_second;
  } rows[] = {{"z", 63, 63, 0, 63, 0},
              {"!/", 64, 64, 0, 64, 0},
              {"z.....\x80/", 63, 63, 64, 63, 64},
              {"z.....////////", 63, 63, 266305, 63, 0x41041041}};
  for (const auto& row : rows) {
    EXPECT_EQ(zk_conv_base_64_templ(0, nullptr, exact(row.text).get(), &out.label), 0);
    EXPECT_EQ(out.label, row.label);
    EXPECT_EQ(zk_conv_base_64_time(0, nullptr, exact(row.text).get(), &out.time), 0);
    EXPECT_EQ(out.time.tv_sec, row.seconds);
    EXPECT_EQ(out.time.tv_usec, row.microseconds);
    uint32_t words[4] = {};
    EXPECT_EQ(zk_conv_ipaddr(0, nullptr, exact(row.text).get(), '/', words), 0);
    EXPECT_EQ(ntohl(words[0]), row.ipv4);
    EXPECT_EQ(ntohl(words[1]), row.ipv6_second);
    EXPECT_EQ(zk_conv_base_64_inode(0, nullptr, "/", exact(row.text).get(), out.files, 4), ZELK_FILE_MISSING);
  }
  EXPECT_EQ(zk_conv_base_64_selector(0, nullptr, exact("//").get(), &out.facility, &out.priority),
            ZELK_INV_PARAM3);
  EXPECT_EQ(zk_conv_base_64_hdr(0, nullptr, exact("!").get(), &out.version, &out.location), 0);
  char address[16] = {};
  EXPECT_EQ(zk_conv_ipaddr(0, nullptr, ("...Uy1............/....." + std::string(9, 'z')).c_str(), '/', address), 0);
  char text[INET6_ADDRSTRLEN];
  EXPECT_STREQ(inet_ntop(AF_INET6, address, text, sizeof text), "fe80::1");
  EXPECT_EQ(zk_conv_ipaddr(0, nullptr, "02.e.1..................", '.', address), 0);
  EXPECT_STREQ(inet_ntop(AF_INET, address, text, sizeof text), "192.168.1.2");

  char selector[8] = "xxxxxxx";
  zk_selector_substr("8M6.....2zIZ/.7S.", selector);
  EXPECT_STREQ(selector, "M6....x");
  zk_selector_substr("8", nullptr);
}

TEST(fields, come_back_as_they_were_given) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const uint64_t number = random() >> random() % 64;
    EXPECT_EQ(zk_a64l(digits(number, 6).c_str()), number & 0xFFFFFFFFF);

    char text[ZELK_ADDR_CODE_SIZE] = "";
    const unsigned int label = static_cast<unsigned int>(number | 1);
    EXPECT_EQ(zk_get_base_64_templ(0, nullptr, label, text), 0);
    EXPECT_EQ(zk_conv_base_64_templ(0, nullptr, text, &out.label), 0);
    EXPECT_EQ(out.label, label);

    const int facility = static_cast<int>(number % 185), priority = static_cast<int>(number % 8);
    EXPECT_EQ(zk_get_base_64_selector(0, nullptr, facility, priority, text), 0);
    EXPECT_EQ(zk_conv_base_64_selector(0, nullptr, text, &out.facility, &out.priority), 0);
    EXPECT_EQ(out.facility, facility / 8 * 8);
    EXPECT_EQ(out.priority, priority);

    const int version = 1 + round % 2, location = round % 3;
    EXPECT_EQ(zk_get_base_64_hdr(0, nullptr, version, location, text), 0);
    EXPECT_EQ(text[0], "./0678"[3 * version - 3 + location]);
    text[1] = '\0';
    EXPECT_EQ(zk_conv_base_64_hdr(0, nullptr, text, &out.version, &out.location), 0);
    EXPECT_EQ(out.version * 3 + out.location, version * 3 + location);

    now_is = {static_cast<time_t>(number % 0xFFFFFFFF + 1), static_cast<suseconds_t>(number % 1000000)};
    EXPECT_EQ(zk_get_base_64_time(0, nullptr, text, &out.seconds), 0);
    EXPECT_EQ(zk_conv_base_64_time(0, nullptr, text, &out.time), 0);
    EXPECT_EQ(out.seconds, static_cast<long>(now_is.tv_sec));
    EXPECT_TRUE(out.time.tv_sec == now_is.tv_sec && out.time.tv_usec == now_is.tv_usec) << text;

    uint32_t words[4] = {};
    const std::string groups = digits(label, 6) + digits(number >> 32, 6) + digits(number, 6) + "zzzzz1";
    EXPECT_EQ(zk_conv_ipaddr(0, nullptr, groups.c_str(), '/', words), 0);
    EXPECT_EQ(ntohl(words[0]), label);
    EXPECT_EQ(ntohl(words[1]), static_cast<uint32_t>(number >> 32));
    EXPECT_EQ(ntohl(words[2]), static_cast<uint32_t>(number));
    EXPECT_EQ(words[3], 0xFFFFFFFF);
  }
  now_is = {};
}

/* ---- Taking apart -------------------------------------------------------------------------------------------- */

TEST(decoding, of_a_field_fails_and_traces_in_order_of_the_checks) {
  const std::string folder = scratch() + "/named", file = folder + "/a", entry = (mkdir(folder.c_str(), 0755), std::ofstream(file), entry_of(file));
}
