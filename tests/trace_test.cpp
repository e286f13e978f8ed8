/* SPDX-License-Identifier: MIT */
/* The debug trace file: its entries, and all its writers at once. What it does with its bytes stands in golden/library. */
#include "faults.h"

#include <poll.h>
#include <pthread.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <functional>
#include <random>
#include <set>
#include <thread>

#include "support.h"
#include "zk_msg.h"

/* Traces a message of a routine "r". */
static int trace(const std::string& path, const std::string& message = "m") {
  return zk_debug(path.c_str(), "r", "%s", message.c_str());
}

struct trace_file : testing::Test {
  const std::string path = new_file(EMPTY_TRACE);

  void set_zone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  void SetUp() override { set_zone("UTC"); }
};

/* ---- One entry ------------------------------------------------------------------------------------------------- */

TEST_F(trace_file, has_an_entry_of_time_routine_process_thread_and_message) {
  const int thread = static_cast<int>(static_cast<uint32_t>(pthread_self()));
  EXPECT_EQ(zk_debug(path.c_str(), "routine", "a %d\n%s", 7, "b"), 0);
  EXPECT_EQ(contents(path).substr(36), "\1Tue Nov 14 22:13:20 2023\n\tZELK Routine: routine\n\tCalled by PID " +
                                           std::to_string(getpid()) + " Thread " + std::to_string(thread) +
                                           "\n\ta 7\n\tb\n[END OF FINAL ENTRY]\n");
}

/* Times that differ in one field: a second and so on, to a month and a year later on the same day of the week. */
TEST_F(trace_file, tells_a_time_from_those_that_look_alike) {
  const time_t start = 1487110400; /* Tuesday, 14 February 2017, 22:13:20 */
  const timeval before = now_is;
  for (const time_t later : {1, 60, 3600, 86400, 7 * 86400, 28 * 86400, (6 * 365 + 1) * 86400})
    for (const time_t now : {start, start + later}) {
      now_is.tv_sec = now;
      EXPECT_EQ(trace(path), 0);
      EXPECT_NE(contents(path).find("\1" + std::string(ctime(&now))), std::string::npos) << later;
    }
  now_is = before;
}

/* Two zones of the same names and offset may still differ in when their summer begins. */
TEST_F(trace_file, shows_the_time_by_the_rules_of_the_zone) {
  set_zone("AAA0BBB,M3.1.0,M10.1.0");
  EXPECT_EQ(trace(path), 0);
  set_zone("AAA0BBB,M11.1.0,M12.1.0");
  EXPECT_EQ(trace(path), 0);
  EXPECT_NE(contents(path).find("\1Tue Nov 14 22:13:20 2023\n"), std::string::npos);
  EXPECT_NE(contents(path).find("\1Tue Nov 14 23:13:20 2023\n"), std::string::npos);
}

TEST_F(trace_file, has_entries_of_1023_bytes_at_most) {
  EXPECT_EQ(zk_debug(path.c_str(), std::string(900, 'r').c_str(), "%s", std::string(254, 'm').c_str()), 0);
  EXPECT_EQ(contents(path).substr(36 + 1023), "[END OF FINAL ENTRY]\n");
  EXPECT_TRUE(contents(path).substr(0, 36 + 1023).ends_with("mm"));
}

TEST_F(trace_file, leaves_errno_alone) {
  for (const std::string& name : {path, scratch() + "/none"}) {
    errno = 77;
    trace(name);
    EXPECT_EQ(errno, 77);
  }
}

TEST_F(trace_file, holds_the_newest_entries_in_order_after_any_number_of_laps) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::vector<std::string> written;
  for (int number = 0; number < 300; ++number) {
    written.push_back("r\n\t" + std::to_string(number));
    ASSERT_EQ(trace(path, std::to_string(number) + std::string(random() % 250, 'm')), 0);
  }
  const std::vector<std::string> entries = trace_entries(path);
  ASSERT_GE(entries.size(), 16384U / 500); /* those of a lap, but for what one entry overwrites */
  for (size_t at = 0; at < entries.size(); ++at)
    EXPECT_TRUE(entries[at].starts_with(written[written.size() - entries.size() + at])) << entries[at];
  EXPECT_LE(contents(path).size(), 16384U);
}

