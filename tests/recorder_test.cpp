/* Recording: what every view shows of a stack whose recorder was killed, refused or crowded, and what is recorded. */
#undef _FORTIFY_SOURCE /* its inline variants cannot be replaced */
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <set>
#include <thread>

#include "qx_record.h"
#include "support.h"

/* ---- Writing that goes wrong --------------------------------------------------------------------------------- */

/* What happens to the write that comes after `spared` others: the recorder is killed before it, in its middle or after
 * it, or the write is refused or shortened. */
enum mishap { NONE, KILLED_BEFORE, KILLED_WITHIN, KILLED_BEHIND, REFUSED, FULL, SHORT };
static struct {
  mishap what;
  int spared;
} next_mishap = {NONE, 0};

/* The library is linked into this program, so its writes come here. */
extern "C" ssize_t pwrite(int fildes, const void* bytes, size_t size, off_t offset) {
  const bool is_hit = next_mishap.what != NONE && next_mishap.spared-- == 0;
  const mishap what = is_hit ? next_mishap.what : NONE;
  if (is_hit) next_mishap.what = NONE;
  if (what == KILLED_BEFORE) _exit(9);
  if (what == REFUSED || what == FULL) {
    errno = what == FULL ? ENOSPC : EIO;
    return -1;
  }
  const size_t length = what == KILLED_WITHIN || what == SHORT ? size / 2 : size;
  lseek(fildes, offset, SEEK_SET);
  const ssize_t written = syscall(SYS_write, fildes, bytes, length);
  if (what == KILLED_WITHIN || what == KILLED_BEHIND) _exit(9);
  return written;
}

/* ---- A recorder and its stack -------------------------------------------------------------------------------- */

struct recorder : testing::Test {
  void SetUp() override {
    setenv("ZELKADDR", "/...z/...................", 1); /* 127.0.0.1 */
    path = scratch() + "/" + testing::UnitTest::GetInstance()->current_test_info()->name();
    unlink(path.c_str());
    ASSERT_EQ(zk_create_stack(0, nullptr, path.c_str(), 8192), 0);
  }
  void TearDown() override {
    next_mishap.what = NONE;
    zk_close_recorder(open);
  }

  /* Records an incident that is known by its number; returns the result. */
  int record(int number, size_t details = 0) {
    if (open == nullptr && zk_open_recorder(0, nullptr, path.c_str(), &open) != 0) return -99;
    const std::string name = "n" + std::to_string(number), more(details, 'd');
    zk_incident_t what = {};
    what.process_name = "proc";
    what.process_id = 7;
    what.default_message = name.c_str();
    what.details = more.c_str();
    return zk_record_incident(0, nullptr, open, &what, id);
  }
  int record(const zk_incident_t& what) {
    if (open == nullptr && zk_open_recorder(0, nullptr, path.c_str(), &open) != 0) return -99;
    return zk_record_incident(0, nullptr, open, &what, id);
  }

  /* The numbers that a view shows, in its order; the view has to end well. */
  std::vector<int> shown(const std::string& option = "-d") const {
    const outcome report = run({program("zkview"), option, "-s", path});
    EXPECT_EQ(report.status, 0) << option << report;
    std::vector<int> numbers;
    for (size_t at = 0; (at = report.out.find(" n", at)) != report.out.npos; ++at)
      numbers.push_back(std::stoi(report.out.substr(at + 2)));
    return numbers;
  }
  /* Expects an unbroken run that ends with `newest` or, where that one was being recorded, the one before it. */
  void expect_run(int newest, bool may_lack_newest) const {
    for (const char* option : {"-d", "-p"}) {
      const std::vector<int> numbers = shown(option);
      ASSERT_FALSE(numbers.empty());
      for (size_t i = 1; i < numbers.size(); ++i) EXPECT_EQ(numbers[i], numbers[i - 1] + 1) << option;
      EXPECT_TRUE(numbers.back() == newest || (may_lack_newest && numbers.back() == newest - 1)) << numbers.back();
    }
    EXPECT_EQ(shown("-r").size(), shown("-d").size());
  }

  zk_estack_v1_header_t header() const {
    zk_estack_v1_header_t header;
    memcpy(&header, contents(path).data() + 4, sizeof header);
    return header;
  }

  std::string path;
  zk_recorder_t* open = nullptr;
  zk_eid_t id = "";
};

