/* SPDX-License-Identifier: MIT */
/* recorder_test.cpp - records into stacks of all kinds, with the disk refusing and the process dying at every write, and
 * looks at what the views show of them. Single incidents stand in golden/library/recorder.calls. */
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <thread>
#include <utility>

#include "support.h"
#include "zk_msg.h"
#include "zk_record.h"
#include "zk_record_image.h"
#include "zk_recorder.h"
#include "zk_walk.h"

/* ---- The system as a test wants it --------------------------------------------------------------------------------- */

/* What becomes of a write: so many of its bytes get through, and then it, or the next one, fails. */
struct fault_t {
  int at = 0;            /* which write of the incident, from 1 on; 0 for none */
  size_t bytes = 0;      /* those that get through; of a header, or a length word, all or none */
  int error = 0;         /* 0: the rest gets through by another write */
  bool for_good = false; /* no write succeeds from then on, as if the process had died */
};
static fault_t fault;
static int writes = 0;
static bool is_refused = false; /* a write has failed */
static std::function<void()> at_write = [] {};
static bool clock_stands = false;

ssize_t pwrite(int fildes, const void* bytes, size_t size, off_t position) {
  auto pass = [&](size_t count) { return lseek(fildes, position, SEEK_SET) == -1 ? -1 : write(fildes, bytes, count); };
  at_write();
  ++writes;
  if (fault.at == 0 || writes < fault.at) return pass(size);
  const bool is_one_piece = position < 24 || size == 4;
  const size_t count = is_one_piece && fault.bytes < size ? 0 : std::min(fault.bytes, size);
  if (writes == fault.at && count > 0) return pass(count);
  if (fault.error == 0 || (!fault.for_good && writes > fault.at + 1)) return pass(size);
  errno = fault.error;
  is_refused = true;
  return -1;
}