TEST(remnant, is_looked_for_in_1024_bytes) {
  for (const size_t length : {1023U, 1024U}) {
    const std::string left(length, 'x'), path = new_file(left + "\1next"), zeros(length, '\0');
    const int fildes = open(path.c_str(), O_RDWR);
    EXPECT_EQ(zk_clear_record_remnant(fildes), 0);
    EXPECT_EQ(contents(path), (length == 1023 ? zeros : left) + "\1next");
    close(fildes);
  }
}

TEST(message, of_254_newlines_has_254_lines) {
  std::string lines;
  for (int line = 0; line < 254; ++line) lines += "\t\n";
  const std::string path = new_file(EMPTY_TRACE);
  EXPECT_EQ(trace(path, std::string(300, '\n')), 0);
  EXPECT_EQ(trace_entries(path).at(0), "r\n" + lines);
}

TEST_F(trace_file, has_its_entry_even_if_it_cannot_be_unlocked) {
  refuse("unlock", ENOLCK);
  EXPECT_EQ(trace(path), -29);
  EXPECT_EQ(trace_entries(path).size(), 1U);
}

/* ---- All writers at once --------------------------------------------------------------------------------------- */

/* Another process that has the lock of a file until it is told to let go, or for 10 s. */
struct other_process {
  int told[2];
  pid_t process = 0;

  explicit other_process(const std::string& path) {
    int ready[2];
    char has_it = 'n';
    EXPECT_EQ(pipe(ready) + pipe2(told, O_CLOEXEC), 0);
    process = fork();
    if (process == 0) {
      close(told[1]);
      lockf(open(path.c_str(), O_RDWR), F_LOCK, 0);
      pollfd wanted = {told[0], POLLIN, 0};
      if (write(ready[1], "y", 1) == 1) poll(&wanted, 1, 10000);
      _exit(0);
    }
    EXPECT_EQ(read(ready[0], &has_it, 1), 1);
    EXPECT_EQ(close(ready[0]) + close(ready[1]), 0);
  }
  bool let_go() const { return write(told[1], "g", 1) == 1; }
  ~other_process() {
    EXPECT_EQ(close(told[0]) + close(told[1]), 0);
    waitpid(process, nullptr, 0);
  }
};

/* A thread that traces, and that waits by now. */
static std::thread waiting_tracer(const std::string& path) {
  std::atomic<pid_t> id = 0;
  std::thread tracer([&id, path] {
    id = gettid();
    trace(path, "of the thread");
  });
  while (id == 0) usleep(1000);
  await_sleep(id);
  return tracer;
}

TEST_F(trace_file, loses_no_entry_of_threads_and_processes_at_once) {
  const std::string large = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=99999\n");
  std::vector<pid_t> processes;
  for (int process = 0; process < 4; ++process) {
    processes.push_back(fork());
    if (processes.back() != 0) continue;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread)
      threads.emplace_back([&, thread] {
        for (int entry = 0; entry < 60; ++entry) trace(large, std::to_string(process * 1000 + thread * 100 + entry));
      });
    for (std::thread& each : threads) each.join();
    _exit(0);
  }
  for (pid_t process : processes) waitpid(process, nullptr, 0);
  const std::vector<std::string> entries = trace_entries(large);
  EXPECT_EQ(std::set(entries.begin(), entries.end()).size(), 720U);
}

TEST_F(trace_file, is_open_to_a_child_forked_while_another_thread_traces) {
  const other_process other(path);
  std::thread waiting = waiting_tracer(path);
  std::thread freeing = once_asleep([&] { other.let_go(); });
  in_child([&] { EXPECT_EQ(trace(path, "of the child"), 0); });
  freeing.join();
  waiting.join();
  EXPECT_EQ(trace_entries(path).size(), 2U);
}

