/* concurrency_test.cpp - many at once: programs that record, reports, readers that do not read, trace files. */
#include <fcntl.h>
#include <regex.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>
#include <sstream>

#include "support.h"

namespace {

/* Starts `work` in a child process and returns that; its result is what ended() gives for it. */
pid_t started(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) _exit(work());
  return child;
}
int ended(pid_t child) {
  int status = -1;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

int record(const std::string& path, std::vector<std::string> options = {}) {
  options.insert(options.begin(), program("record_incidents"));
  options.push_back(path);
  return run(options, {{"ZELKADDR", "/...z/..................."}}).status;
}

constexpr char RECORD[] =
    "^ZELK Error Identifier:\n\t (.{42}|unknown)\nAssociated ZELK Error Identifier:\n\t (.{42})?\n\n"
    "Recording Process Information:\n\t Timestamp: [^\n]+ UTC\n\t Process Name: stn_[a-z]+\n"
    "(\t [A-Z][A-Za-z ]+ Identifier: [0-9]+\n){3}\n"
    "Detecting File Information:\n\t File Name: [/a-z_.]+\n\t File Version Code: [0-9.]+\n"
    "\t Licensed Programming Product: stn.node\n\t Location Within the File: [0-9]+\n\n"
    "Description:\n[A-Z][^\n]+[.]\n\nDetails:\n[^\n]+\n([^\n]*\n)*$";

/* Error IDs of a full report, in its order; every record must be whole. */
std::vector<std::string> ids_of(const std::string& report) {
  std::vector<std::string> ids;
  regex_t whole;
  EXPECT_EQ(regcomp(&whole, RECORD, REG_EXTENDED), 0);
  for (size_t at = 0, end; (end = report.find(SEPARATOR, at)) != report.npos; at = end + SEPARATOR.size()) {
    regmatch_t parts[2] = {};
    const std::string record = report.substr(at, end - at);
    EXPECT_EQ(regexec(&whole, record.c_str(), 2, parts, 0), 0) << record;
    const size_t length = static_cast<size_t>(parts[1].rm_eo - parts[1].rm_so);
    if (length == ZELK_EID_LENGTH) ids.push_back(record.substr(static_cast<size_t>(parts[1].rm_so), length));
  }
  regfree(&whole);
  EXPECT_TRUE(report.ends_with(SEPARATOR));
  return ids;
}

/* Whether the time stamp of an Error ID is not below that of another one. */
bool is_later(const std::string& one, const std::string& other) {
  timeval first = {}, second = {};
  zk_conv_base_64_time(0, nullptr, one.substr(7).c_str(), &first);
  zk_conv_base_64_time(0, nullptr, other.substr(7).c_str(), &second);
  return !timercmp(&first, &second, <);
}

TEST(reports, are_snapshots_of_whole_records) {
  NEEDS_PRIVATE_VAR();
  const std::string path = scratch() + "/recorded";
  ASSERT_EQ(record(path, {"-z", "16384"}), 0);
  const pid_t recorders = started([&] { return record(path, {"-j", "4", "-n", "10000"}); });
  int status = 0;
  for (bool goes_on = true; goes_on;) {
    goes_on = waitpid(recorders, &status, WNOHANG) == 0;
    for (const std::string view : {"-d", "-r", "-p"}) {
      const outcome result = zkview({view, "-a", "-s", path});
      ASSERT_TRUE(result.status == 0 && result.err.empty()) << result;
      const std::vector<std::string> ids = ids_of(result.out);
      EXPECT_GT(ids.size(), 10U);
      EXPECT_EQ(std::set(ids.begin(), ids.end()).size(), ids.size());
      EXPECT_TRUE(view != "-d" || std::adjacent_find(ids.begin(), ids.end(), is_later) == ids.end()) << result.out;
    }
  }
  EXPECT_EQ(status, 0);
}

TEST(report, that_nobody_reads_keeps_no_lock) {
  NEEDS_PRIVATE_VAR();
  if (*EMULATOR != '\0') GTEST_SKIP() << "a shell of this host starts the command";
  constexpr int PIPE_SIZE = 4096, OUT = 9;
  const std::string path = scratch() + "/unread";
  ASSERT_EQ(record(path, {"-z", "16384", "-n", "50"}), 0);
  for (const std::string view : {"-d", "-r", "-p"}) {
    const outcome wanted = zkview({view, "-a", "-s", path});
    int ends[2], waiting = 0;
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, PIPE_SIZE), PIPE_SIZE);
    const pid_t reporter = started([&] {
      dup2(ends[1], OUT);
      return run({"/bin/sh", "-c", "exec " + program("zkview") + " " + view + " -a -s " + path + " >&9"}).status;
    });
    close(ends[1]);
    for (int tries = 0; tries < 1000 && waiting < PIPE_SIZE; ++tries, usleep(10000)) ioctl(ends[0], FIONREAD, &waiting);
    EXPECT_EQ(waiting, PIPE_SIZE) << "the report fits into the pipe";

    const int stack = open(path.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_EQ(lockf(stack, F_TLOCK, 0), 0) << view;
    close(stack);
    EXPECT_EQ(record(path), 0);

    std::string read_late;
    char part[PIPE_SIZE];
    for (ssize_t count; (count = read(ends[0], part, sizeof part)) > 0;)
      read_late.append(part, static_cast<size_t>(count));
    close(ends[0]);
    EXPECT_EQ(read_late, wanted.out);
    EXPECT_EQ(ended(reporter), 0);
  }
}