extern "C" int gettimeofday(timeval* time, void*) noexcept {
  timespec now = {1800000000, 0};
  if (!clock_stands) clock_gettime(CLOCK_REALTIME, &now);
  *time = {now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

/* ---- What the tests share ------------------------------------------------------------------------------------------ */

static std::string empty_stack(int32_t size = 8192) {
  const std::string path = new_file("") + "-stack";
  EXPECT_EQ(zk_create_stack(0, nullptr, path.c_str(), size), 0);
  return path;
}

/* Texts belong to the caller. */
static zk_incident_t incident_of(const char* message, const char* details = nullptr) {
  zk_incident_t incident = {};
  incident.process_name = "p";
  incident.default_message = message;
  incident.details = details;
  return incident;
}

/* Records by a recorder of its own. Returns the result, and the Error ID. */
static int record(const std::string& path, const zk_incident_t& incident, char* eid) {
  zk_recorder_t* recorder = nullptr;
  int result = zk_open_recorder(0, nullptr, path.c_str(), &recorder);
  if (result == 0) result = zk_record_incident(0, nullptr, recorder, &incident, eid);
  zk_close_recorder(recorder);
  return result;
}

/* Records an incident that is known by its number. */
static int record(const std::string& path, int number, const std::string& details = "") {
  zk_eid_t eid;
  return record(path, incident_of(std::to_string(number).c_str(), details.c_str()), eid);
}

/* Whether `recorded` ends with `run`. */
template <typename Run>
static bool ends_with(const Run& recorded, const Run& run) {
  return run.size() <= recorded.size() && std::equal(run.rbegin(), run.rend(), recorded.rbegin());
}

static void release(zk_stack_rec_t* element) {
  for (zk_stack_rec_t* next; element != nullptr; element = next) {
    next = element->next;
    release(element->related);
    free(element->record);
    free(element);
  }
}

/* What the views of a stack show; those by process and by relation must succeed too. */
struct shown_t {
  std::vector<int> numbers; /* of the incidents, oldest first */
  std::vector<off_t> offsets;
  std::vector<std::string> ids, records;
};

static shown_t shown(const std::string& path) {
  static char report[1 << 20];
  shown_t all;
  const int fildes = open(path.c_str(), O_RDWR);
  zk_buffer_report(report, sizeof report);
  for (int full : {0, 1}) EXPECT_EQ(zk_dump_stack(0, nullptr, 0, full, nullptr, 0, fildes, ZK_NO_CATALOG), 0);
  EXPECT_EQ(zk_dump_stack(0, nullptr, 0, 0, eid("none").c_str(), 1, fildes, ZK_NO_CATALOG), ZELK_INV_FID);
  zk_proc_list_t processes = {};
  zk_stack_rec_t* groups = nullptr;
  EXPECT_EQ(zk_read_stack(0, nullptr, 0, fildes, ZK_NO_CATALOG, &processes, nullptr), 0);
  EXPECT_EQ(zk_read_stack(0, nullptr, 1, fildes, ZK_NO_CATALOG, nullptr, &groups), 0);
  release(groups);
  for (zk_proc_list_t *process = processes.next, *next; process != nullptr; process = next) {
    next = process->next;
    release(process->records);
    free(process);
  }

  zk_walk_t walk;
  EXPECT_EQ(zk_walk_begin(&walk, {}, fildes), 0);
  while (zk_walk_next(&walk) == 0) {
    zk_record_t fields;
    EXPECT_EQ(zk_parse_record(walk.record.data(), &fields), 0);
    all.numbers.push_back(std::atoi(fields.incident.default_message));
    all.offsets.push_back(walk.record_position);
    all.ids.push_back(fields.eid);
    all.records.emplace_back(walk.record.data(), 4 + static_cast<size_t>(zk_record_length(walk.record.data())));
    if (zk_walk_at_write_pos(walk)) break;
  }
  zk_walk_end(walk);
  close(fildes);
  return all;
}

/* What orders Error IDs: their time. */
static std::pair<int64_t, int64_t> time_of(const std::string& id) {
  timeval time = {};
  EXPECT_EQ(zk_conv_base_64_time(0, nullptr, id.substr(7, 10).c_str(), &time), 0) << id;
  return {time.tv_sec, time.tv_usec};
}

static int32_t write_pos(const std::string& path) {
  int32_t position;
  std::memcpy(&position, contents(path).data() + 8, 4);
  return position;
}

/* ---- What is promised ---------------------------------------------------------------------------------------------- */

/* Lets the next incident, 5000, meet a fault in a copy of the stack. Returns false when there are not so many writes. */
static bool keeps_promise(const std::string& stack, std::vector<int> recorded, const std::string& details,
                          const fault_t& what) {
  static const std::string path = new_file("");
  std::ofstream(path) << stack;
  const zk_incident_t meets_it = incident_of("5000", details.c_str()), next = incident_of("6000", details.c_str());
  zk_recorder_t* recorder = nullptr;
  EXPECT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &recorder), 0);
  fault = what;
  writes = 0;
  is_refused = false;
  zk_eid_t made = "not made", later;
  const int result = zk_record_incident(0, nullptr, recorder, &meets_it, made);
  fault = {};
  if (what.for_good || writes < what.at) zk_close_recorder(std::exchange(recorder, nullptr)); /* its process has died */
  if (writes < what.at) return false;
  EXPECT_EQ(result, !is_refused || what.error == EINTR ? 0 : what.error == ENOSPC ? ZELK_NO_SPACE : ZELK_FAILURE);
  EXPECT_EQ(std::strlen(made), result == 0 ? 42U : 0U);

  std::ostringstream place;
  place << what.bytes << " bytes of write " << what.at << ", then error " << what.error;
  SCOPED_TRACE(place.str());
  std::vector<int> left = shown(path).numbers;
  if (result == 0 || (!left.empty() && left.back() == 5000)) recorded.push_back(5000);
  EXPECT_TRUE(ends_with(recorded, left) && left.empty() == recorded.empty());
  EXPECT_EQ(recorder == nullptr ? zk_open_recorder(0, nullptr, path.c_str(), &recorder) : 0, 0);
  EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &next, later), 0);
  zk_close_recorder(recorder);
  recorded.push_back(6000);
  left = shown(path).numbers;
  EXPECT_TRUE(ends_with(recorded, left) && !left.empty());
  return true;
}

