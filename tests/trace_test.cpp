/* SPDX-License-Identifier: MIT */
/* The debug trace file: its name, its bytes, and all its writers at once. */
#include "faults.h"

#include <pthread.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <atomic>
#include <csignal>
#include <random>
#include <set>
#include <thread>

#include "support.h"

static const std::string END = "[END OF FINAL ENTRY]\n", RECYCLED = text("[FILE RECYCLES HERE]\n");

/* The first 36 bytes of a trace file, and a file with nothing behind them but a filling. */
static std::string control_line(int offset, int wraps, int size) {
  char line[80];
  snprintf(line, sizeof line, "ZKTFO=%-5d ZKTFW=%-5d ZKTFS=%-5d\n", offset, wraps, size);
  return line;
}
static std::string file_of(int offset, int wraps, int size, char filling = '\0') {
  return control_line(offset, wraps, size) + std::string(static_cast<size_t>(size) - 36, filling);
}
static const std::string FRESH = file_of(36, 0, 16384);

/* What stands where in a file. */
static std::string put(std::string bytes, size_t at, const std::string& what) {
  bytes.resize(std::max(bytes.size(), at + what.size()));
  return bytes.replace(at, what.size(), what);
}

/* An entry of this thread. */
static std::string entry_of(const std::string& routine, const std::string& lines) {
  const int thread = static_cast<int>(static_cast<uint32_t>(pthread_self()));
  return "\1Tue Nov 14 22:13:20 2023\n\tZELK Routine: " + routine + "\n\tCalled by PID " + std::to_string(getpid()) +
         " Thread " + std::to_string(thread) + "\n" + lines;
}

/* Traces a message of a routine "r". */
static int trace(const std::string& path, const std::string& message = "m") {
  return zk_debug(path.c_str(), "r", "%s", message.c_str());
}
static const std::string ENTRY = entry_of("r", "\tm\n");
static const int LENGTH = static_cast<int>(ENTRY.size());

struct trace_file : testing::Test {
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
};

/* ---- One entry ------------------------------------------------------------------------------------------------- */

TEST_F(trace_file, has_an_entry_behind_the_control_line_and_the_mark_behind_the_entry) {
  const std::string path = new_file(FRESH), two = entry_of("second", "\ta 7\n\tb\n");
  EXPECT_EQ(trace(path), 0);
  EXPECT_EQ(contents(path), put(put(FRESH, 0, control_line(36 + LENGTH, 0, 16384)), 36, ENTRY + END));
  EXPECT_EQ(zk_debug(path.c_str(), "second", "a %d\n%s", 7, "b"), 0);
  const int end = 36 + LENGTH + static_cast<int>(two.size());
  EXPECT_EQ(contents(path), put(put(FRESH, 0, control_line(end, 0, 16384)), 36, ENTRY + two + END));
}

TEST_F(trace_file, shows_local_time) {
  const std::string path = new_file(FRESH);
  setenv("TZ", "XXX-5:30", 1);
  tzset();
  EXPECT_EQ(trace(path), 0);
  EXPECT_EQ(contents(path).substr(36, 26), "\1Wed Nov 15 03:43:20 2023\n");
}

TEST_F(trace_file, cuts_an_entry_at_1023_bytes) {
  const std::string path = new_file(FRESH), longest(2000, 'r');
  EXPECT_EQ(zk_debug(path.c_str(), longest.c_str(), "m"), 0);
  EXPECT_EQ(contents(path).substr(36, 1044), entry_of(longest, "").substr(0, 1023) + END);
  const std::string shorter(900, 'r'), message(200, 'm'), other = new_file(FRESH);
  EXPECT_EQ(zk_debug(other.c_str(), shorter.c_str(), "%s", message.c_str()), 0);
  EXPECT_EQ(contents(other).substr(36, 1044), entry_of(shorter, folded(message)).substr(0, 1023) + END);
}

TEST_F(trace_file, leaves_errno_alone) {
  const std::string path = new_file(FRESH);
  for (const std::string& name : {path, scratch() + "/none"}) {
    errno = 77;
    trace(name);
    EXPECT_EQ(errno, 77);
  }
}

ZELK_PRINTF_LIKE(2, 3) static int format(char* output, const char* message, ...) {
  va_list arguments;
  va_start(arguments, message);
  const int result = zk_format_debug_info(output, message, arguments);
  va_end(arguments);
  return result;
}

