/* recorder_test.cpp - records into stacks of all kinds, with the disk refusing and the process dying at every write, and
 * looks at what the command shows of them. */
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
  const std::string path = new_file("");
  unlink(path.c_str());
  EXPECT_EQ(zk_create_stack(0, nullptr, path.c_str(), size), 0);
  return path;
}

static zk_incident_t incident_of(const char* message, const char* details = nullptr) {
  zk_incident_t incident = {};
  incident.process_name = "p";
  incident.default_message = message;
  incident.details = details;
  return incident;
}

/* Records by a recorder of its own; stores the Error ID. */
static int record(const std::string& path, const zk_incident_t& incident, std::string* id = nullptr) {
  zk_recorder_t* recorder = nullptr;
  zk_eid_t eid = "none";
  int result = zk_open_recorder(0, nullptr, path.c_str(), &recorder);
  if (result == 0) result = zk_record_incident(0, nullptr, recorder, &incident, eid);
  zk_close_recorder(recorder);
  if (id != nullptr) *id = eid;
  return result;
}

/* An incident that is known by its number. */
static int record(const std::string& path, int number, const std::string& details = "") {
  return record(path, incident_of(std::to_string(number).c_str(), details.c_str()));
}

/* The numbers that `zkview -d` shows, oldest first; the other views must succeed too. */
static std::vector<int> shown(const std::string& path) {
  std::vector<int> numbers;
  const outcome dump = run({program("zkview"), "-d", "-s", path});
  EXPECT_EQ(dump.status, 0) << dump;
  std::istringstream lines(dump.out);
  std::string line;
  std::getline(lines, line); /* the heading */
  while (std::getline(lines, line)) numbers.push_back(std::stoi(line.substr(30)));
  EXPECT_EQ(run({program("zkview"), "-p", "-s", path}).status, 0);
  EXPECT_EQ(run({program("zkview"), "-r", "-s", path}).status, numbers.empty() ? 99 : 0);
  return numbers;
}

/* The Error IDs of a full report. */
static std::vector<std::string> ids_in(const std::string& report) {
  const std::string label = "ZELK Error Identifier:\n\t ";
  std::vector<std::string> ids;
  for (size_t at = 0; (at = report.find(label, at)) != report.npos; ++at)
    if (at == 0 || report[at - 1] == '\n') ids.push_back(report.substr(at + label.size(), 42));
  return ids;
}
static std::vector<std::string> ids_shown(const std::string& path) {
  const outcome report = run({program("zkview"), "-da", "-s", path});
  EXPECT_EQ(report.status, 0) << report;
  return ids_in(report.out);
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
    for (int laps = 0; laps <= 3;) {
      const int32_t before = write_pos(path);
      const bool is_next_to_wrap = size > 8192 - before, is_at_a_lap_start = before <= 24 + size;
      if (is_next_to_wrap || is_at_a_lap_start)
        for (fault_t what : {KILLED_BEFORE, KILLED_WITHIN, KILLED_AFTER, SHORT_WRITE, INPUT_OUTPUT_ERROR, NO_SPACE})
          for (int at = 1; keeps_promise(contents(path), recorded, details, what, at);) ++at;
      recorded.push_back(1000 + static_cast<int>(recorded.size()));
      ASSERT_EQ(record(path, recorded.back(), details), 0);
      if (size == 0) size = write_pos(path) - 24;
      laps += is_next_to_wrap;
    }
    EXPECT_GE(std::ssize(shown(path)) * size, (8192 - 24) / 2);
  }
}

TEST(stack, never_keeps_less_than_half_of_its_area) {
  const std::string path = empty_stack();
  unsigned int chance = 1;
  for (int number = 1000; number < 1300; ++number) {
    chance = chance * 1103515245 + 12345;
    ASSERT_EQ(record(path, number, std::string(chance >> 16 & 1023, 'x')), 0);
    const std::string report = run({program("zkview"), "-da", "-s", path}).out;
    const auto details = std::count(report.begin(), report.end(), 'x'), records = std::ssize(ids_in(report));
    const int least = number < 1050 ? 0 : (8192 - 24) / 2; /* it has been filled by then */
    ASSERT_GE(138 * records + details, least) << number;
  }
}