TEST(recording, keeps_its_promise_at_every_write) {
  for (const std::string& details : {std::string(), std::string(2000, 'x')}) {
    const std::string path = empty_stack();
    std::vector<int> recorded;
    int32_t size = 0;
    for (int wraps = 0; wraps < 2;) {
      const bool is_wrap = size > 8192 - write_pos(path), is_second_of_lap = write_pos(path) == 24 + size;
      if (recorded.empty() || is_wrap || is_second_of_lap)
        for (const fault_t& each : {fault_t{0, 0, EIO, true},
                                    {0, 60, EIO, true},
                                    {0, 4000, EIO, true},
                                    {0, 60, 0, false},
                                    {0, 269, EIO, false},
                                    {0, 60, ENOSPC, false},
                                    {0, 60, EINTR, false}}) {
          fault_t what = each;
          for (what.at = 1; keeps_promise(contents(path), recorded, details, what);) ++what.at;
        }
      recorded.push_back(1000 + static_cast<int>(recorded.size()));
      ASSERT_EQ(record(path, recorded.back(), details), 0);
      if (size == 0) size = write_pos(path) - 24;
      wraps += is_wrap;
    }
  }
}

/* How many of the records that were shown are in the way of the new one, or older than such a record. */
static size_t must_go(const shown_t& before, off_t position, off_t end, off_t old_end) {
  for (size_t i = before.records.size(); i > 0; --i) {
    const off_t start = before.offsets[i - 1];
    const bool is_overwritten = start + static_cast<off_t>(before.records[i - 1].size()) > position && start < end;
    const bool is_too_near = start > end && start < end + 4;            /* there is no room for a length word of 0 */
    const bool is_left_behind = position < old_end && start >= old_end; /* at the end of the lap before the last */
    if (is_overwritten || is_too_near || is_left_behind) return i;
  }
  return 0;
}

/* Incidents of every size, often such that they end with the file or with an older record, or just before; by several
 * recorders in turn, some of which meet a fault. */
TEST(recording, goes_on_in_stacks_of_every_fill) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  auto below = [&](size_t limit) { return random() % limit; };
  for (int round = 0; round < 12; ++round) {
    /* A third of them have room for two records, just so, or some more. */
    const bool is_small = round % 3 == 0;
    const int32_t size = static_cast<int32_t>(8192 + below(8193));
    const int32_t start = is_small ? size - 1400 - static_cast<int32_t>(below(3000)) : 24;
    stack empty(size);
    empty.header = {start, start, start, size, 0};
    const std::string path = empty.file();
    std::vector<int> recorded;
    zk_recorder_t* recorders[2] = {};
    for (int number = 1000; number < 1100; ++number) {
      zk_recorder_t*& recorder = recorders[below(2)];
      const int opened = recorder == nullptr ? zk_open_recorder(0, nullptr, path.c_str(), &recorder) : 0;
      ASSERT_EQ(opened, 0);
      const std::string message =
          std::to_string(number) + std::string(!is_small && below(4) == 0 ? below(600) : below(20), 'm');
      const shown_t before = shown(path);
      const int32_t begin = write_pos(path);

      /* Without details the record has a fixed size, which tells how many lead to where it shall end. */
      std::string details(below(1200), 'd');
      zk_record_image_t image;
      ASSERT_EQ(zk_make_record_image(incident_of(message.c_str()), 1024, &image), 0);
      const bool is_for_older = !before.offsets.empty() && below(2) == 0;
      const off_t end = is_for_older ? before.offsets[below(std::min(before.offsets.size(), size_t{3}))] : size;
      const off_t wanted = end - static_cast<off_t>(below(6)) - begin - static_cast<off_t>(image.size);
      if (wanted >= 0 && wanted < 880) details = std::string(static_cast<size_t>(wanted), 'd');

      if (below(3) == 0) {
        const size_t bytes = 4 * below(275); /* no system leaves a word of four half written */
        const fault_t what = {static_cast<int>(1 + below(5)), bytes, below(4) == 0 ? 0 : EIO, below(2) == 0};
        keeps_promise(contents(path), recorded, details, what);
      }
      const zk_incident_t incident = incident_of(message.c_str(), details.c_str());
      zk_eid_t eid;
      ASSERT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), 0);
      recorded.push_back(number);

      const shown_t after = shown(path);
      const off_t position = after.offsets.back();
      ASSERT_TRUE(ends_with(recorded, after.numbers));
      ASSERT_EQ(after.ids.back(), eid);
      ASSERT_TRUE(std::ranges::is_sorted(after.ids, {}, time_of));
      const int32_t length = static_cast<int32_t>(after.records.back().size());
      ASSERT_LE(length, 1028);
      ASSERT_EQ(position, begin + length <= size ? begin : start);
      ASSERT_EQ(before.records.size() + 1 - after.records.size(), must_go(before, position, write_pos(path), begin));
      size_t kept = 0;
      for (const std::string& each : after.records) kept += each.size();
      const bool is_all = after.numbers.size() == recorded.size();
      ASSERT_TRUE(is_all || (is_small ? after.numbers.size() > 1 : kept >= static_cast<size_t>(size - start) / 2));
      if (below(10) == 0) zk_close_recorder(std::exchange(recorder, nullptr));
    }
    for (zk_recorder_t* recorder : recorders) zk_close_recorder(recorder);
  }
}