TEST(message, is_folded_at_72_characters_and_cut_at_254) {
  const std::string x72(72, 'x');
  auto lines = [](const std::string& message) {
    std::string output("before"); /* what stands there already stays */
    output.resize(6 + 510 + 1, '\0');
    output.back() = '#';
    EXPECT_EQ(format(output.data(), "%s", message.c_str()), 0);
    EXPECT_EQ(output.back(), '#');
    return std::string(output.c_str());
  };
  EXPECT_EQ(lines(""), "before");
  EXPECT_EQ(lines("a\nb"), "before\ta\n\tb\n");
  EXPECT_EQ(lines("a\n"), "before\ta\n");
  EXPECT_EQ(lines("\n\na"), "before\t\n\t\n\ta\n");
  EXPECT_EQ(lines(x72 + "y"), "before\t" + x72 + "\n\ty\n");
  EXPECT_EQ(lines(x72 + "\ny"), "before\t" + x72 + "\n\ty\n"); /* the newline is that of the fold */
  EXPECT_EQ(lines(x72 + "y\nz"), "before\t" + x72 + "\n\ty\n\tz\n");
  EXPECT_EQ(lines(std::string(300, 'x')),
            "before\t" + x72 + "\n\t" + x72 + "\n\t" + x72 + "\n\t" + std::string(38, 'x') + "\n");
  std::string empty_lines;
  for (int line = 0; line < 254; ++line) empty_lines += "\t\n";
  EXPECT_EQ(lines(std::string(300, '\n')), "before" + empty_lines);
}

TEST(message, needs_a_buffer_and_a_format) {
  char output[2] = "";
  int (*const debug)(const char*, const char*, const char*, ...) = zk_debug; /* whose formats are not checked here */
  int (*const fold)(char*, const char*, va_list) = zk_format_debug_info;
  va_list arguments = {};
  EXPECT_EQ(fold(nullptr, nullptr, arguments), -2);
  EXPECT_EQ(fold(output, nullptr, arguments), -3);
  EXPECT_EQ(debug(nullptr, nullptr, nullptr), -2);
  EXPECT_EQ(debug("file", nullptr, nullptr), -3);
  EXPECT_EQ(debug("file", "r", nullptr), -4);
}

/* ---- Laps ------------------------------------------------------------------------------------------------------ */

TEST_F(trace_file, is_full_when_an_entry_leaves_no_23_bytes) {
  const int fits = 8000 + LENGTH + 24;
  const std::string roomy = new_file(file_of(8000, 0, fits)), full = new_file(file_of(8000, 0, fits - 1));
  EXPECT_EQ(trace(roomy), 0);
  EXPECT_EQ(contents(roomy), put(file_of(8000 + LENGTH, 0, fits), 8000, ENTRY + END));
  EXPECT_EQ(trace(full), 0);
  EXPECT_EQ(contents(full).substr(0, 36 + ENTRY.size() + 21), control_line(36 + LENGTH, 1, fits - 1) + ENTRY + END);
}

TEST_F(trace_file, begins_a_new_lap_with_zeros_behind_the_old_one) {
  /* Old bytes "o" without an end: the marker takes their place, and zeros up to two bytes before the end. */
  const std::string path = new_file(file_of(800, 0, 850, 'o'));
  EXPECT_EQ(trace(path), 0);
  const std::string old = file_of(36 + LENGTH, 1, 850, 'o'), rest(850 - 800 - 23, '\0');
  EXPECT_EQ(contents(path), put(put(old, 800, RECYCLED + rest), 36, ENTRY + END));
}

TEST_F(trace_file, clears_what_is_left_of_an_older_entry_after_a_lap) {
  const std::string left = std::string(ENTRY.size() + 21, 'o') + "left", older = "\1older";
  const std::string lap = new_file(put(file_of(36, 1, 1000), 36, left + older));
  EXPECT_EQ(trace(lap), 0);
  EXPECT_EQ(contents(lap), put(file_of(36 + LENGTH, 1, 1000), 36, ENTRY + END + std::string(4, '\0') + older));
  const std::string first = new_file(put(file_of(36, 0, 1000), 36, left + older));
  EXPECT_EQ(trace(first), 0);
  EXPECT_EQ(contents(first), put(file_of(36 + LENGTH, 0, 1000), 36, ENTRY + END + "left" + older));
}

