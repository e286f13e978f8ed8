/* The debug trace file: its bytes against a model, all its users at once, and the space it takes. */
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "support.h"

namespace {

std::string control_line(long offset, long wraps, long size) {
  char line[80];
  snprintf(line, sizeof line, "ZKTFO=%-5ld ZKTFW=%-5ld ZKTFS=%-5ld\n", offset, wraps, size);
  return line;
}

const std::string FRESH = control_line(36, 0, 16384) + std::string(16348, '\0');

/* What a trace file must hold. */
struct trace_model {
  long offset = 36, wraps = 0, size = 16384;
  std::string bytes = control_line(offset, wraps, size) + std::string(16348, '\0');

  void put(long at, const std::string& what) {
    const size_t start = static_cast<size_t>(at);
    bytes.resize(std::max(bytes.size(), start + what.size()));
    bytes.replace(start, what.size(), what);
  }
  void append(const std::string& entry) {
    const long length = static_cast<long>(entry.size());
    if (size <= offset + length + 23) {
      put(offset, text("[FILE RECYCLES HERE]\n"));
      put(offset + 22, std::string(static_cast<size_t>(std::max(size - offset - 23, 0L)), '\0'));
      offset = 36;
      ++wraps;
    }
    put(offset, entry + "[END OF FINAL ENTRY]\n");
    offset += length;
    const size_t behind = static_cast<size_t>(offset) + 21;
    const size_t remnant = bytes.substr(behind, std::min(bytes.find('\0', behind) - behind, size_t{1024})).find('\1');
    if (wraps != 0 && remnant != bytes.npos) bytes.replace(behind, remnant, remnant, '\0');
    put(0, control_line(offset, wraps, size).substr(0, 36));
  }
};

std::string entry_of(const std::string& routine, const std::string& message) {
  timeval now = {};
  gettimeofday(&now, nullptr);
  const int thread = static_cast<int>(static_cast<uint32_t>(pthread_self()));
  return ("\1" + std::string(ctime(&now.tv_sec)) + "\tZELK Routine: " + routine + "\n\tCalled by PID " +
          std::to_string(getpid()) + " Thread " + std::to_string(thread) + "\n" + folded(message))
      .substr(0, 1023);
}

int trace(const std::string& path, const std::string& routine, const std::string& message) {
  errno = 77;
  const int result = zk_debug(path.c_str(), routine.c_str(), "%s", message.c_str());
  EXPECT_EQ(errno, 77);
  return result;
}

/* Traces into the file and the model, and compares; the second may change meanwhile. */
int trace_both(const std::string& path, trace_model& model, const std::string& routine, const std::string& message) {
  trace_model earlier = model;
  earlier.append(entry_of(routine, message));
  const int result = trace(path, routine, message);
  model.append(entry_of(routine, message));
  const std::string bytes = contents(path);
  if (bytes == earlier.bytes) model = earlier;
  EXPECT_TRUE(bytes == model.bytes);
  return result;
}

}  // namespace

/* The first one: it has a thread wait for its time zone, which the C library reads once in a process. */
TEST(trace, goes_on_in_a_child_forked_while_another_thread_traces) {
  const std::string path = new_file(FRESH), zone = scratch() + "/zone";
  ASSERT_EQ(mkfifo(zone.c_str(), 0600), 0);
  setenv("TZ", (":" + zone).c_str(), 1);
  std::atomic<bool> done = false;
  std::thread tracer([&] {
    trace(path, "parent", "m");
    done = true;
  });
  usleep(100000);
  std::thread release([&] {
    do {
      usleep(100000);
      close(open(zone.c_str(), O_RDWR));
    } while (!done);
  });
  in_child([&] {
    alarm(20);
    unsetenv("TZ");
    EXPECT_EQ(trace(path, "child", "m"), ZELK_SUCCESS);
  });
  tracer.join();
  release.join();
  unsetenv("TZ");
}