/* ---- The promise --------------------------------------------------------------------------------------------- */

static void restore(const std::string& path, const std::string& bytes) {
  const int file = open(path.c_str(), O_WRONLY | O_TRUNC);
  EXPECT_EQ(syscall(SYS_write, file, bytes.data(), bytes.size()), std::ssize(bytes));
  close(file);
}

/* Lets `what` happen at each write of the incident `number`; each time the next recorder goes on. Leaves the stack as it
 * was. */
static void survive(recorder& test, int number, size_t details, mishap what) {
  const std::string before = contents(test.path);
  bool is_recorded = false;
  for (int write = 0; !is_recorded || what == SHORT; ++write) {
    const pid_t child = fork();
    if (child == 0) {
      test.open = nullptr; /* a recorder of its own */
      next_mishap = {what, write};
      _exit(test.record(number, details) == 0 ? 0 : 1);
    }
    int status = 0;
    waitpid(child, &status, 0);
    is_recorded = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (number > 0) test.expect_run(number, !is_recorded);
    ASSERT_EQ(test.record(number + 1, 3), 0) << "write " << write;
    EXPECT_EQ(test.shown().back(), number + 1);
    zk_close_recorder(test.open);
    test.open = nullptr;
    restore(test.path, before);
    if (what == SHORT && write == 4) return;
  }
}

static const mishap ALL[] = {KILLED_BEFORE, KILLED_WITHIN, KILLED_BEHIND, REFUSED, FULL, SHORT};

TEST_F(recorder, is_survived_by_an_empty_stack) {
  for (mishap what : ALL) survive(*this, 0, 100, what);
}

TEST_F(recorder, is_survived_before_the_first_wrap) {
  for (int number = 0; number < 5; ++number) ASSERT_EQ(record(number), 0);
  for (mishap what : ALL) survive(*this, 5, 100, what);
}

TEST_F(recorder, is_survived_at_each_wrap) {
  constexpr int SIZE = 1028; /* of the largest record; seven of them fill a stack */
  for (int number = 0; number < 7; ++number) ASSERT_EQ(record(number, 1500), 0);
  EXPECT_EQ(header().write_pos, 24 + 7 * SIZE);
  for (mishap what : ALL) survive(*this, 7, 1500, what);
  for (int number = 7; header().write_pos != 24 + 7 * SIZE; ++number) ASSERT_EQ(record(number, 1500), 0);
  const int next = shown().back() + 1;
  for (mishap what : ALL) survive(*this, next, 1500, what);
}

TEST_F(recorder, is_survived_among_records_of_all_sizes) {
  const int every = *EMULATOR == '\0' ? 60 : 150;
  for (int number = 0; number < 300; ++number) {
    ASSERT_EQ(record(number, static_cast<size_t>(number * 37 % 1100)), 0);
    if (number % every != every - 1) continue;
    for (mishap what : ALL) survive(*this, number + 1, static_cast<size_t>(number * 7 % 1000), what);
    number = shown().back();
  }
  expect_run(shown().back(), false);
}

TEST_F(recorder, keeps_more_than_half_of_a_filled_stack) {
  for (int number = 0; number < 400; ++number) {
    ASSERT_EQ(record(number, number % 9 == 0 ? 1500 : 5), 0);
    const auto [start, write_pos, earliest, size, has_wrapped] = header();
    const int kept = write_pos - earliest + (earliest < write_pos ? 0 : size - start);
    EXPECT_TRUE(has_wrapped == 0 || kept >= 8168 / 2) << number << ": " << kept;
  }
}

/* ---- Several at once ------------------------------------------------------------------------------------------ */

/* Records forty incidents, and notes the Error ID of each that was acknowledged. */
static void record_forty(const std::string& path, int notes, std::atomic<int>* failures) {
  zk_recorder_t* own = nullptr;
  *failures += zk_open_recorder(0, nullptr, path.c_str(), &own) != 0;
  for (int number = 0; number < 40; ++number) {
    const std::string name = "n" + std::to_string(number);
    zk_incident_t what = {};
    what.default_message = name.c_str();
    zk_eid_t made;
    *failures += zk_record_incident(0, nullptr, own, &what, made) != 0 || write(notes, made, 42) != 42;
  }
  zk_close_recorder(own);
}

