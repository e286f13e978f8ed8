/* SPDX-License-Identifier: MIT */
/* recorder_test.cpp - records into stacks of all kinds, with the disk refusing and the process dying at every write, and
 * looks at what the command shows of them. Stacks of others stand in golden/library/recorder.calls. */
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <functional>
#include <sstream>
#include <thread>

#include "qx_record.h"
#include "support.h"

/* ---- What the tests share ------------------------------------------------------------------------------------------ */

enum fault_t { KILLED_BEFORE, KILLED_WITHIN, KILLED_AFTER, SHORT_WRITE, INPUT_OUTPUT_ERROR, NO_SPACE };
static constexpr int KILLED = 9;

/* The library's writes come through here; the one at which the count gets to 0 meets the fault. */
static int writes_until_fault = 0;
static fault_t fault;
static std::function<void()> at_write = [] {};

ssize_t pwrite(int fildes, const void* bytes, size_t size, off_t position) {
  auto pass = [&](size_t count) { return lseek(fildes, position, SEEK_SET) == -1 ? -1 : write(fildes, bytes, count); };
  const bool is_one_piece = position < 24 || size == 4; /* the header; a length word */
  at_write();
  if (--writes_until_fault != 0) return pass(size);
  if (fault == SHORT_WRITE) return pass(size / 2);
  if ((fault == KILLED_WITHIN || fault == NO_SPACE) && !is_one_piece) pass(size / 2);
  if (fault == KILLED_AFTER) pass(size);
  if (fault <= KILLED_AFTER) _exit(KILLED);
  errno = fault == NO_SPACE ? ENOSPC : EIO;
  return -1;
}

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

/* The numbers that `zkview -d` shows, oldest first; the other views must succeed too. */
static std::vector<int> shown(const std::string& path) {
  const outcome dump = run({program("zkview"), "-d", "-s", path});
  std::istringstream lines(dump.out);
  std::string line;
  std::vector<int> numbers;
  std::getline(lines, line); /* the heading */
  while (std::getline(lines, line)) numbers.push_back(std::stoi(line.substr(30)));
  EXPECT_EQ(dump.status, 0) << dump;
  EXPECT_EQ(run({program("zkview"), "-p", "-s", path}).status, 0);
  EXPECT_EQ(run({program("zkview"), "-r", "-s", path}).status, numbers.empty() ? 99 : 0);
  return numbers;
}

/* Whether `recorded` ends with `run`. */
template <typename Run>
bool ends_with(const Run& recorded, const Run& run) {
  return run.size() <= recorded.size() && std::equal(run.rbegin(), run.rend(), recorded.rbegin());
}

static int32_t write_pos(const std::string& path) {
  int32_t position;
  std::memcpy(&position, contents(path).data() + 8, 4);
  return position;
}

/* ---- What is promised ---------------------------------------------------------------------------------------------- */

/* Lets a write of the next incident, 5000, meet the fault. Returns false when there are not so many writes. */
static bool keeps_promise(const std::string& stack, std::vector<int> recorded, const std::string& details, fault_t what,
                          int at) {
  static constexpr int ENDS[] = {KILLED, KILLED, KILLED, 0, 1, 18}, NO_SUCH_WRITE = 100;
  const std::string path = new_file(stack);
  const pid_t child = fork();
  if (child == 0) {
    fault = what;
    writes_until_fault = at;
    const int result = record(path, 5000, details);
    _exit(writes_until_fault > 0 ? NO_SUCH_WRITE : -result);
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WEXITSTATUS(status) == NO_SUCH_WRITE) return false;
  EXPECT_EQ(WEXITSTATUS(status), ENDS[what]);

  const std::vector<int> left = shown(path);
  if (what == SHORT_WRITE || (!left.empty() && left.back() == 5000)) recorded.push_back(5000);
  EXPECT_TRUE(ends_with(recorded, left) && left.empty() == recorded.empty()) << what << " at write " << at;
  EXPECT_EQ(record(path, 6000, details), 0);
  recorded.push_back(6000);
  const std::vector<int> later = shown(path);
  EXPECT_TRUE(ends_with(recorded, later) && !later.empty()) << what << " at write " << at;
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
        for (fault_t what : {KILLED_BEFORE, KILLED_WITHIN, KILLED_AFTER, SHORT_WRITE, INPUT_OUTPUT_ERROR, NO_SPACE})
          for (int at = 1; keeps_promise(contents(path), recorded, details, what, at);) ++at;
      recorded.push_back(1000 + static_cast<int>(recorded.size()));
      ASSERT_EQ(record(path, recorded.back(), details), 0);
      if (size == 0) size = write_pos(path) - 24;
      wraps += is_wrap;
    }
  }
}

TEST(stack, never_keeps_less_than_half_of_its_area) {
  const std::string path = empty_stack();
  std::vector<size_t> details;
  for (unsigned int chance = 1; details.size() < 120; chance = chance * 1103515245 + 12345) {
    const int number = 1000 + static_cast<int>(details.size());
    details.push_back(std::min((chance >> 16) % 1500, 886U));
    ASSERT_EQ(record(path, number, std::string(details.back(), 'x')), 0);
    size_t kept = 0;
    for (int each : shown(path)) kept += 138 + details[static_cast<size_t>(each - 1000)];
    ASSERT_TRUE(details.size() < 60 || kept >= (8192 - 24) / 2) << number; /* by the sixtieth it has been filled */
  }
}