/* A record of 155 bytes in the middle of an area of 1192: a longest one has to fit on either side. */
TEST(recording, keeps_the_newest_incident_wherever_it_stands) {
  for (int place = 7500; place < 7540; ++place) {
    const std::string at = std::to_string(place),
                      path = new_file(
                          described_stack("records_start 7000\nwrite_pos " + at + "\nrecord A\nearliest_rec " + at));
    ASSERT_EQ(record(path, 1000, std::string(2000, 'd')), 0);
    ASSERT_EQ(shown(path).numbers, (std::vector{0, 1000})) << place;
  }
}

/* ---- Damage -------------------------------------------------------------------------------------------------------- */

/* Records have 155 bytes: A at 24, B at 179; what follows is free from 334 on. */
TEST(recorder, refuses_a_damaged_stack_and_says_why) {
  const struct {
    const char *stack, *reason;
    off_t offset;
  } rows[] = {{"bytes 0", "the file size is out of range", 16},
              {"bytes 8191", "the file size is out of range", 16},
              {"bytes 16385", "the file size is out of range", 16},
              {"word 0 8", "the stack version is not one for recording", 0},
              {"word 16 8191", "the file size is out of range", 16},
              {"word 16 16385", "the file size is out of range", 16},
              {"word 16 8193", "the file has another size", 16},
              {"bytes 8193", "the file has another size", 16},
              {"word 4 23", "the first record is out of range", 4},
              {"word 4 8193", "the first record is out of range", 4},
              {"word 8 23", "the recording position is out of range", 8},
              {"word 8 8193", "the recording position is out of range", 8},
              {"word 12 23", "the earliest record is out of range", 12},
              {"word 12 8193", "the earliest record is out of range", 12},
              {"has_wrapped 2", "the wrap indicator is neither 0 nor 1", 20},
              {"word 8 24,has_wrapped 1", "the lap begins without a record", 8},
              {"word 12 335", "the earliest record is behind the recording position", 12},
              {"word 24 -1", "the record's length is out of range", 24},
              {"word 24 2045", "the record's length is out of range", 24},
              {"word 8100 100,word 12 8100,has_wrapped 1", "the record is cut short", 8100},
              {"word 28 4", "the record's version is not supported", 24},
              {"word 183 4", "the record's version is not supported", 179},
              {"word 24 1119", "a text or an argument of the record is damaged", 24},
              {"record C  argument_count 9", "a text or an argument of the record is damaged", 334},
              {"word 8 333", "the records do not end at the recording position", 334},
              {"word 179 0", "the records do not end at the recording position", 179},
              /* In the older of two runs; in the newer one; at its end. */
              {"word 2000 -1,word 12 2000,has_wrapped 1", "the record's length is out of range", 2000},
              {"word 183 4,word 12 2000,has_wrapped 1", "the record's version is not supported", 179},
              {"word 179 0,word 12 2000,has_wrapped 1", "the records do not end at the recording position", 179},
              /* A reader would go back to the start at 112 and come to the recording position. */
              {"word 100 8,word 104 0,word 108 0,word 112 0,word 12 100,has_wrapped 1",
               "the records do not end at the recording position", 112}};
  for (const auto& row : rows) {
    const std::string bytes = described_stack(replaced(std::string("record A,record B,") + row.stack, ",", "\n"));
    const std::string path = new_file(bytes);
    const zk_incident_t incident = incident_of("new");
    zk_recorder_t* recorder = nullptr;
    zk_damage_t damage = {};
    zk_eid_t eid;
    int result = zk_open_recorder_or_say({}, path.c_str(), &recorder, &damage);
    for (int attempts = recorder != nullptr ? 2 : 0; attempts > 0;
         --attempts) { /* damage does not go by asking again */
      result = zk_record_incident(0, nullptr, recorder, &incident, eid);
      damage = zk_recorder_damage(recorder);
    }
    EXPECT_EQ(result, ZELK_FILE_CORRUPT) << row.stack;
    EXPECT_STREQ(damage.reason, row.reason) << row.stack;
    EXPECT_EQ(damage.offset, row.offset) << row.stack;
    EXPECT_TRUE(contents(path) == bytes) << row.stack;
    zk_close_recorder(recorder);
  }
}