static bool is_earlier(const std::string& one, const std::string& other) {
  timeval first, second;
  zk_conv_base_64_time(0, nullptr, one.substr(7, 10).c_str(), &first);
  zk_conv_base_64_time(0, nullptr, other.substr(7, 10).c_str(), &second);
  return timercmp(&first, &second, <);
}

TEST_F(recorder, shares_a_stack_with_processes_and_threads) {
  if (*EMULATOR != '\0') GTEST_SKIP() << "too slow under an emulator";
  const std::string noted = new_file("");
  const int notes = ::open(noted.c_str(), O_WRONLY | O_APPEND);
  std::vector<pid_t> children;
  for (int process = 0; process < 8; ++process) {
    children.push_back(fork());
    if (children.back() != 0) continue;
    std::atomic<int> failures = 0;
    std::thread other(record_forty, path, notes, &failures);
    record_forty(path, notes, &failures);
    other.join();
    _exit(failures == 0 ? 0 : 1);
  }
  for (int looks = 0; looks < 20; ++looks) shown("-p");
  for (pid_t child : children) {
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  close(notes);

  std::vector<std::string> acknowledged, left;
  const std::string ids = contents(noted), report = run({program("zkview"), "-a", "-d", "-s", path}).out;
  for (size_t at = 0; at < ids.size(); at += 42) acknowledged.push_back(ids.substr(at, 42));
  std::sort(acknowledged.begin(), acknowledged.end(), is_earlier);
  const std::string label = "ZELK Error Identifier:\n\t 7";
  for (size_t at = 0; (at = report.find(label, at)) != report.npos; ++at)
    left.push_back(report.substr(at + label.size() - 1, 42));
  ASSERT_EQ(acknowledged.size(), 8U * 2 * 40);
  EXPECT_EQ(std::set<std::string>(acknowledged.begin(), acknowledged.end()).size(), acknowledged.size());
  ASSERT_GT(left.size(), 30U);
  EXPECT_EQ(left, std::vector<std::string>(acknowledged.end() - std::ssize(left), acknowledged.end()));
}

TEST_F(recorder, waits_for_a_lock_that_outlives_other_descriptors) {
  ASSERT_EQ(record(1), 0);
  const int reader = ::open(path.c_str(), O_RDWR);
  ASSERT_EQ(lockf(reader, F_LOCK, 0), 0); /* as zkview takes it */
  std::atomic<bool> is_recorded = false;
  std::thread other([&] {
    EXPECT_EQ(record(2), 0);
    is_recorded = true;
  });
  usleep(100000);
  EXPECT_FALSE(is_recorded);
  EXPECT_EQ(lockf(reader, F_ULOCK, 0), 0);
  other.join();
  close(reader);
  EXPECT_EQ(shown(), (std::vector<int>{1, 2}));
}

TEST_F(recorder, stays_with_the_parent_after_fork) {
  ASSERT_EQ(record(1), 0);
  in_child([&] {
    zk_close_recorder(open);
    open = nullptr;
    EXPECT_EQ(record(2), 0);
  });
  EXPECT_EQ(record(3), 0);
  EXPECT_EQ(shown(), (std::vector<int>{1, 2, 3}));
}

/* ---- What is recorded ------------------------------------------------------------------------------------------ */

TEST_F(recorder, records_every_field) {
  cu_error_arg_t arguments[2] = {};
  arguments[0].cu_arg_value.cu_arg_int = -7;
  arguments[1].cu_arg_type = 5;
  char disk[] = "disk07";
  arguments[1].cu_arg_value.cu_arg_char_str = disk;
  const std::string cause = eid("cause");
  ASSERT_EQ(record({"proc", 100, 41, 7, "a.c", "1.1", "prod", 12, "", 3, 14, "%2$s: %1$d", arguments, 2, "more",
                    cause.c_str()}),
            0);
  const std::string full = run({program("zkview"), "-a", "-d", "-s", path}).out;
  EXPECT_EQ(full.substr(0, 68), "ZELK Error Identifier:\n\t " + std::string(id) + "\n");
  for (const char* field :
       {"Associated ZELK Error Identifier:\n\t cause.....", "Name: proc\n\t Process Identifier: 100\n",
        "Parent Process Identifier: 41\n\t Process Thread Identifier: 7\n",
        "File Name: a.c\n\t File Version Code: 1.1\n\t Licensed Programming Product: prod\n",
        "Location Within the File: 12\n", "Description:\ndisk07: -7\n\nDetails:\nmore\n"})
    EXPECT_NE(full.find(field), full.npos) << field << full;
}

TEST_F(recorder, makes_an_error_id_of_its_file_now) {
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  const time_t now = time(nullptr);
  ASSERT_EQ(record(1), 0);
  EXPECT_EQ(std::string(id).substr(0, 1) + std::string(id).substr(17), "7/...z/...................");
  zk_eid_t entry = "";
  timeval when = {};
  EXPECT_EQ(zk_get_base_64_inode(0, nullptr, path.c_str(), entry), 0);
  EXPECT_EQ(std::string(id).substr(1, 6), std::string(entry).substr(0, 6));
  EXPECT_EQ(zk_conv_base_64_time(0, nullptr, id + 7, &when), 0);
  EXPECT_LE(when.tv_sec - now, 2);
  EXPECT_GE(when.tv_sec, now);
}

TEST_F(recorder, goes_a_microsecond_on_where_the_clock_was_set_back) {
  stack ahead; /* 1999999999.999999 seconds, in 2033 */
  ahead.header.records_start = ahead.header.earliest_rec = ahead.header.write_pos = 24;
  ahead.add({.id = "7AAAAAAzMzAr/z6o1/...z/...................", .time = 1999999999});
  unlink(path.c_str());
  std::filesystem::rename(ahead.file(), path);
  timeval newest, next;
  ASSERT_EQ(zk_conv_base_64_time(0, nullptr, "zMzAr/z6o1", &newest), 0);
  ASSERT_EQ(record(1), 0);
  ASSERT_EQ(zk_conv_base_64_time(0, nullptr, id + 7, &next), 0);
  EXPECT_EQ(next.tv_sec, newest.tv_sec + 1);
  EXPECT_EQ(next.tv_usec, 0);
}

TEST_F(recorder, takes_an_address_from_the_environment_only_if_it_is_one) {
  char own[25] = "", type = 0;
  ASSERT_EQ(zk_get_ipaddr(0, nullptr, own, &type), 0);
  for (const char* bad :
       {"", "short", "/...z/...................x", "/...z/..........!........", "/...z/..................0"}) {
    setenv("ZELKADDR", bad, 1);
    ASSERT_EQ(record(1), 0);
    EXPECT_EQ(std::string(id + 17), own + std::string(1, type)) << bad;
  }
}

TEST_F(recorder, cuts_details_at_a_whole_character) {
  const std::string umlauts = "\xc3\xa4\xc3\xa4";
  for (size_t room = 800; room < 806; ++room) {
    std::string details(room, 'd');
    while (details.size() < 1100) details += umlauts;
    zk_incident_t what = {};
    what.process_name = "proc";
    what.details = details.c_str();
    ASSERT_EQ(record(what), 0);
    const std::string full = run({program("zkview"), "-a", "-d", "-s", path}).out;
    const size_t start = full.rfind("Details:\n") + 9, end = full.find("...\n", start);
    ASSERT_NE(end, full.npos);
    EXPECT_EQ(full.substr(start, end - start), details.substr(0, end - start));
    EXPECT_EQ((end - start - room) % 2, 0U) << "half a character";
    EXPECT_GE(end - start, 1024U - 3 - 1 - 141);
  }
}

TEST_F(recorder, refuses_what_is_no_incident) {
  zk_incident_t what = {};
  cu_error_arg_t argument = {};
  EXPECT_EQ(zk_record_incident(0, nullptr, nullptr, &what, id), -4);
  ASSERT_EQ(record(1), 0);
  EXPECT_EQ(zk_record_incident(0, nullptr, open, nullptr, id), -5);
  what.argument_count = 1;
  EXPECT_EQ(record(what), -5);
  what.arguments = &argument;
  for (int32_t kind : {-1, 7}) {
    argument.cu_arg_type = kind;
    EXPECT_EQ(record(what), -5) << kind;
  }
  argument.cu_arg_type = 5; /* a null text */
  EXPECT_EQ(record(what), -5);
  what = {};
  EXPECT_EQ(zk_record_incident(0, nullptr, open, &what, nullptr), -6);
  what.associated_eid = "7short";
  EXPECT_EQ(record(what), -36);
  EXPECT_STREQ(id, "");
  const std::string product(900, 'p');
  what = {};
  what.product = product.c_str();
  what.process_name = "proc";
  EXPECT_EQ(record(what), -33);
  EXPECT_EQ(shown(), std::vector<int>{1});
}

/* ---- Stacks ------------------------------------------------------------------------------------------------------ */

TEST(new_stack, appears_whole_or_not_at_all) {
  const std::string path = scratch() + "/new";
  umask(027);
  EXPECT_EQ(zk_create_stack(0, nullptr, "", 8192), -4);
  EXPECT_EQ(zk_create_stack(0, nullptr, path.c_str(), 8191), -5);
  EXPECT_EQ(zk_create_stack(0, nullptr, path.c_str(), 16385), -5);
  EXPECT_EQ(zk_create_stack(0, nullptr, (scratch() + "/none/new").c_str(), 8192), -14);
  EXPECT_EQ(zk_create_stack(0, nullptr, (new_file("") + "/new").c_str(), 8192), -14);
  EXPECT_EQ(access(path.c_str(), F_OK), -1);
  EXPECT_EQ(zk_create_stack(0, nullptr, path.c_str(), 12000), 0);
  EXPECT_EQ(contents(path), image(0) + image(24) + image(24) + image(24) + image(12000) + std::string(11980, '\0'));
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0640U);
  EXPECT_EQ(zk_create_stack(0, nullptr, path.c_str(), 8192), -27);
  EXPECT_EQ(zk_create_stack(0, nullptr, scratch().c_str(), 8192), -27);
  EXPECT_EQ(status.st_blocks > 0, true) << "its space is not reserved";
}