TEST(trace_file, is_made_once_and_everybody_may_write_it) {
  const std::string path = scratch() + "/fresh";
  auto create = [&] { EXPECT_EQ(zk_create_debug_file(path.c_str()), ZELK_SUCCESS); };
  const mode_t mask = umask(077);
  std::thread other(create);
  create();
  other.join();
  umask(mask);
  EXPECT_TRUE(contents(path) == FRESH);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0666});
}

TEST(trace_message, is_cut_and_folded) {
  const std::string a72(72, 'a'), b72(72, 'b');
  const std::pair<std::string, std::string> rows[] = {
      {"", ""},
      {"\na\n\nb", "\t\n\ta\n\t\n\tb\n"},
      {a72 + "\n", "\t" + a72 + "\n"},
      {a72 + "\nb", "\t" + a72 + "\n\tb\n"},
      {a72 + "a\nb", "\t" + a72 + "\n\ta\n\tb\n"},
      {a72 + b72 + a72 + b72, "\t" + a72 + "\n\t" + b72 + "\n\t" + a72 + "\n\t" + b72.substr(34) + "\n"}};
  trace_model model;
  const std::string path = new_file(model.bytes);
  for (const auto& [message, lines] : rows) {
    EXPECT_EQ(folded(message), lines);
    EXPECT_EQ(trace_both(path, model, "r", message), ZELK_SUCCESS);
  }
  EXPECT_EQ(trace_both(path, model, "r", std::string(300, '\n')), ZELK_SUCCESS);
}

TEST(trace_file, holds_what_the_model_holds_through_many_laps) {
  const unsigned int seed = std::random_device{}();
  std::mt19937 random(seed);
  auto below = [&](size_t limit) { return random() % limit; };
  for (int round = 0; round < 4; ++round) {
    trace_model model;
    if (round % 2 != 0) model.size = static_cast<long>(500 + below(4000));
    model.put(0, control_line(36, 0, model.size));
    const std::string path = new_file(model.bytes);
    for (int count = 0; count < 250; ++count) {
      const std::string routine(below(40) == 0 ? 880 + below(200) : 1 + below(30), 'r');
      std::string message(below(300), ' ');
      for (char& letter : message) letter = below(50) == 0 ? '\n' : static_cast<char>(' ' + below(223));
      ASSERT_EQ(trace_both(path, model, routine, message), ZELK_SUCCESS) << "seed " << seed;
    }
    EXPECT_GT(model.wraps, 1);
  }
}

TEST(control_line, that_is_odd_counts_and_one_that_is_unreadable_stops_the_entry) {
  const long full = 8000 + static_cast<long>(entry_of("r", "m").size()) + 23;
  const struct {
    long offset, wraps, size, wraps_after;
    int result;
    const char* line = nullptr; /* where it is not written as usual */
  } rows[] = {{8000, 0, full, 1, 0},
              {8000, 0, full + 1, 0, 0},
              {20000, 0, 16384, 1, 0},
              {99999, 7, 16384, 8, 0},
              {36, 0, 0, 1, 0},
              {100, -3, -999, -2, 0},
              {16000, 0, 50, 1, 0},
              {16380, 99999, 16384, 100000, ZELK_FILE_CORRUPT},
              {12345, 6, 99999, 6, 0, "ZKTFO=12345678 ZKTFW=6ZKTFS=9999999\n"},
              {8000, 0, 8000, 1, 0, "ZKTFS=8000  ZKTFW=0     ZKTFO=16384\n"}}; /* the first "=" is the offset's */
  for (const auto& row : rows) {
    trace_model model{row.offset, row.wraps, row.size};
    if (row.line != nullptr) model.put(0, row.line);
    const std::string path = new_file(model.bytes);
    EXPECT_EQ(trace_both(path, model, "r", "m"), row.result) << row.offset;
    EXPECT_EQ(model.wraps, row.wraps_after);
  }
  const std::string rest(16348, '\0');
  for (const std::string& bytes :
       {control_line(35, 0, 16384) + rest, control_line(-999, 0, 16384) + rest, std::string(36, '=') + rest,
        "ZKTFO=none  ZKTFW=0     ZKTFS=16384\n" + rest, "ZKTFO=36    ZKTFS=16384 ZKTFW 16384\n" + rest,
        "ZKTFO=36    ZKTFW=0     ZKTF\n" + rest, std::string(), FRESH.substr(0, 35)}) {
    const std::string path = new_file(bytes);
    EXPECT_EQ(trace(path, "r", "m"), ZELK_FILE_CORRUPT);
    EXPECT_TRUE(contents(path) == bytes) << bytes;
  }
  trace_model model{200, 0, 99999};
  const std::string path = new_file(model.bytes), huge(100000, 'e');
  const int fildes = open(path.c_str(), O_RDWR);
  EXPECT_EQ(zk_record_debug_info(fildes, huge.c_str()), ZELK_FILE_CORRUPT);
  close(fildes);
  model.append(huge);
  EXPECT_TRUE(contents(path) == model.bytes);
}