TEST(recorder, sees_damage_that_comes_while_it_is_open) {
  const std::string path = empty_stack();
  const zk_incident_t incident = incident_of("1000");
  zk_recorder_t* recorder = nullptr;
  zk_eid_t eid;
  ASSERT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &recorder), 0);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), 0);
  const std::string good = contents(path);
  for (const off_t offset : {0, 24 + 4, 24 + 120}) { /* the versions of the stack and of its first record; a text */
    const int fildes = open(path.c_str(), O_RDWR);
    ASSERT_EQ(write(fildes, good.substr(0, static_cast<size_t>(offset)).data(), static_cast<size_t>(offset)), offset);
    ASSERT_EQ(write(fildes, "\1\1\1\1", 4), 4);
    EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), offset <= 28 ? ZELK_FILE_CORRUPT : 0);
    close(fildes);
    std::ofstream(path) << good;
  }
  for (const off_t size : {8191, 8193}) {
    EXPECT_EQ(truncate(path.c_str(), size), 0);
    EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), ZELK_FILE_CORRUPT);
    EXPECT_STREQ(zk_recorder_damage(recorder).reason, "the file has another size");
    std::ofstream(path) << good;
  }
  EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), 0);
  EXPECT_EQ(shown(path).numbers.size(), 4U);
  zk_close_recorder(recorder);
}

/* Eight records of this size fill a stack: behind a whole lap of another recorder the header is as it was. */
TEST(recorder, sees_a_lap_of_another_recorder) {
  const std::string path = empty_stack(), details(881, 'x');
  const zk_incident_t incident = incident_of("1000", details.c_str());
  zk_recorder_t *one = nullptr, *other = nullptr;
  zk_eid_t eid;
  clock_stands = true;
  ASSERT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &one), 0);
  ASSERT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &other), 0);
  for (int i = 0; i < 9; ++i) EXPECT_EQ(zk_record_incident(0, nullptr, one, &incident, eid), 0);
  const std::string before = contents(path);
  for (int i = 0; i < 8; ++i) EXPECT_EQ(zk_record_incident(0, nullptr, other, &incident, eid), 0);
  EXPECT_TRUE(contents(path).substr(0, 24) == before.substr(0, 24));
  const std::string newest = eid;
  EXPECT_EQ(zk_record_incident(0, nullptr, one, &incident, eid), 0);
  EXPECT_LT(time_of(newest), time_of(eid));
  zk_close_recorder(one);
  zk_close_recorder(other);
  clock_stands = false;
}