/* Another thread waits for the lock, and leaves signals to this one: what ends the process comes at once all the same. */
TEST_F(trace_file, keeps_no_signal_from_a_thread_that_waits_for_another_or_forks_meanwhile) {
  for (const bool forks : {false, true}) {
    const other_process other(path);
    const pid_t child = fork();
    if (child == 0) {
      sigset_t alarm, before;
      sigemptyset(&alarm);
      sigaddset(&alarm, SIGALRM);
      pthread_sigmask(SIG_BLOCK, &alarm, &before);
      std::thread waiting = waiting_tracer(path);
      std::thread sender = once_asleep([] { kill(getpid(), SIGALRM); });
      pthread_sigmask(SIG_SETMASK, &before, nullptr);
      if (!forks) trace(path);
      _exit(forks ? std::min(fork(), 1) : 1);
    }
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(WTERMSIG(status), SIGALRM) << forks;
  }
}

static volatile sig_atomic_t is_handled = 0; /* SIGUSR1, by what begins with setting it */

/* Sends SIGUSR1 to the calling thread once it waits, and has the other process let go once it waits again: in the handler,
 * or behind it. */
static std::thread send_and_free(const other_process& other) {
  return once_asleep([&other, waiting = pthread_self(), sleeper = gettid()] {
    pthread_kill(waiting, SIGUSR1);
    while (is_handled == 0) usleep(1000);
    await_sleep(sleeper);
    other.let_go();
  });
}

/* Traces in a child that is to receive a SIGUSR1 meanwhile, and whose handler forks. */
static void trace_and_fork_in_handler(const std::string& path) {
  static volatile pid_t forked = -1;
  signal(SIGUSR1, [](int) {
    is_handled = 1;
    forked = fork();
    if (forked == 0) _exit(0);
  });
  EXPECT_EQ(trace(path), 0);
  EXPECT_EQ(waitpid(forked, nullptr, 0), forked);
}

TEST_F(trace_file, is_open_to_a_signal_handler_that_forks) {
  in_child([&] { /* while it is written */
                 meanwhile = {"write", [] { raise(SIGUSR1); }};
                 trace_and_fork_in_handler(path);
  });
  in_child([&] { /* while it is waited for */
                 const other_process other(path);
                 std::thread sender = send_and_free(other);
                 trace_and_fork_in_handler(path);
                 sender.join();
  });
  in_child([&] { /* while another thread writes */
                 const other_process other(path);
                 std::thread writer = waiting_tracer(path);
                 std::thread sender = send_and_free(other);
                 trace_and_fork_in_handler(path);
                 sender.join();
                 writer.join();
                 EXPECT_EQ(trace_entries(path).back(), "r\n\tm\n");
  });
}

/* Handlers that were set up before the library's own run within its turn. */
static const char* traced_by_fork_handlers = nullptr;
static void trace_fork() {
  if (traced_by_fork_handlers != nullptr) zk_debug(traced_by_fork_handlers, "r", "%s", "of a fork handler");
}
__attribute__((constructor(101))) static void set_up_fork_handlers() {
  pthread_atfork(trace_fork, trace_fork, trace_fork);
}

TEST_F(trace_file, is_open_to_fork_handlers_in_parent_and_child) {
  in_child([&] {
    traced_by_fork_handlers = path.c_str();
    alarm(10);
    const pid_t child = fork();
    if (child == 0) _exit(0);
    EXPECT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_EQ(trace(path), 0);
    EXPECT_EQ(trace_entries(path).size(), 4U);
  });
}

/* The child would move the position at which its parent reads and writes: while the thread waits for another one, and while
 * it waits for the lock. */
TEST_F(trace_file, has_no_entry_of_a_child_that_a_signal_handler_forks_and_returns_in) {
  for (const size_t others : {0U, 1U})
    in_child([&] {
      const other_process other(path);
      static pid_t forked = -1;
      signal(SIGUSR1, [](int) {
        is_handled = 1;
        forked = fork();
      });
      std::vector<std::thread> threads;
      if (others == 1) threads.push_back(waiting_tracer(path));
      threads.push_back(send_and_free(other));
      const size_t before = trace_entries(path).size();
      const int result = trace(path);
      if (forked == 0) _exit(result == -28 ? 0 : 1);
      int status = -1;
      EXPECT_EQ(result, 0);
      EXPECT_EQ(waitpid(forked, &status, 0), forked);
      EXPECT_EQ(status, 0);
      EXPECT_EQ(trace_entries(path).size(), before + 1 + others);
      for (std::thread& each : threads) each.join();
    });
}