TEST(remnant, of_an_entry_reaches_to_the_next_within_1024_bytes) {
  for (const auto& [remains, cleared] :
       {std::pair{std::string(1023, 'o'), true}, {std::string(1024, 'o'), false}, {text("old"), false}}) {
    const std::string path = new_file(remains + "\1next");
    const int fildes = open(path.c_str(), O_RDWR);
    EXPECT_EQ(zk_clear_record_remnant(fildes), ZELK_SUCCESS);
    close(fildes);
    EXPECT_EQ(contents(path), (cleared ? std::string(remains.size(), '\0') : remains) + "\1next");
  }
}

TEST(trace_name, that_is_no_good_is_refused_at_the_start_and_at_each_entry) {
  const std::string here = scratch(), shut = new_file(FRESH);
  ASSERT_EQ(mkfifo((here + "/fifo").c_str(), 0666) | chmod((here + "/fifo").c_str(), 0666), 0);
  ASSERT_EQ(symlink("loop", (here + "/loop").c_str()), 0);
  ASSERT_EQ(mkdir((here + "/cellar").c_str(), 0), 0);
  chmod(shut.c_str(), 0);
  chmod(here.c_str(), 0755);
  const struct {
    std::string name;
    int at_start, at_entry;
  } rows[] = {{shut, ZELK_TRACE_EXISTS, ZELK_NO_ACCESS},
              {here + "/fifo", ZELK_TRACE_EXISTS, ZELK_LOCK},
              {"/dev/zero", ZELK_TRACE_EXISTS, ZELK_FILE_CORRUPT},
              {"", ZELK_TRACE_MISSING, ZELK_FILE_MISSING},
              {here + "/no/x", ZELK_TRACE_MISSING, ZELK_FILE_MISSING},
              {here, ZELK_IS_A_DIR, ZELK_FAILURE},
              {shut + "/x", ZELK_DIR_MISSING, ZELK_DIR_MISSING},
              {here + "/loop", ZELK_LINK_LOOP, ZELK_LINK_LOOP},
              {here + "/cellar/x", ZELK_DIR_NO_ACCESS, ZELK_NO_ACCESS},
              {std::string(256, 'n'), ZELK_NAME_TOO_LONG, ZELK_FAILURE},
              {std::string(9999, '/'), ZELK_NAME_TOO_LONG, ZELK_FAILURE}};
  as_ordinary_user([&] {
    std::string copy(ZELK_PATH_SIZE, '#');
    for (const auto& row : rows) {
      setenv("ZELKDEBUG", row.name.c_str(), 1);
      copy[0] = '#';
      EXPECT_EQ(zk_is_debug_file_set(copy.data()), row.at_start) << row.name;
      EXPECT_TRUE(row.at_start > 0 ? copy.c_str() == row.name : copy[0] == '#') << row.name;
      EXPECT_EQ(trace(row.name, "r", "m"), row.at_entry) << row.name;
    }
    unsetenv("ZELKDEBUG");
    EXPECT_EQ(zk_is_debug_file_set(copy.data()), ZELK_TRACE_UNSET);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(trace(shut, "r", "m"), ZELK_TOO_MANY);
  });
  chmod((here + "/cellar").c_str(), 0700); /* so that it can be removed */
}