TEST(remnant, ends_at_the_next_entry_within_1024_bytes) {
  auto cleared = [](const std::string& bytes) {
    const std::string path = new_file("behind" + bytes);
    const int fildes = open(path.c_str(), O_RDWR);
    lseek(fildes, 6, SEEK_SET);
    EXPECT_EQ(zk_clear_record_remnant(fildes), 0);
    close(fildes);
    return contents(path);
  };
  EXPECT_EQ(cleared("left\1next"), "behind" + std::string(4, '\0') + "\1next");
  EXPECT_EQ(cleared("\1next"), "behind\1next");
  EXPECT_EQ(cleared("left"), "behindleft");
  EXPECT_EQ(cleared(text("left") + "\1next"), "behind" + text("left") + "\1next"); /* a zero ends the search */
  const std::string x1023(1023, 'x');
  EXPECT_EQ(cleared(x1023 + "\1next"), "behind" + std::string(1023, '\0') + "\1next");
  EXPECT_EQ(cleared(x1023 + "x\1next"), "behind" + x1023 + "x\1next");
  EXPECT_EQ(zk_clear_record_remnant(-1), -2);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(zk_clear_record_remnant(ends[0]), -26); /* which has no position */
  EXPECT_EQ(close(ends[0]) + close(ends[1]), 0);
}

TEST_F(trace_file, holds_the_newest_entries_in_order_after_any_number_of_laps) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const int size : {2000, 16384}) {
    const std::string path = new_file(file_of(36, 0, size));
    std::vector<std::string> written;
    for (int number = 0; number < 300; ++number) {
      written.push_back(std::to_string(number) + std::string(random() % 250, 'm'));
      ASSERT_EQ(trace(path, written.back()), 0);
    }
    const std::vector<std::string> entries = trace_entries(path);
    ASSERT_GE(entries.size(), static_cast<size_t>(size / 500)); /* those of a lap, but for what one entry overwrites */
    for (size_t at = 0; at < entries.size(); ++at)
      EXPECT_EQ(entries[at], traced("r", written[written.size() - entries.size() + at]));
    EXPECT_EQ(contents(path).size(), static_cast<size_t>(size));
  }
}

/* ---- The control line ------------------------------------------------------------------------------------------ */

TEST_F(trace_file, that_is_none_is_left_alone) {
  for (const std::string& bytes : {file_of(35, 0, 16384), file_of(-9, 0, 16384), FRESH.substr(0, 35), std::string(),
                                   std::string("ZKTFO=36    ZKTFW=0     ZKTFZ=16384\n")}) {
    const std::string path = new_file(bytes);
    EXPECT_EQ(trace(path), -26);
    EXPECT_EQ(contents(path), bytes);
  }
}

TEST_F(trace_file, counts_only_laps_of_five_digits) {
  const std::string path = new_file(file_of(800, 99999, 810));
  EXPECT_EQ(trace(path), -26);
  EXPECT_EQ(contents(path).substr(0, 36), control_line(36 + LENGTH, 100000, 810).substr(0, 36));
}

TEST_F(trace_file, goes_by_its_control_line_however_odd) {
  const std::string outside = new_file(file_of(16000, 0, 50)), large = new_file(control_line(12345, 6, 99999));
  EXPECT_EQ(trace(outside), 0); /* writing begins anew */
  EXPECT_EQ(contents(outside).substr(0, 36), control_line(36 + LENGTH, 1, 50));
  EXPECT_EQ(trace(large), 0); /* the file grows */
  EXPECT_EQ(contents(large), put(control_line(12345 + LENGTH, 6, 99999), 12345, ENTRY + END));
}

TEST(prepared_entry, is_written_as_it_is_and_leaves_the_file_at_its_start) {
  const std::string path = new_file(file_of(36, 0, 200)), entry(1000, 'e');
  const int fildes = open(path.c_str(), O_RDWR);
  EXPECT_EQ(zk_record_debug_info(fildes, entry.c_str()), 0);
  EXPECT_EQ(lseek(fildes, 0, SEEK_CUR), 0);
  EXPECT_EQ(contents(path), control_line(1036, 1, 200) + entry + END); /* larger than the file was to be */
  EXPECT_EQ(zk_record_debug_info(-1, nullptr), -2);
  EXPECT_EQ(zk_record_debug_info(fildes, nullptr), -3);
  EXPECT_EQ(close(fildes), 0);
}

/* ---- Faults ---------------------------------------------------------------------------------------------------- */