/* ---- Many at once -------------------------------------------------------------------------------------------------- */

TEST(recorders, of_many_processes_and_threads_lose_and_mix_nothing) {
  const std::string path = empty_stack(16384), acknowledged = new_file("");
  const int log = open(acknowledged.c_str(), O_WRONLY | O_APPEND);
  auto record_many = [&](int number) {
    for (int i = 0; i < 40; ++i) {
      zk_eid_t eid;
      const std::string details(static_cast<size_t>(number * i % 500 + 1), 'x');
      if (record(path, incident_of("", details.c_str()), eid) != 0 || write(log, eid, 42) != 42) _exit(1);
    }
  };
  std::vector<pid_t> children;
  while (children.size() < 8) {
    children.push_back(fork());
    if (children.back() != 0) continue;
    std::thread other(record_many, 7);
    record_many(static_cast<int>(children.size()));
    other.join();
    _exit(0);
  }
  for (pid_t child : children) {
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) shown(path);
    EXPECT_EQ(status, 0);
  }
  std::vector<std::string> recorded;
  for (const std::string all = contents(acknowledged); recorded.size() < all.size() / 42;)
    recorded.push_back(all.substr(recorded.size() * 42, 42));
  std::ranges::sort(recorded, {}, time_of);
  EXPECT_EQ(recorded.size(), 640U);
  EXPECT_TRUE(std::ranges::adjacent_find(recorded, {}, time_of) == recorded.end());
  EXPECT_TRUE(ends_with(recorded, shown(path).ids));
}

TEST(lock, outlives_other_descriptors_and_forked_recorders) {
  const std::string path = empty_stack();
  const zk_incident_t incident = incident_of("1000");
  zk_recorder_t* recorder = nullptr;
  zk_eid_t eid;
  int times_held = 0;
  ASSERT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &recorder), 0);
  at_write = [&] {
    close(open(path.c_str(), O_RDWR));
    in_child([&] { zk_close_recorder(recorder); });
    const int other = open(path.c_str(), O_RDWR);
    times_held += lockf(other, F_TLOCK, 0) == -1;
    close(other);
  };
  EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), 0);
  at_write = [] {};
  EXPECT_EQ(times_held, 3); /* the record, its length, the header */
  in_child([&] { EXPECT_EQ(record(path, 1001), 0); });
  EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), 0);
  EXPECT_EQ(shown(path).numbers, (std::vector{1000, 1001, 1000}));
  zk_close_recorder(recorder);
}

TEST(lock, is_waited_for_whatever_signals_come) {
  static std::atomic<int> signals;
  const std::string path = empty_stack();
  struct sigaction action = {};
  action.sa_handler = [](int) { ++signals; };
  sigaction(SIGUSR1, &action, nullptr);
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  const int holder = open(path.c_str(), O_RDWR);
  ASSERT_EQ(fcntl(holder, F_OFD_SETLK, &whole), 0);
  std::thread waiting([&] { EXPECT_EQ(record(path, 1000), 0); });
  while (signals < 5) {
    pthread_kill(waiting.native_handle(), SIGUSR1);
    usleep(10000);
  }
  close(holder);
  waiting.join();
  EXPECT_EQ(shown(path).numbers, (std::vector{1000}));
}