TEST(report, waits_for_the_lock_and_reads_what_is_there_then) {
  for (const std::string view : {"-d", "-r", "-p"}) {
    stack s;
    const std::string path = s.add("one").file();
    const int fildes = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(lockf(fildes, F_LOCK, 0), 0);
    const pid_t reporter = started([&] {
      return zkview({view, "-s", path}) == outcome{HEADING + line("one") + line("two"), "", 0} ? 0 : 1;
    });
    usleep(200000);
    EXPECT_EQ(waitpid(reporter, nullptr, WNOHANG), 0) << view;
    const std::string bytes = s.add("two").bytes();
    EXPECT_EQ(pwrite(fildes, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    EXPECT_EQ(lockf(fildes, F_ULOCK, 0), 0);
    EXPECT_EQ(ended(reporter), 0) << view;
    close(fildes);
  }
}

/* Routines of the entries in a trace file, by process. */
std::map<std::string, std::string> routines_of(const std::string& trace) {
  const std::string key = "\tZELK Routine: ";
  std::map<std::string, std::string> routines;
  for (size_t at = trace.find(key); at != trace.npos; at = trace.find(key, at + 1)) {
    std::istringstream entry(trace.substr(at + key.size(), 100));
    std::string routine, called, by, pid, process;
    entry >> routine >> called >> by >> pid >> process;
    routines[process] += routine + "\n";
  }
  return routines;
}

TEST(trace_file, is_made_by_one_of_many_and_loses_nothing_then) {
  stack s;
  const std::string path = s.add("one").file(), trace = scratch() + "/trace";
  const std::vector<std::string> arguments = {"-d", "-s", path};
  const outcome wanted = zkview(arguments, {{"ZELKDEBUG", trace}});
  const std::string all = routines_of(contents(trace)).begin()->second;
  for (int round = 0; round < 20; ++round) {
    unlink(trace.c_str());
    std::vector<pid_t> reporters;
    for (int i = 0; i < 6; ++i)
      reporters.push_back(started([&] { return zkview(arguments, {{"ZELKDEBUG", trace}}) == wanted ? 0 : 1; }));
    for (pid_t reporter : reporters) EXPECT_EQ(ended(reporter), 0);

    const std::string bytes = contents(trace);
    EXPECT_EQ(bytes.size(), 16384U);
    EXPECT_TRUE(bytes.starts_with("ZKTFO=" + std::to_string(bytes.find("[END OF FINAL ENTRY]\n")) + " "));
    bool has_maker = false;
    for (const auto& [process, routines] : routines_of(bytes)) {
      EXPECT_TRUE(all.ends_with(routines)) << process << "\n" << routines; /* from when the file was there */
      has_maker = has_maker || routines == all;
    }
    EXPECT_TRUE(has_maker);
  }
}

}  // namespace