TEST_F(trace_file, that_cannot_be_opened_says_why) {
  const std::string path = new_file(FRESH);
  for (const auto& [error, result] : {std::pair(EROFS, -16), {EMFILE, -20}, {ENFILE, -20}, {EACCES, -25}, {EIO, -1}}) {
    refuse("open", error);
    EXPECT_EQ(trace(path), result) << error;
  }
  EXPECT_EQ(contents(path), FRESH);
  EXPECT_EQ(trace(scratch() + "/none"), -24);
  EXPECT_EQ(trace(path + "/x"), -14);
  ASSERT_EQ(symlink("loop", (scratch() + "/loop").c_str()), 0);
  EXPECT_EQ(trace(scratch() + "/loop"), -21);
  EXPECT_EQ(trace(scratch()), -1);
}

TEST_F(trace_file, is_opened_again_after_an_interruption) {
  const std::string path = new_file(FRESH);
  refuse("open", EINTR, 2);
  EXPECT_EQ(trace(path), 0);
  EXPECT_EQ(trace_entries(path).size(), 1U);
}

TEST_F(trace_file, that_is_a_fifo_is_not_waited_for) {
  const std::string path = scratch() + "/fifo";
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(trace(path), -28); /* it can be opened, but has no start to lock from */
}

TEST_F(trace_file, whose_lock_fails_is_left_alone_and_closed) {
  const std::string path = new_file(FRESH);
  const size_t open_files = open_descriptors();
  refuse("lock", ENOLCK);
  EXPECT_EQ(trace(path), -28);
  EXPECT_EQ(contents(path), FRESH);
  refuse("unlock", ENOLCK);
  EXPECT_EQ(trace(path), -29);
  EXPECT_EQ(trace_entries(path).size(), 1U);
  EXPECT_EQ(open_descriptors(), open_files);
}

TEST_F(trace_file, that_cannot_be_read_counts_as_corrupt) {
  const std::string path = new_file(FRESH);
  refuse("read", EIO);
  EXPECT_EQ(trace(path), -26);
  EXPECT_EQ(contents(path), FRESH);
}

/* The result of tracing into a file that cannot be written at a place, and in part before it. */
static int trace_with_bad_place(const std::string& path, off_t place) {
  bad_place = place;
  const int result = trace(path);
  bad_place = -1;
  return result;
}

TEST_F(trace_file, that_cannot_be_written_counts_as_corrupt) {
  const std::string path = new_file(FRESH);
  for (const off_t place : {36, 76, 36 + LENGTH, 40 + LENGTH})
    EXPECT_EQ(trace_with_bad_place(path, place), -26) << place;
  EXPECT_EQ(contents(path), put(FRESH, 36, ENTRY + "[END")); /* and has no entry more */
  EXPECT_EQ(trace_with_bad_place(path, 0), -26);
  EXPECT_EQ(trace_with_bad_place(path, 35), -26);
}

TEST_F(trace_file, that_cannot_be_cleared_counts_as_corrupt) {
  const std::string full = new_file(file_of(800, 0, 850)),
                    lap = new_file(put(file_of(36, 1, 1000), 36, std::string(ENTRY.size() + 21, 'o') + "left\1older"));
  EXPECT_EQ(trace_with_bad_place(full, 822), -26);             /* behind the recycle mark */
  EXPECT_EQ(trace_with_bad_place(lap, 36 + LENGTH + 21), -26); /* behind the entry and its mark */
}

/* ---- All writers at once --------------------------------------------------------------------------------------- */

/* Another process that takes a file by its lock or by a lease, and lets go after a while, or when it is asked to. */
struct other_process {
  bool* done = static_cast<bool*>(mmap(nullptr, 1, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  pid_t process = 0;
  char has_it = 'n';

  explicit other_process(const std::string& path, bool by_lease = false) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    process = fork();
    if (process == 0) {
      const int fildes = open(path.c_str(), O_RDWR);
      const int taken = by_lease ? fcntl(fildes, F_SETLEASE, F_WRLCK) : lockf(fildes, F_LOCK, 0);
      if (write(ready[1], taken == 0 ? "y" : "n", 1) == 1) usleep(150000);
      *done = true;
      _exit(0);
    }
    EXPECT_EQ(read(ready[0], &has_it, 1), 1);
    EXPECT_EQ(close(ready[0]) + close(ready[1]), 0);
  }
  ~other_process() { waitpid(process, nullptr, 0); }
};

TEST_F(trace_file, is_waited_for_while_another_process_has_its_lock) {
  const std::string path = new_file(FRESH);
  const other_process other(path);
  EXPECT_EQ(trace(path), 0);
  EXPECT_TRUE(*other.done);
}

TEST_F(trace_file, loses_no_entry_of_threads_and_processes_at_once) {
  const std::string path = new_file(file_of(36, 0, 99999));
  std::vector<pid_t> processes;
  for (int process = 0; process < 4; ++process) {
    processes.push_back(fork());
    if (processes.back() != 0) continue;
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 3; ++thread)
      threads.emplace_back([&, thread] {
        for (int entry = 0; entry < 60; ++entry) trace(path, std::to_string(process * 1000 + thread * 100 + entry));
      });
    for (std::thread& each : threads) each.join();
    _exit(0);
  }
  for (pid_t process : processes) waitpid(process, nullptr, 0);
  const std::vector<std::string> entries = trace_entries(path);
  EXPECT_EQ(std::set(entries.begin(), entries.end()).size(), 720U);
}