TEST(lock, is_waited_for_where_another_recorder_may_be_at_the_header) {
  const std::string path = empty_stack(), good = contents(path);
  struct flock whole = {};
  whole.l_type = F_WRLCK;
  const int holder = open(path.c_str(), O_RDWR);
  ASSERT_EQ(fcntl(holder, F_OFD_SETLK, &whole), 0);
  ASSERT_EQ(pwrite(holder, "\0\0\0\0", 4, 8), 4); /* write_pos */
  zk_recorder_t* recorder = nullptr;
  std::thread waiting([&] { EXPECT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &recorder), 0); });
  usleep(50000);
  ASSERT_EQ(pwrite(holder, good.data(), 24, 0), 24);
  close(holder);
  waiting.join();
  EXPECT_EQ(record(path, 1000), 0); /* by another one, while the first is open */
  zk_close_recorder(recorder);
}

TEST(thread, has_its_number_recorded_and_can_be_cancelled_afterwards_only) {
  const std::string path = empty_stack();
  zk_incident_t unnamed = incident_of("1000");
  unnamed.process_name = nullptr;
  int id = 0, cancel_state = PTHREAD_CANCEL_DISABLE;
  std::thread([&] {
    zk_recorder_t* recorder = nullptr;
    zk_eid_t eid;
    pthread_cancel(pthread_self()); /* as soon as it can be */
    zk_open_recorder(0, nullptr, path.c_str(), &recorder);
    zk_record_incident(0, nullptr, recorder, &unnamed, eid);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    zk_close_recorder(recorder);
    id = gettid();
  }).join();
  EXPECT_EQ(cancel_state, PTHREAD_CANCEL_ENABLE);
  zk_record_t fields;
  const std::string recorded = shown(path).records.at(0) + '\0';
  EXPECT_EQ(zk_parse_record(recorded.data(), &fields), 0);
  EXPECT_EQ(fields.incident.thread_id, id);
  EXPECT_STREQ(fields.incident.process_name, "recorder_test");
  EXPECT_EQ(fields.incident.process_id, getpid());
  EXPECT_EQ(fields.incident.parent_id, getppid());
}

/* ---- What is recorded ---------------------------------------------------------------------------------------------- */

/* A body has 1024 bytes, of which the message and the details of this incident have 894. Characters have one to four of
 * them, and some bytes belong to none. */
TEST(details, are_cut_at_the_last_character_that_fits) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 2000; ++round) {
    const std::string message(random() % 2 == 0 ? 1 : 880 + random() % 15, 'm');
    const size_t room = 894 - message.size(), size = room + random() % 8;
    std::string details;
    size_t fits = 0; /* with "..." behind it */
    while (details.size() + 4 < size) {
      details += std::array{"a",          "\u0080",     "\u07ff", "\u0800", "\uffff",
                            "\U00010000", "\U0010ffff", "\x80",   "\xc1",   "\xf5"}[random() % 10];
      if (details.size() + 3 <= room) fits = details.size();
    }
    const std::string cut = room < 3 ? "" : details.substr(0, fits) + "...";
    zk_record_image_t image;
    zk_record_t fields;
    ASSERT_EQ(zk_make_record_image(incident_of(message.c_str(), details.c_str()), 1024, &image), 0);
    ASSERT_EQ(zk_parse_record(image.bytes.data(), &fields), 0);
    ASSERT_EQ(fields.incident.details, details.size() <= room ? details : cut);
  }
}

/* The texts of an incident's arguments as they are recorded, or what the result is. */
static std::vector<std::string> recorded_arguments(std::vector<std::string> texts, const std::string& message) {
  std::vector<cu_error_arg_t> arguments(texts.size());
  for (size_t i = 0; i < texts.size(); ++i) {
    arguments[i].cu_arg_type = CU_ERROR_ARG_CHAR_STR;
    arguments[i].cu_arg_value.cu_arg_char_str = texts[i].data();
  }
  zk_incident_t incident = incident_of(message.c_str(), "details");
  incident.arguments = arguments.data();
  incident.argument_count = static_cast<uint32_t>(arguments.size());
  zk_record_image_t image;
  const int result = zk_make_record_image(incident, 1024, &image);
  if (result != 0) return {std::to_string(result)};
  EXPECT_LE(image.size, 1028U);
  zk_record_t fields;
  EXPECT_EQ(zk_parse_record(image.bytes.data(), &fields), 0);
  zk_cursor_t cursor = fields.arguments;
  std::vector<std::string> kept;
  for (int32_t count = zk_read_int(&cursor); count > 0; --count) {
    cu_error_arg_t argument;
    EXPECT_TRUE(zk_read_argument(&cursor, &argument));
    kept.emplace_back(argument.cu_arg_value.cu_arg_char_str);
  }
  return kept;
}