/* The handler would wait for a turn that its own thread is about to get. */
TEST_F(trace_file, is_not_waited_for_by_a_handler_whose_thread_waits_for_another) {
  in_child([&] {
    static const std::string* traced = &path;
    static int of_handler = 0;
    signal(SIGUSR1, [](int) {
      is_handled = 1;
      of_handler = trace(*traced, "of the handler");
    });
    const other_process other(path);
    std::thread writer = waiting_tracer(path);
    std::thread sender = send_and_free(other);
    EXPECT_EQ(trace(path), 0);
    EXPECT_EQ(of_handler, -28);
    writer.join();
    sender.join();
    EXPECT_EQ(trace_entries(path).size(), 2U);
  });
}

/* A trace file that is the stack drops the stack's lock with the first entry. */
TEST(report, is_one_snapshot_when_the_stack_is_named_as_the_trace_file) {
  stack early, late;
  const std::string path = early.add("early").file();
  late.add("later");
  meanwhile = {"unlock", [&] { std::ofstream(path) << late.bytes(); }};
  const int fildes = open(path.c_str(), O_RDWR);
  const std::string shown = printed([&] { zk_dump_stack(1, path.c_str(), 0, 0, nullptr, 0, fildes, ZK_NO_CATALOG); });
  EXPECT_EQ(shown, lines("early"));
  EXPECT_TRUE(meanwhile.call.empty());
  close(fildes);
}

/* The version, the header and 100 bytes are read, and what an error keeps away then is read when a record needs it. */
TEST(report, is_whole_where_only_reading_ahead_fails) {
  const int fildes = open(stack().add("one").add("two").file().c_str(), O_RDWR);
  most_read = 100;
  refuse("read", EIO, 1, 3);
  EXPECT_EQ(printed([&] { zk_dump_stack(0, nullptr, 0, 0, nullptr, 0, fildes, ZK_NO_CATALOG); }), lines("one two"));
  EXPECT_EQ(fault.times, 0);
  most_read = SIZE_MAX;
  close(fildes);
}

/* Traces, and returns the result and whether the thread can be cancelled after that. */
static std::atomic<pid_t> tracing_thread = 0;
static void* trace_in_thread(void* path) {
  static std::pair<int, int> result;
  tracing_thread = gettid();
  result.first = trace(static_cast<const char*>(path));
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &result.second);
  return &result;
}

TEST_F(trace_file, is_no_place_for_a_thread_to_be_cancelled) {
  in_child([&] {
    const other_process other(path);
    pthread_t tracer;
    void* result = nullptr;
    ASSERT_EQ(pthread_create(&tracer, nullptr, trace_in_thread, const_cast<char*>(path.c_str())), 0);
    while (tracing_thread == 0) usleep(1000);
    await_sleep(tracing_thread);
    EXPECT_EQ(pthread_cancel(tracer), 0);
    EXPECT_TRUE(other.let_go());
    EXPECT_EQ(pthread_join(tracer, &result), 0);
    ASSERT_NE(result, PTHREAD_CANCELED);
    const auto [traced, could_be_cancelled] = *static_cast<const std::pair<int, int>*>(result);
    EXPECT_EQ(traced, 0);
    EXPECT_EQ(could_be_cancelled, PTHREAD_CANCEL_ENABLE);
  });
}

TEST_F(trace_file, is_not_waited_for_after_a_signal) {
  struct sigaction action = {};
  action.sa_handler = [](int) {}; /* without SA_RESTART */
  sigaction(SIGALRM, &action, nullptr);
  const other_process other(path);
  std::thread sender = once_asleep([waiting = pthread_self()] { pthread_kill(waiting, SIGALRM); });
  EXPECT_EQ(trace(path), -28);
  sender.join();
}