/* Ends a process that hangs, which may have its other signals blocked. */
static void die_after(time_t seconds) {
  sigevent event = {};
  event.sigev_signo = SIGKILL;
  timer_t timer;
  const itimerspec once = {{0, 0}, {seconds, 0}};
  EXPECT_EQ(timer_create(CLOCK_MONOTONIC, &event, &timer) + timer_settime(timer, 0, &once, nullptr), 0);
}

TEST_F(trace_file, is_open_to_a_child_forked_while_another_thread_traces) {
  const std::string path = new_file(FRESH);
  const other_process other(path);
  std::thread waiting([&] { trace(path, "of the thread"); });
  usleep(50000);
  in_child([&] {
    die_after(10);
    EXPECT_EQ(trace(path, "of the child"), 0);
  });
  waiting.join();
  EXPECT_EQ(trace_entries(path).size(), 2U);
}

/* Traces in a child that is to receive a SIGUSR1 meanwhile, and whose handler forks. */
static void trace_and_fork_in_handler(const std::string& path) {
  static pid_t forked = -1;
  die_after(10);
  signal(SIGUSR1, [](int) {
    forked = fork();
    if (forked == 0) _exit(0);
  });
  EXPECT_EQ(trace(path), 0);
  EXPECT_EQ(waitpid(forked, nullptr, 0), forked);
}

TEST_F(trace_file, is_open_to_a_signal_handler_that_forks) {
  const std::string path = new_file(FRESH);
  in_child([&] { /* while it is written */
                 meanwhile = {"write", [] { raise(SIGUSR1); }};
                 trace_and_fork_in_handler(path);
  });
  in_child([&] { /* while it is waited for */
                 const other_process other(path);
                 std::thread sender([tracer = pthread_self()] {
                   usleep(50000);
                   pthread_kill(tracer, SIGUSR1);
                 });
                 trace_and_fork_in_handler(path);
                 sender.join();
  });
}

/* Traces, and returns the result and whether the thread can be cancelled after that. */
static void* trace_in_thread(void* path) {
  static std::pair<int, int> result;
  result.first = trace(*static_cast<const std::string*>(path));
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &result.second);
  return &result;
}

TEST_F(trace_file, is_no_place_for_a_thread_to_be_cancelled) {
  std::string path = new_file(FRESH);
  in_child([&] {
    die_after(10);
    const other_process other(path);
    pthread_t tracer;
    void* result = nullptr;
    ASSERT_EQ(pthread_create(&tracer, nullptr, trace_in_thread, &path), 0);
    usleep(50000);
    EXPECT_EQ(pthread_cancel(tracer) + pthread_join(tracer, &result), 0);
    ASSERT_NE(result, PTHREAD_CANCELED);
    const auto [traced, could_be_cancelled] = *static_cast<const std::pair<int, int>*>(result);
    EXPECT_EQ(traced, 0);
    EXPECT_EQ(could_be_cancelled, PTHREAD_CANCEL_ENABLE);
  });
}

TEST_F(trace_file, that_another_process_has_leased_is_waited_for) {
  const std::string path = new_file(FRESH);
  const other_process other(path, true); /* which SIGIO ends */
  if (other.has_it == 'n') GTEST_SKIP() << "the file system has no leases";
  EXPECT_EQ(trace(path), 0);
}

TEST_F(trace_file, is_not_waited_for_after_a_signal) {
  const std::string path = new_file(FRESH);
  struct sigaction action = {};
  action.sa_handler = [](int) {}; /* without SA_RESTART */
  sigaction(SIGALRM, &action, nullptr);
  const other_process other(path);
  ualarm(50000, 0);
  EXPECT_EQ(trace(path), -28);
  EXPECT_FALSE(*other.done);
}