TEST(foreign_stack, is_gone_on_with_where_it_is_sound) {
  stack s(16384);
  s.header.records_start = s.header.earliest_rec = s.header.write_pos = 100;
  s.area.assign(s.area.size(), '\0');
  s.add({.pid = 3, .description = "first"});
  const std::string path = s.file();
  zk_recorder_t* open = nullptr;
  ASSERT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &open), 0);
  zk_incident_t what = {};
  what.default_message = "second";
  zk_eid_t id;
  EXPECT_EQ(zk_record_incident(0, nullptr, open, &what, id), 0);
  zk_close_recorder(open);
  const std::string report = run({program("zkview"), "-d", "-s", path}).out;
  EXPECT_LT(report.find("first"), report.find("second"));
  EXPECT_NE(report.find("second"), report.npos);
}

TEST(damaged_stack, is_refused_and_left_alone) {
  stack good;
  good.add("A").add("B");
  const std::pair<size_t, std::string> damages[] = {
      {0, image(8)},   {4, image(23)},    {8, image(8193)}, {12, image(16)},     {16, image(8193)}, {20, "\2"},
      {24, image(-1)}, {24, image(2045)}, {28, image(1)},   {24, image(100000)}, {8, image(30)}};
  for (const auto& [at, damage] : damages) {
    const std::string bytes = good.bytes().replace(at, damage.size(), damage), path = new_file(bytes);
    zk_recorder_t* open = nullptr;
    int result = zk_open_recorder(0, nullptr, path.c_str(), &open);
    zk_incident_t what = {};
    zk_eid_t id;
    if (result == 0) result = zk_record_incident(0, nullptr, open, &what, id);
    EXPECT_EQ(result, -26) << at;
    EXPECT_EQ(contents(path), bytes) << at;
    zk_close_recorder(open);
  }
}

TEST(recorder_of, what_is_no_stack_is_refused) {
  zk_recorder_t* open = nullptr;
  EXPECT_EQ(zk_open_recorder(0, nullptr, "", &open), -4);
  EXPECT_EQ(zk_open_recorder(0, nullptr, "x", nullptr), -5);
  EXPECT_EQ(zk_open_recorder(0, nullptr, (scratch() + "/none").c_str(), &open), -24);
  EXPECT_EQ(zk_open_recorder(0, nullptr, (new_file("") + "/x").c_str(), &open), -25);
  EXPECT_EQ(zk_open_recorder(0, nullptr, new_file("").c_str(), &open), -26);
  EXPECT_EQ(zk_open_recorder(0, nullptr, "/dev/null", &open), -26);
  EXPECT_EQ(open, nullptr);
}
