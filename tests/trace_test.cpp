/* The debug trace file: its bytes against a model, all its users at once, and the space it takes. */
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
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
    const long length = static_cast<long>(entry.size()), rest = size - offset - 23;
    if (rest <= length) {
      put(offset, text("[FILE RECYCLES HERE]\n") + std::string(static_cast<size_t>(std::max(rest, 0L)), '\0'));
      offset = 36;
      ++wraps;
    }
    put(offset, entry + "[END OF FINAL ENTRY]\n");
    offset += length;
    const size_t behind = static_cast<size_t>(offset) + 21, next = bytes.find('\1', behind);
    if (wraps != 0 && next < std::min(bytes.find('\0', behind), behind + 1024))
      bytes.replace(behind, next - behind, next - behind, '\0');
    put(0, control_line(offset, wraps, size).substr(0, 36));
  }
};

const std::string FRESH = trace_model().bytes;

std::string entry_of(const std::string& routine, const std::string& message) {
  timeval now = {};
  gettimeofday(&now, nullptr);
  char entry[1024];
  snprintf(entry, sizeof entry, "\1%s\tZELK Routine: %s\n\tCalled by PID %d Thread %d\n%s", ctime(&now.tv_sec),
           routine.c_str(), getpid(), static_cast<int>(static_cast<uint32_t>(pthread_self())), folded(message).c_str());
  return entry;
}

int trace(const std::string& path, const std::string& routine, const std::string& message) {
  errno = 77;
  const int result = zk_debug(path.c_str(), routine.c_str(), "%s", message.c_str());
  EXPECT_EQ(errno, 77);
  return result;
}

/* Traces into the file and the model, and compares; the second may change meanwhile. */
int trace_both(const std::string& path, trace_model& model, const std::string& routine, const std::string& message) {
  const std::string early = entry_of(routine, message);
  const int result = trace(path, routine, message);
  const std::string late = entry_of(routine, message), bytes = contents(path);
  model.append(bytes.find(early) != bytes.npos ? early : late);
  EXPECT_TRUE(bytes == model.bytes);
  return result;
}

/* The first one: it has a thread wait for its time zone, which the C library reads once in a process. */
TEST(trace, goes_on_in_a_child_forked_while_another_thread_traces) {
  const std::string path = new_file(FRESH), zone = scratch() + "/zone";
  ASSERT_EQ(mkfifo(zone.c_str(), 0600) | setenv("TZ", (":" + zone).c_str(), 1), 0);
  std::atomic<bool> done = false;
  std::jthread tracer([&] {
    trace(path, "parent", "m");
    done = true;
  });
  usleep(100000);
  std::thread release([&] {
    for (; !done; close(open(zone.c_str(), O_RDWR))) usleep(100000);
  });
  in_child([&] {
    alarm(20);
    unsetenv("TZ");
    EXPECT_EQ(trace(path, "child", "m"), ZELK_SUCCESS);
  });
  release.join();
  unsetenv("TZ");
}