TEST(trace_file, loses_no_entry_of_processes_and_threads_at_once) {
  for (bool processes : {true, false}) {
    const std::string path = new_file(control_line(36, 0, 99999));
    std::vector<std::thread> workers;
    for (int worker = 0; worker < 8; ++worker) {
      auto work = [&path, worker] {
        for (int entry = 0; entry < 90; ++entry) trace(path, "r", std::to_string(100 * worker + entry));
      };
      workers.emplace_back([=] { processes ? in_child(work) : work(); });
    }
    for (std::thread& worker : workers) worker.join();
    const std::vector<std::string> entries = trace_entries(path);
    EXPECT_EQ(entries.size(), 720u);
    EXPECT_EQ(std::set<std::string>(entries.begin(), entries.end()).size(), 720u);
  }
}

TEST(zeros, are_counted) {
  const std::string path = new_file(std::string(5000, 'x'));
  int fildes = open(path.c_str(), O_RDWR), ends[2];
  ASSERT_EQ(pipe(ends), 0);
  lseek(fildes, 100, SEEK_SET);
  EXPECT_EQ(fclear(fildes, 0), 0);
  EXPECT_EQ(fclear(fildes, 2500), 2500);
  EXPECT_EQ(contents(path), std::string(100, 'x') + std::string(2500, '\0') + std::string(2400, 'x'));
  using row = std::tuple<int, off_t, int>;
  for (auto [file, length, error] :
       {row{-1, 1, EBADF}, row{ends[1], 1, EINVAL}, row{fildes, LLONG_MAX, EFBIG}, row{fildes, -2601, EFBIG}}) {
    EXPECT_EQ(fclear(file, length), -1);
    EXPECT_EQ(errno, error);
  }
  for (int file : {fildes, ends[0], ends[1]}) close(file);
}

TEST(space, that_is_refused_leaves_no_file) {
  const std::string path = scratch() + "/refused", log = new_file(FRESH), kept = new_file("kept");
  off_t size = -7;
  EXPECT_EQ(zk_allocate_file(0, nullptr, kept.c_str(), 16384, 8192, &size), ZELK_SUCCESS);
  EXPECT_EQ(zk_create_debug_file((scratch() + "/none/x").c_str()), ZELK_DIR_MISSING);
  EXPECT_EQ(zk_create_debug_file((kept + "/x/y").c_str()), ZELK_FAILURE);
  EXPECT_EQ(zk_create_debug_file(""), ZELK_FAILURE);
  EXPECT_EQ(contents(kept), "kept");
  EXPECT_EQ(size, -7);
  chmod(scratch().c_str(), 0555);
  as_ordinary_user([&] { EXPECT_EQ(zk_create_debug_file(path.c_str()), ZELK_READ_ONLY); });
  chmod(scratch().c_str(), 0755);
  in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {10000, 10000}, none = {0, 0};
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(zk_allocate_file(1, log.c_str(), path.c_str(), 16384, 8192, &size), ZELK_NO_SPACE);
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(zk_create_debug_file(path.c_str()), ZELK_TOO_MANY);
  });
  EXPECT_EQ(trace_entries(log).back(),
            traced("zk_allocate_file", "Not enough space for fclear(" + path + ",16384) - error 27\n"));
  EXPECT_FALSE(std::filesystem::exists(path));
}