/* ---- Many at once -------------------------------------------------------------------------------------------------- */

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
      std::string id;
      const std::string details(static_cast<size_t>(number * i % 500), 'x');
      record(path, incident_of("", details.c_str()), &id);
      if (write(log, id.c_str(), 42) != 42) _exit(1);
    }
  };
  std::vector<pid_t> children;
  for (int number = 0; number < 8; ++number) {
    children.push_back(fork());
    if (children.back() != 0) continue;
    std::thread other(record_many, number);
    record_many(number + 8);
    other.join();
    _exit(0);
  }
  for (pid_t child : children) {
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) ids_shown(path);
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
  zk_recorder_t* recorder = nullptr;
  ASSERT_EQ(zk_open_recorder(0, nullptr, path.c_str(), &recorder), 0);
  int times_held = 0;
  at_write = [&] {
    close(open(path.c_str(), O_RDWR));
    in_child([&] { zk_close_recorder(recorder); });
    const int other = open(path.c_str(), O_RDWR);
    times_held += lockf(other, F_TLOCK, 0) == -1;
    close(other);
  };
  const zk_incident_t incident = incident_of("1000");
  zk_eid_t eid;
  EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), 0);
  at_write = [] {};
  EXPECT_EQ(times_held, 3); /* the record, its length, the header */
  in_child([&] {
    zk_close_recorder(recorder);
    EXPECT_EQ(record(path, 1001), 0);
  });
  EXPECT_EQ(zk_record_incident(0, nullptr, recorder, &incident, eid), 0);
  EXPECT_EQ(shown(path), (std::vector{1000, 1001, 1000}));
  zk_close_recorder(recorder);
}

/* ---- Stacks of others ---------------------------------------------------------------------------------------------- */

/* A stack of 8192 bytes by its header, and what is at an offset. */
static std::string made(zk_estack_v1_header_t header, size_t offset, const std::string& records) {
  std::string stack = image(0) + image(header);
  stack.resize(8192);
  return stack.replace(offset, records.size(), records);
}

/* Records of zeros are readable, whatever their length. */
static std::string zeros(int32_t length) {
  return image(length) + std::string(static_cast<size_t>(length), '\0');
}

TEST(recorder, goes_on_with_sound_stacks_of_others) {
  struct row_t {
    int32_t start, write_pos, earliest;
    uint8_t has_wrapped;
    size_t offset;
    std::string records;
    int lines;
  };
  std::vector<row_t> rows = {
      {24, 24, 24, 0, 24, "", 1},                                       /* empty */
      {24, 500, 500, 0, 500, "", 1},                                    /* empty, and not at its start */
      {8000, 8000, 8000, 0, 8000, "", 0},                               /* too small for a record */
      {7900, 7900, 7900, 0, 7900, "", 1},                               /* room for one or two */
      {24, 24, 24, 0, 24, zeros(100) + zeros(100), 3},                  /* the header does not tell of them */
      {24, 128, 128, 1, 24, zeros(100) + zeros(200) + zeros(7854), 0},  /* longer than any record is */
      {24, 128, 128, 1, 24, zeros(100) + zeros(1118) + zeros(1000), 3}, /* full, to the last byte */
      {24, 128, 8190, 1, 24, zeros(100), 2},                            /* the older run is used up */
      {24, 128, 2000, 1, 24, zeros(100) + image(-1) + zeros(3), 2},     /* what nobody reads may be anything */
      {6000, 7000, 6104, 1, 6000, zeros(100) + zeros(892), 2},          /* one run, after a lap */
  };
  for (int32_t length : {1, 4, 46, 94, 95, 1024, 1025, 1118}) {
    const std::string three = zeros(length) + zeros(length) + zeros(length);
    rows.push_back({40, 40 + static_cast<int32_t>(three.size()), 40, 0, 40, three, 4});
  }
  for (const row_t& row : rows) {
    const std::string path =
        new_file(made({row.start, row.write_pos, row.earliest, 8192, row.has_wrapped}, row.offset, row.records));
    const bool is_expected = row.lines > 0;
    EXPECT_EQ(record(path, 1000) == 0, is_expected) << row.start << " " << row.write_pos << " " << row.records.size();
    if (!is_expected) continue;
    const outcome report = run({program("zkview"), "-d", "-s", path});
    EXPECT_EQ(report.status, 0);
    EXPECT_EQ(std::count(report.out.begin(), report.out.end(), '\n'), 1 + row.lines) << report;
    EXPECT_TRUE(report.out.ends_with(" 1000\n")) << report;
  }
}