/* Beside the message and the arguments, each with its kind and its end, there are 895 bytes. */
TEST(arguments, are_cut_from_the_longest_on) {
  const std::string a(1000, 'a'), b(400, 'b'), wide = "x" + replaced(std::string(300, 'e'), "e", "\u00e9");
  const std::string message(800, 'm');
  EXPECT_EQ(recorded_arguments({a.substr(0, 889)}, ""), std::vector{a.substr(0, 889)});
  EXPECT_EQ(recorded_arguments({a.substr(0, 890)}, ""), std::vector{a.substr(0, 886) + "..."});
  EXPECT_EQ(recorded_arguments({"abc", b, a}, ""), (std::vector<std::string>{"abc", b, a.substr(0, 473) + "..."}));
  EXPECT_EQ(recorded_arguments({b, "abc", b}, message),
            (std::vector<std::string>{b.substr(0, 70) + "...", "abc", "..."}));
  EXPECT_EQ(recorded_arguments({wide}, message), std::vector{wide.substr(0, 85) + "..."});
  EXPECT_EQ(recorded_arguments({b, b}, message.substr(0, 788) + std::string(90, 'n')),
            (std::vector<std::string>{"...", "..."}));
  EXPECT_EQ(recorded_arguments({b, b}, message.substr(0, 788) + std::string(91, 'n')), std::vector<std::string>{"-33"});
  EXPECT_EQ(recorded_arguments(std::vector<std::string>(200, "abc"), ""), std::vector<std::string>{"-33"});
  EXPECT_EQ(recorded_arguments(std::vector<std::string>(100000, ""), ""), std::vector<std::string>{"-33"});
}

TEST(integer, has_zeros_behind_it) {
  for (const cu_error_arg_type_t type : {CU_ERROR_ARG_INT, CU_ERROR_ARG_LONG}) {
    cu_error_arg_t argument = {};
    argument.cu_arg_type = type;
    argument.cu_arg_value.cu_arg_long_long = -1;
    zk_incident_t incident = incident_of("%d");
    incident.arguments = &argument;
    incident.argument_count = 1;
    zk_record_image_t image;
    EXPECT_EQ(zk_make_record_image(incident, 1024, &image), 0);
    const std::string value(image.bytes.data() + image.size - 9, 9); /* and the end of the details */
    EXPECT_EQ(value, std::string("\xff\xff\xff\xff\0\0\0\0\0", 9));
  }
}

TEST(recorder, is_no_standard_stream) {
  const std::string path = empty_stack();
  for (const int first : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
    in_child([&] {
      zk_recorder_t* recorder = nullptr;
      for (int stream = first; stream <= STDERR_FILENO; stream += 2) close(stream);
      EXPECT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &recorder), 0);
      for (int stream = first; stream <= STDERR_FILENO; stream += 2) EXPECT_EQ(fcntl(stream, F_GETFD), -1);
      zk_close_recorder(recorder);
    });
}

TEST(incident, may_be_the_cause_of_the_next_in_the_same_buffer) {
  const std::string path = empty_stack();
  zk_eid_t eid;
  EXPECT_EQ(record(path, incident_of("cause"), eid), 0);
  const std::string cause = eid;
  zk_incident_t effect = incident_of("effect");
  effect.associated_eid = eid;
  EXPECT_EQ(record(path, effect, eid), 0);
  EXPECT_NE(contents(path).find(text(eid) + text(cause)), std::string::npos);
}