TEST(trace_file, holds_what_the_model_holds_through_many_laps) {
  const unsigned int seed = std::random_device{}();
  std::mt19937 random(seed);
  auto below = [&](size_t limit) { return random() % limit; };
  for (const long size : {16384L, static_cast<long>(500 + below(4000))}) {
    trace_model model{36, 0, size};
    const std::string path = new_file(model.bytes);
    for (int count = 0; count < 400; ++count) {
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
  const std::tuple<long, long, long, long, int, std::string> rows[] = {
      {8000, 0, full, 1, 0, ""},
      {8000, 0, full + 1, 0, 0, ""},
      {16000, 0, 50, 1, 0, ""},
      {16380, 99999, 16384, 100000, ZELK_FILE_CORRUPT, ""},
      {12345, 6, 99999, 6, 0, "ZKTFO=12345678 ZKTFW=6ZKTFS=9999999\n"},
      {8000, 0, 8000, 1, 0, "ZKTFS=8000  ZKTFW=0     ZKTFO=16384\n"}}; /* the first "=" is the offset's */
  for (const auto& [offset, wraps, size, wraps_after, result, line] : rows) {
    trace_model model{offset, wraps, size};
    model.put(0, line);
    EXPECT_EQ(trace_both(new_file(model.bytes), model, "r", "m"), result) << offset;
    EXPECT_EQ(model.wraps, wraps_after) << offset;
  }
  for (const std::string& bytes :
       {control_line(35, 0, 16384), control_line(-999, 0, 16384), std::string(36, '='), FRESH.substr(0, 35),
        std::string("ZKTFO=36    ZKTFS=16384 ZKTFW 16384\n"), std::string("ZKTFO=36    ZKTFW=0     ZKTF\n       ")}) {
    const std::string path = new_file(bytes);
    EXPECT_EQ(trace(path, "r", "m"), ZELK_FILE_CORRUPT) << bytes;
    EXPECT_EQ(contents(path), bytes);
  }
}

TEST(trace_name, that_is_no_good_is_refused_at_each_use) {
  const std::string here = scratch() + "/", shut = new_file(FRESH);
  const std::string set_up = "mkfifo -m 666 fifo; ln -s loop loop; mkdir -m 0 cellar; chmod 755 .; chmod 0 " + shut;
  ASSERT_EQ(std::system(("cd " + here + "; " + set_up).c_str()), 0);
  const std::tuple<std::string, int, int, int> rows[] = {
      {shut, ZELK_TRACE_EXISTS, ZELK_SUCCESS, ZELK_NO_ACCESS},
      {here + "fifo", ZELK_TRACE_EXISTS, ZELK_SUCCESS, ZELK_LOCK},
      {here + "no/x", ZELK_TRACE_MISSING, ZELK_DIR_MISSING, ZELK_FILE_MISSING},
      {scratch(), ZELK_IS_A_DIR, ZELK_SUCCESS, ZELK_FAILURE},
      {shut + "/x", ZELK_DIR_MISSING, ZELK_FAILURE, ZELK_DIR_MISSING},
      {here + "loop", ZELK_LINK_LOOP, ZELK_SUCCESS, ZELK_LINK_LOOP},
      {here + "cellar/x", ZELK_DIR_NO_ACCESS, ZELK_READ_ONLY, ZELK_NO_ACCESS},
      {std::string(9999, '/'), ZELK_NAME_TOO_LONG, ZELK_FAILURE, ZELK_FAILURE}};
  as_ordinary_user([&] {
    for (const auto& [name, at_start, at_creation, at_entry] : rows) {
      std::string copy(ZELK_PATH_SIZE, '#');
      setenv("ZELKDEBUG", name.c_str(), 1);
      EXPECT_EQ(zk_is_debug_file_set(copy.data()), at_start) << name;
      EXPECT_TRUE(at_start > 0 ? copy.c_str() == name : copy[0] == '#') << name;
      EXPECT_EQ(zk_create_debug_file(name.c_str()), at_creation) << name;
      EXPECT_EQ(trace(name, "r", "m"), at_entry) << name;
    }
  });
  chmod((here + "cellar").c_str(), 0700); /* so that it can be removed */
}

TEST(trace_file, is_for_everybody_and_loses_no_entry_of_threads_at_once) {
  const std::string path = scratch() + "/shared";
  EXPECT_EQ(zk_allocate_file(0, nullptr, path.c_str(), 99999, 0, nullptr), ZELK_SUCCESS);
  EXPECT_TRUE(contents(path) == control_line(36, 0, 99999) + std::string(99963, '\0'));
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0666});
  std::vector<std::thread> workers;
  for (int worker = 0; worker < 8; ++worker)
    workers.emplace_back([worker, &path] {
      for (int entry = 0; entry < 90; ++entry) trace(path, "r", std::to_string(100 * worker + entry));
    });
  for (std::thread& worker : workers) worker.join();
  const std::vector<std::string> entries = trace_entries(path);
  EXPECT_EQ(std::set(entries.begin(), entries.end()).size(), 720u);
}

/* On a file system of 100 blocks, one of which the trace file takes. */
TEST(space, of_which_five_percent_stay_free) {
  NEEDS_PRIVATE_VAR();
  const long block = sysconf(_SC_PAGESIZE);
  const std::string folder = "/var/small", made = folder + "/made", log = folder + "/log";
  std::filesystem::create_directory(folder);
  const std::tuple<long, long, long, long, long, const char*> rows[] = {
      {82, 36, 10 * block, 2 * block, 10 * block, "reserved"},
      {83, 36, 10 * block, 2 * block, 8 * block, "reserved"},
      {85, 36, 10 * block, 5 * block, 6 * block, "reserved"},
      {85, 36, 10 * block, 6 * block, 0, "Cannot reserve"},
      {95, 36, 4 * block, 2 * block, 0, "5% space in /var/small"},
      /* The first entry, after the size is settled, takes two blocks: it has to be settled again. */
      {82, 2 * block - 11, 10 * block + 1, 0, 8 * block + 1, "reserved"},
      {89, 2 * block - 11, 3 * block + 1, 0, 0, "Minimum space not"}};
  for (const auto& [used, log_offset, requested, minimum, given, says] : rows) {
    ASSERT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", 0, ("size=" + std::to_string(100 * block)).c_str()), 0);
    std::ofstream(folder + "/used") << std::string(static_cast<size_t>(used * block), 'u');
    std::ofstream(log) << control_line(log_offset, 0, 99999);
    off_t size = 0;
    const int result = zk_allocate_file(1, log.c_str(), made.c_str(), requested, minimum, &size);
    EXPECT_EQ(result, given != 0 ? ZELK_SUCCESS : ZELK_NO_SPACE) << used;
    EXPECT_EQ(size, given) << used;
    EXPECT_EQ(std::filesystem::exists(made), given != 0) << used;
    EXPECT_NE(trace_entries(log).back().find(says), std::string::npos) << trace_entries(log).back();
    umount(folder.c_str());
  }
}

}  // namespace