namespace {

constexpr char MADE[] = "/var/small/made";

/* A file system of 100 blocks, of which 5 are to stay available. */
struct small_volume {
  explicit small_volume(size_t used) {
    std::filesystem::create_directory("/var/small");
    EXPECT_EQ(mount("tmpfs", "/var/small", "tmpfs", 0, ("size=" + std::to_string(bytes(100))).c_str()), 0);
    std::ofstream("/var/small/used") << std::string(static_cast<size_t>(bytes(used)), 'u');
  }
  ~small_volume() { umount("/var/small"); }
  off_t bytes(size_t blocks) const { return static_cast<off_t>(blocks) * sysconf(_SC_PAGESIZE); }
};

}  // namespace

TEST(space, of_which_five_percent_stay_free) {
  NEEDS_PRIVATE_VAR();
  const struct {
    size_t used, requested, minimum, size; /* blocks; size 0: refused */
    const char* says;
  } rows[] = {{83, 10, 2, 10, "reserved"},     {84, 10, 2, 8, "reserved"},
              {86, 10, 5, 6, "reserved"},      {86, 10, 6, 0, "Cannot reserve"},
              {95, 4, 2, 0, "Cannot reserve"}, {96, 4, 2, 0, "5% space in /var/small"}};
  for (const auto& row : rows) {
    const small_volume volume(row.used);
    const std::string log = new_file(FRESH);
    off_t size = 0;
    const int result =
        zk_allocate_file(1, log.c_str(), MADE, volume.bytes(row.requested), volume.bytes(row.minimum), &size);
    EXPECT_EQ(result, row.size != 0 ? ZELK_SUCCESS : ZELK_NO_SPACE);
    EXPECT_EQ(size, volume.bytes(row.size)) << row.used;
    EXPECT_EQ(contents(MADE).substr(0, 36), row.size != 0 ? control_line(36, 0, size).substr(0, 36) : "");
    EXPECT_EQ(std::filesystem::exists(MADE), row.size != 0);
    EXPECT_NE(folded(trace_entries(log).back()).find(row.says), std::string::npos) << trace_entries(log).back();
  }
}

TEST(space, that_others_took_meanwhile_is_asked_for_again) {
  NEEDS_PRIVATE_VAR();
  /* The trace file is on the same volume, and the first entry, after the size is settled, takes two blocks. */
  for (size_t blocks : std::array<size_t, 2>{10, 3}) {
    const small_volume volume(95 - blocks - 3);
    std::ofstream("/var/small/log") << control_line(volume.bytes(2) - 11, 0, 99999);
    const bool fits = blocks == 10;
    off_t size = 0;
    const int result = zk_allocate_file(1, "/var/small/log", MADE, volume.bytes(blocks) + 1, 0, &size);
    EXPECT_EQ(result, fits ? ZELK_SUCCESS : ZELK_NO_SPACE);
    EXPECT_EQ(size, fits ? volume.bytes(8) + 1 : 0);
    EXPECT_EQ(std::filesystem::exists(MADE), fits);
  }
}

TEST(command, reports_the_same_whether_it_traces_or_not) {
  stack s;
  const std::string file = s.add("one").file(), log = scratch() + "/log", pipe = scratch() + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0666), 0);
  for (const std::vector<std::string>& arguments : std::initializer_list<std::vector<std::string>>{
           {"-d", "-s", file}, {"-a", "-p", "-s", file}, {"-s", "none"}, {"-h"}, {"-x"}}) {
    const outcome plain = zkview(arguments);
    std::filesystem::remove(log);
    for (const std::string& name :
         {log, log, file, scratch(), pipe, scratch() + "/none/x", std::string("/dev/zero"), std::string()})
      EXPECT_EQ(zkview(arguments, {{"ZELKDEBUG", name}}), plain) << arguments[0] << " " << name;
    EXPECT_GE(contents(log).size(), FRESH.size());
  }
}