/* ---- Many at once -------------------------------------------------------------------------------------------------- */

/* The Error IDs of a full report of whole records. */
static std::vector<std::string> ids_shown(const std::string& path, const std::string& view = "-d") {
  const outcome report = run({program("zkview"), view, "-a", "-s", path});
  const std::string label = "ZELK Error Identifier:\n\t 7";
  std::vector<std::string> ids;
  EXPECT_EQ(report.status, 0) << report;
  for (size_t at = 0, end; (at = report.out.find(label, at)) != report.out.npos; at = end) {
    ids.push_back(report.out.substr(at + label.size() - 1, 42));
    end = report.out.find(SEPARATOR, at);
    const size_t details = report.out.find("\n\nDetails:\nx", at);
    if (report.out.find_first_not_of('x', details + 11) == end - 1) continue;
    ADD_FAILURE() << report.out.substr(at, end - at);
    break;
  }
  return ids;
}

/* What orders Error IDs: their time. */
static std::pair<int64_t, int64_t> time_of(const std::string& id) {
  timeval time = {};
  EXPECT_EQ(zk_conv_base_64_time(0, nullptr, id.substr(7, 10).c_str(), &time), 0) << id;
  return {time.tv_sec, time.tv_usec};
}

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
    while (waitpid(child, &status, WNOHANG) == 0)
      for (const char* view : {"-d", "-p"}) ids_shown(path, view);
    EXPECT_EQ(status, 0);
  }
  std::vector<std::string> recorded;
  for (const std::string all = contents(acknowledged); recorded.size() < all.size() / 42;)
    recorded.push_back(all.substr(recorded.size() * 42, 42));
  std::ranges::sort(recorded, {}, time_of);
  EXPECT_EQ(recorded.size(), 640U);
  EXPECT_TRUE(std::ranges::adjacent_find(recorded, {}, time_of) == recorded.end());
  EXPECT_TRUE(ends_with(recorded, ids_shown(path)));
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
  EXPECT_EQ(shown(path), (std::vector{1000, 1001, 1000}));
  zk_close_recorder(recorder);
}

/* ---- What is recorded ---------------------------------------------------------------------------------------------- */

TEST(details, are_cut_to_a_body_of_1024_bytes) {
  const std::string a(2000, 'a'), stray(2000, '\x80');
  std::string wide, smileys; /* characters of two and of four bytes */
  for (int i = 0; i < 500; ++i) wide += "\u00e9", smileys += "\U0001f600";
  const struct {
    size_t message; /* characters; the details, with their end, have 895 less that */
    std::string details, kept;
  } rows[] = {{1, a.substr(0, 893), a.substr(0, 893)},
              {1, a.substr(0, 894), a.substr(0, 890) + "..."},
              {2, wide, wide.substr(0, 888) + "..."},
              {0, smileys, smileys.substr(0, 888) + "..."},
              {1, stray, stray.substr(0, 890) + "..."},
              {891, "abc", "abc"},
              {891, "abcd", "..."},
              {892, "abc", ""},
              {894, "abc", ""}};
  for (const auto& row : rows) {
    const std::string path = empty_stack(), message(row.message, 'm');
    zk_eid_t eid;
    EXPECT_EQ(record(path, incident_of(message.c_str(), row.details.c_str()), eid), 0);
    const size_t end = static_cast<size_t>(write_pos(path)), start = 157 + row.message;
    EXPECT_EQ(contents(path).substr(start, end - start), text(row.kept));
  }
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

TEST(eid, has_the_time_at_which_it_is_recorded) {
  const std::string path = empty_stack();
  zk_eid_t eid;
  for (int i = 0; i < 3; ++i) {
    timeval before = {}, after = {};
    gettimeofday(&before, nullptr);
    EXPECT_EQ(record(path, incident_of("later"), eid), 0);
    gettimeofday(&after, nullptr);
    EXPECT_LE(std::pair(before.tv_sec, before.tv_usec), time_of(eid));
    EXPECT_LE(time_of(eid), std::pair(after.tv_sec, after.tv_usec + 1));
    usleep(3000);
  }
}

TEST(incident, is_shown_with_all_its_fields) {
  const std::string path = empty_stack();
  const zk_incident_t incident = {"proc", 101, 102, 103,    "a.c",   "1.1", "prod", 12,
                                  "",     1,   2,   "text", nullptr, 0,     "more", ""};
  zk_eid_t eid;
  EXPECT_EQ(record(path, incident, eid), 0);
  const outcome report = run({program("zkview"), "-a", "-s", path});
  for (const char* field :
       {"Process Name: proc\n", "Process Identifier: 101\n", "Parent Process Identifier: 102\n",
        "Process Thread Identifier: 103\n", "File Name: a.c\n", "File Version Code: 1.1\n", "Product: prod\n",
        "Location Within the File: 12\n", "Description:\ntext\n", "Details:\nmore\n"})
    EXPECT_NE(report.out.find(field), std::string::npos) << field << report;
}
