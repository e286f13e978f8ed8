/* SPDX-License-Identifier: MIT */
/* concurrency_test.cpp - many at once: locks, leases, and readers that do not read. */
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "support.h"

namespace {

/* Starts a report. */
FILE* started(const std::string& view, const std::string& path) {
  const std::string surroundings = "exec env -i TZ=UTC ASAN_OPTIONS=detect_leaks=0 " EMULATOR " ";
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
  if (!has("native")) GTEST_SKIP() << "an emulator has descriptors, locks and limits of its own";
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

}  // namespace
