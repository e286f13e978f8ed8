/* SPDX-License-Identifier: MIT */
/* concurrency_test.cpp - many at once: programs that record, reports, readers that do not read, shared logs and traces. */
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <set>

#include "support.h"

namespace {

/* Starts a report. */
FILE* started(const std::string& view, const std::string& path, const std::string& more = "") {
  const std::string surroundings = "exec env -i TZ=UTC ASAN_OPTIONS=detect_leaks=0 " + more + " " EMULATOR " ";
  return popen((surroundings + program("zkview") + " " + view + " -s " + path).c_str(), "r");
}
/* All that it prints; it must succeed. */
std::string ended(FILE* reporter) {
  const std::string out = contents("/dev/fd/" + std::to_string(fileno(reporter)));
  EXPECT_EQ(pclose(reporter), 0);
  return out;
}
int waiting_bytes(FILE* reporter) {
  int bytes = -1;
  ioctl(fileno(reporter), FIONREAD, &bytes);
  return bytes;
}

/* Every record of a full report must be whole, and be there once. */
void check_records(const std::string& report) {
  const std::string parts[] = {"ZELK Error Identifier:\n\t ",
                               "\nAssociated ZELK Error Identifier:\n\t ",
                               "\n\t Process Name: stn_",
                               "\n\t Licensed Programming Product: stn.node\n",
                               ".\n\nDetails:\n",
                               SEPARATOR};
  std::set<std::string> ids;
  for (size_t at = 0; at < report.size();) {
    const std::string rest = report.substr(at), id = rest.substr(parts[0].size(), 42);
    EXPECT_TRUE(rest.starts_with(parts[0])) << rest;
    EXPECT_TRUE(ids.insert(id).second || id.starts_with("unknown\n")) << rest;
    const size_t end = report.find(SEPARATOR, at);
    for (const std::string& part : parts) ASSERT_LE(at = report.find(part, at), end) << part << " in " << rest;
    ASSERT_NE(end, report.npos) << rest;
    at += SEPARATOR.size();
  }
  EXPECT_GT(ids.size(), 10U);
}

TEST(reports, are_snapshots_of_whole_records) {
  NEEDS_PRIVATE_VAR();
  const std::string path = scratch() + "/recorded", recorder = program("record_incidents");
  const environment address = {{"ZELKADDR", "/...z/..................."}};
  ASSERT_EQ(run({recorder, "-z", "16384", path}, address).status, 0);
  const pid_t recorders = fork();
  if (recorders == 0) _exit(run({recorder, "-j", "4", "-n", "10000", path}, address).status);
  int status = -1;
  while (waitpid(recorders, &status, WNOHANG) == 0)
    for (const std::string view : {"-d", "-r", "-p"}) {
      const outcome result = run({program("zkview"), view, "-a", "-s", path});
      ASSERT_TRUE(result.status == 0 && result.err.empty()) << result;
      check_records(result.out);
    }
  EXPECT_EQ(status, 0);
}

/* ---- Locks --------------------------------------------------------------------------------------------------- */

TEST(report, waits_for_a_lock_and_shows_what_it_finds_then) {
  stack early, late;
  const std::string path = early.add("early").file();
  const int fildes = open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(lockf(fildes, F_LOCK, 0), 0);
  FILE* reporter = started("-d", path);
  usleep(100000);
  EXPECT_EQ(waiting_bytes(reporter), 0);
  EXPECT_EQ(pwrite(fildes, late.add("late").bytes().data(), 8192, 0), 8192);
  EXPECT_EQ(lockf(fildes, F_ULOCK, 0), 0);
  EXPECT_EQ(ended(reporter), lines("late"));
  close(fildes);
}

/* Called with a descriptor that stands elsewhere, a walk waits for what is locked in front of it and behind. */
TEST(walk, locks_the_whole_stack_wherever_the_descriptor_stands) {
  NEEDS_NATIVE();
  const nl_catd none = reinterpret_cast<nl_catd>(-1);
  const std::string path = stack().add("A").file();
  for (const off_t locked : {0, 8191})
    for (const int order : {-1, 0, 1}) {
      const int fildes = open(path.c_str(), O_RDWR | O_CLOEXEC);
      lseek(fildes, locked, SEEK_SET);
      ASSERT_EQ(lockf(fildes, F_LOCK, 1), 0);
      const pid_t child = fork();
      if (child == 0) {
        const int own = open(path.c_str(), O_RDWR);
        zk_proc_list_t head = {};
        zk_stack_rec_t* table = nullptr;
        lseek(own, 100, SEEK_SET);
        if (order == -1) zk_dump_stack(0, nullptr, 0, 0, "nothing", 0, own, none);
        if (order != -1) zk_read_stack(0, nullptr, order, own, none, &head, &table);
        _exit(0);
      }
      usleep(50000);
      EXPECT_EQ(waitpid(child, nullptr, WNOHANG), 0) << order;
      close(fildes);
      EXPECT_EQ(waitpid(child, nullptr, 0), child);
    }
}

TEST(report, keeps_no_lock_while_nobody_reads) {
  constexpr int PIPE_SIZE = 4096;
  stack s(16384);
  for (int i = 0; i < 50; ++i) s.add("long");
  for (const std::string option : {"-da", "-ra", "-pa"}) {
    const std::string path = s.file(), wanted = view(s, {option}).out;
    const int fildes = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(lockf(fildes, F_LOCK, 0), 0);
    FILE* reporter = started(option, path);
    ASSERT_EQ(fcntl(fileno(reporter), F_SETPIPE_SZ, PIPE_SIZE), PIPE_SIZE);
    EXPECT_EQ(lockf(fildes, F_ULOCK, 0), 0);
    for (int tries = 0; tries < 1000 && waiting_bytes(reporter) < PIPE_SIZE; ++tries) usleep(10000);
    EXPECT_LT(static_cast<size_t>(waiting_bytes(reporter)), wanted.size());
    EXPECT_EQ(lockf(fildes, F_TLOCK, 0), 0) << option;
    EXPECT_EQ(ended(reporter), wanted);
    close(fildes);
  }
}

TEST(report, waits_for_a_lease_on_the_stack) {
  const std::string path = stack().add("A").file();
  const int fildes = open(path.c_str(), O_RDWR | O_CLOEXEC);
  signal(SIGIO, SIG_IGN); /* the kernel asks for the lease back */
  ASSERT_EQ(fcntl(fildes, F_SETLEASE, F_WRLCK), 0);
  FILE* reporter = started("-d", path);
  usleep(100000);
  EXPECT_EQ(waiting_bytes(reporter), 0);
  EXPECT_EQ(fcntl(fildes, F_SETLEASE, F_UNLCK), 0);
  EXPECT_EQ(ended(reporter), lines("A"));
  close(fildes);
}

/* ---- What commands share ------------------------------------------------------------------------------------- */

TEST(trace_file, is_made_whole_by_one_of_many) {
  const std::string path = stack().add("one").file(), trace = scratch() + "/trace", wanted = lines("one");
  EXPECT_EQ(ended(started("-d", path, "ZELKDEBUG=" + trace)), wanted);
  const size_t of_one = trace_entries(trace).size();
  for (int round = 0; round < 20; ++round) {
    unlink(trace.c_str());
    std::vector<FILE*> reporters;
    for (int i = 0; i < 6; ++i) reporters.push_back(started("-d", path, "ZELKDEBUG=" + trace));
    for (FILE* reporter : reporters) EXPECT_EQ(ended(reporter), wanted);

    const std::string bytes = contents(trace);
    EXPECT_EQ(bytes.size(), 16384U);
    EXPECT_TRUE(bytes.starts_with("ZKTFO=" + std::to_string(bytes.find("[END OF FINAL ENTRY]\n")) + " "));
    EXPECT_GE(trace_entries(trace).size(), of_one);
  }
}

}  // namespace
