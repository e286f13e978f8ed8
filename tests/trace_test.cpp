/* The debug trace file: its bytes against a model, its users all at once, and the space it takes. */
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdarg>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "support.h"

namespace {

const std::string FINAL = "[END OF FINAL ENTRY]\n";

std::string control_line(long offset, long wraps, long size) {
  char line[80];
  snprintf(line, sizeof line, "ZKTFO=%-5ld ZKTFW=%-5ld ZKTFS=%-5ld\n", offset, wraps, size);
  return line;
}

/* A trace file as a string. */
struct trace_model {
  long offset, wraps, size;
  std::string bytes;

  void put(long at, const std::string& what) {
    const size_t start = static_cast<size_t>(at);
    if (bytes.size() < start + what.size()) bytes.resize(start + what.size());
    bytes.replace(start, what.size(), what);
  }
  void append(const std::string& entry) {
    const long length = static_cast<long>(entry.size());
    if (size <= offset + length + 23) {
      put(offset, text("[FILE RECYCLES HERE]\n"));
      if (size > offset + 23) put(offset + 22, std::string(static_cast<size_t>(size - offset - 23), '\0'));
      offset = 36;
      ++wraps;
    }
    put(offset, entry + FINAL);
    offset += length;
    const size_t behind = static_cast<size_t>(offset) + FINAL.size();
    const std::string ahead = bytes.substr(behind, 1024).c_str();
    if (wraps != 0 && ahead.find('\1') != ahead.npos)
      bytes.replace(behind, ahead.find('\1'), ahead.find('\1'), '\0');
    put(0, control_line(offset, wraps, size).substr(0, 36));
  }
  std::string file() const { return new_file(bytes); }
};

trace_model started(long offset, long wraps, long size, size_t length) {
  trace_model model{offset, wraps, size, control_line(offset, wraps, size)};
  model.bytes.resize(length);
  return model;
}

std::string time_text() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  return ctime(&now.tv_sec);
}

std::string entry_of(const std::string& time, const std::string& routine, const std::string& message) {
  const std::string thread = std::to_string(static_cast<int>(static_cast<uint32_t>(pthread_self())));
  return ("\1" + time + "\tZELK Routine: " + routine + "\n\tCalled by PID " + std::to_string(getpid()) +
          " Thread " + thread + "\n" + folded(message))
      .substr(0, 1023);
}

int trace(const std::string& path, const std::string& routine, const std::string& message) {
  errno = 77;
  int result = zk_debug(path.c_str(), routine.c_str(), "%s", message.c_str());
  EXPECT_EQ(errno, 77);
  return result;
}

/* Traces into the file and the model, and compares. The entry has the time before the call or the one after
 * it. */
int trace_both(const std::string& path, trace_model& model, const std::string& routine,
               const std::string& message) {
  trace_model earlier = model, later = model;
  earlier.append(entry_of(time_text(), routine, message));
  int result = trace(path, routine, message);
  later.append(entry_of(time_text(), routine, message));
  const std::string bytes = contents(path);
  model = bytes == earlier.bytes ? earlier : later;
  EXPECT_TRUE(bytes == model.bytes) << bytes;
  return result;
}

std::string formatted(const char* format, ...) {
  std::string lines(600, '\0');
  lines.replace(0, 6, "before");
  va_list arguments;
  va_start(arguments, format);
  EXPECT_EQ(zk_format_debug_info(lines.data(), format, arguments), ZELK_SUCCESS);
  va_end(arguments);
  return lines.c_str() + 6;
}

const std::string FRESH = control_line(36, 0, 16384) + std::string(16348, '\0');

}  // namespace

TEST(fresh_trace_file, is_a_control_line_and_zeros_that_everybody_may_write) {
  const std::string path = scratch() + "/fresh";
  const mode_t mask = umask(077);
  EXPECT_EQ(zk_create_debug_file(path.c_str()), ZELK_SUCCESS);
  umask(mask);
  EXPECT_EQ(contents(path), FRESH);
  struct stat status = {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, S_IFREG | 0666u);
}

TEST(trace_message, is_folded_and_cut) {
  const std::string a72(72, 'a'), b72(72, 'b');
  const struct {
    std::string message, lines;
  } rows[] = {
      {"", ""},
      {"a", "\ta\n"},
      {"a\n", "\ta\n"},
      {"a\nb", "\ta\n\tb\n"},
      {"\n\na", "\t\n\t\n\ta\n"},
      {a72, "\t" + a72 + "\n"},
      {a72 + "\n", "\t" + a72 + "\n"},
      {a72 + "\nb", "\t" + a72 + "\n\tb\n"},
      {a72 + "a\nb", "\t" + a72 + "\n\ta\n\tb\n"},
      {a72 + b72.substr(44), "\t" + a72 + "\n\t" + b72.substr(44) + "\n"},
      {a72 + b72 + a72 + b72, "\t" + a72 + "\n\t" + b72 + "\n\t" + a72 + "\n\t" + b72.substr(34) + "\n"},
      {std::string(300, '\n'), folded(std::string(254, '\n'))}};
  for (const auto& row : rows) {
    EXPECT_EQ(formatted("%s", row.message.c_str()), row.lines);
    EXPECT_EQ(folded(row.message), row.lines); /* what the other tests reckon with */
  }
  EXPECT_EQ(formatted("%d of %s", 7, "nine"), "\t7 of nine\n");
}

TEST(trace_file, holds_what_the_model_holds_through_many_laps) {
  const unsigned int seed = std::random_device{}();
  std::mt19937 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  auto below = [&](size_t limit) { return random() % limit; };
  for (int round = 0; round < 12; ++round) {
    trace_model model{36, 0, 16384, FRESH};
    if (round % 2 != 0) model = started(36, 0, static_cast<long>(500 + below(4000)), 4500);
    const std::string path = model.file();
    std::vector<std::string> written;
    for (int count = 0; count < 300 && !HasFailure(); ++count) {
      const std::string routine(below(40) == 0 ? 880 + below(200) : 1 + below(30), 'r');
      std::string message(below(300), 'm');
      for (char& letter : message) letter = below(50) == 0 ? '\n' : static_cast<char>(' ' + below(223));
      EXPECT_EQ(trace_both(path, model, routine, message), ZELK_SUCCESS);
      if (routine.size() < 800) written.push_back(traced(routine, message));
      /* What is left of the laps is whole, and the newest of all. */
      std::vector<std::string> left = trace_entries(path);
      std::erase_if(left, [](const std::string& entry) { return entry.find('\n') > 800; });
      ASSERT_LE(left.size(), written.size());
      EXPECT_TRUE(std::equal(left.rbegin(), left.rend(), written.rbegin()));
    }
    EXPECT_GT(model.wraps, 1);
  }
}

TEST(trace_file, wraps_when_the_rest_would_just_be_used_up) {
  const long length = static_cast<long>(entry_of(time_text(), "r", "m").size());
  for (long spare : {0, 1}) {
    trace_model model = started(8000, 0, 8000 + length + 23 + spare, 9000);
    const std::string path = model.file();
    EXPECT_EQ(trace_both(path, model, "r", "m"), ZELK_SUCCESS);
    EXPECT_EQ(model.wraps, 1 - spare);
  }
}

TEST(trace_file, with_a_hostile_control_line_leaves_what_the_rules_leave) {
  /* Unreadable ones: nothing is written. */
  for (std::string line :
       {control_line(35, 0, 16384), control_line(0, 3, 16384), control_line(-999, 0, 16384),
        std::string(36, 'x'), std::string(36, '='), std::string("ZKTFO=36    ZKTFW=0     ZKTFS"),
        std::string("ZKTFO=36    ZKTFS=16384 ZKTFW 16384\n"), std::string("ZKTFW=1     ZKTFS=16384 "),
        std::string("ZKTFO=none  ZKTFW=0     ZKTFS=16384\n"), std::string(), FRESH.substr(0, 35)}) {
    const std::string bytes = line + (line.size() == 36 ? std::string(16348, '\0') : ""),
                      path = new_file(bytes);
    EXPECT_EQ(trace(path, "r", "m"), ZELK_FILE_CORRUPT) << line;
    EXPECT_TRUE(contents(path) == bytes) << line;
  }
  /* Odd ones that count: past the size, no size, no room at all, and a count that outgrows its field. */
  const struct {
    long offset, wraps, size;
    int result;
  } rows[] = {{20000, 0, 16384, ZELK_SUCCESS}, {99999, 7, 16384, ZELK_SUCCESS},
              {36, 0, 0, ZELK_SUCCESS},        {100, -3, -999, ZELK_SUCCESS},
              {16000, 0, 50, ZELK_SUCCESS},    {16380, 99999, 16384, ZELK_FILE_CORRUPT}};
  for (const auto& row : rows) {
    trace_model model = started(row.offset, row.wraps, row.size, 16384);
    const std::string path = model.file();
    EXPECT_EQ(trace_both(path, model, "r", "m"), row.result) << row.offset;
  }
  trace_model model = started(200, 0, 99999, 16384);
  const std::string path = model.file(), huge(100000, 'e');
  int fildes = open(path.c_str(), O_RDWR);
  EXPECT_EQ(zk_record_debug_info(fildes, huge.c_str()), ZELK_FILE_CORRUPT);
  close(fildes);
  model.append(huge);
  EXPECT_TRUE(contents(path) == model.bytes);
}

TEST(control_line, is_read_by_its_marks) {
  const struct {
    const char* line;
    off_t offset, size;
    int wraps;
  } rows[] = {{"ZKTFO=36    ZKTFW=0     ZKTFS=16384\n", 36, 16384, 0},
              {"ZKTFO=1234567 ZKTFW=76543210 ZKTFS=999999", 12345, 99999, 76543},
              {"ZKTFO=12345ZKTFW=3ZKTFS=-2345678", 12345, -2345, 3},
              {"ZKTFS=9 ZKTFW=8 ZKTFO=7", 9, 9, 8}, /* the first "=" is the offset's, whoever's it is */
              {"ZKTFO= ZKTFW=x ZKTFS=", 0, 0, 0}};
  for (const auto& row : rows) {
    off_t offset = -1, size = -1;
    int wraps = -1;
    EXPECT_EQ(zk_get_file_ctrl_info(row.line, &offset, &size, &wraps), ZELK_SUCCESS);
    EXPECT_EQ(std::tie(offset, size, wraps), std::tie(row.offset, row.size, row.wraps)) << row.line;
  }
}

TEST(trace, into_a_bad_file_is_lost_and_says_why) {
  const std::string here = scratch(), shut = here + "/shut";
  ASSERT_EQ(mkfifo((here + "/fifo").c_str(), 0666), 0);
  ASSERT_EQ(symlink("loop", (here + "/loop").c_str()), 0);
  std::ofstream(shut) << FRESH;
  chmod(shut.c_str(), 0);
  chmod(here.c_str(), 0755);
  const std::pair<std::string, int> rows[] = {{here, ZELK_FAILURE},
                                              {here + "/fifo", ZELK_LOCK},
                                              {"/dev/zero", ZELK_FILE_CORRUPT},
                                              {"/dev/full", ZELK_FILE_CORRUPT},
                                              {"", ZELK_FILE_MISSING},
                                              {here + "/none/x", ZELK_FILE_MISSING},
                                              {"/dev/null/x", ZELK_DIR_MISSING},
                                              {here + "/loop", ZELK_LINK_LOOP},
                                              {std::string(5000, 'n'), ZELK_FAILURE}};
  for (const auto& [name, result] : rows) EXPECT_EQ(trace(name, "r", "m"), result) << name;
  as_ordinary_user([&] { EXPECT_EQ(trace(shut, "r", "m"), ZELK_NO_ACCESS); });
  in_child([&] {
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(trace(shut, "r", "m"), ZELK_TOO_MANY);
  });
  EXPECT_EQ(contents(shut), FRESH);
  const char* null_format = nullptr;
  EXPECT_EQ(zk_debug(nullptr, "r", "m"), ZELK_INV_PARAM1);
  EXPECT_EQ(zk_debug(shut.c_str(), nullptr, "m"), ZELK_INV_PARAM2);
  EXPECT_EQ(zk_debug(shut.c_str(), "r", null_format), ZELK_INV_PARAM3);
}

TEST(trace_variable, decides_whether_to_trace) {
  const std::string here = scratch(), old = new_file(""), cellar = here + "/cellar";
  ASSERT_EQ(symlink("ring", (here + "/ring").c_str()), 0);
  ASSERT_EQ(mkdir(cellar.c_str(), 0700), 0);
  chmod(here.c_str(), 0755);
  const std::pair<std::string, int> rows[] = {{old, ZELK_TRACE_EXISTS},
                                              {"/dev/null", ZELK_TRACE_EXISTS},
                                              {here + "/new", ZELK_TRACE_MISSING},
                                              {"", ZELK_TRACE_MISSING},
                                              {here + "/no/new", ZELK_TRACE_MISSING},
                                              {here, ZELK_IS_A_DIR},
                                              {old + "/x", ZELK_DIR_MISSING},
                                              {here + "/ring", ZELK_LINK_LOOP},
                                              {std::string(256, 'n'), ZELK_NAME_TOO_LONG},
                                              {cellar + "/x", ZELK_DIR_NO_ACCESS},
                                              {std::string(9999, '/'), ZELK_NAME_TOO_LONG}};
  as_ordinary_user([&] {
    for (const auto& [value, result] : rows) {
      setenv("ZELKDEBUG", value.c_str(), 1);
      std::string name(ZELK_PATH_SIZE, '#');
      EXPECT_EQ(zk_is_debug_file_set(name.data()), result) << value;
      EXPECT_EQ(
          name.compare(0, value.size() + 1, result > 0 ? text(value) : std::string(value.size() + 1, '#')),
          0);
    }
    unsetenv("ZELKDEBUG");
    EXPECT_EQ(zk_is_debug_file_set(std::string("#").data()), ZELK_TRACE_UNSET);
    EXPECT_EQ(zk_is_debug_file_set(nullptr), ZELK_INV_PARAM1);
  });
  EXPECT_EQ(zk_create_debug_file(""), ZELK_FAILURE);
}

TEST(trace_file, loses_no_entry_of_processes_and_threads_at_once) {
  constexpr int WORKERS = 8, ENTRIES = 90;
  for (bool processes : {true, false}) {
    const std::string path = started(36, 0, 99999, 36).file();
    auto work = [&](int worker) {
      for (int entry = 0; entry < ENTRIES; ++entry)
        EXPECT_EQ(zk_debug(path.c_str(), "r", "%d-%d", worker, entry), ZELK_SUCCESS);
    };
    std::vector<std::thread> workers;
    for (int worker = 0; worker < WORKERS; ++worker)
      workers.emplace_back([&, worker] { processes ? in_child([&] { work(worker); }) : work(worker); });
    for (std::thread& worker : workers) worker.join();
    std::multiset<std::string> expected, found;
    for (int entry = 0; entry < WORKERS * ENTRIES; ++entry)
      expected.insert(traced("r", std::to_string(entry / ENTRIES) + "-" + std::to_string(entry % ENTRIES)));
    for (const std::string& entry : trace_entries(path)) found.insert(entry);
    EXPECT_EQ(found, expected);
  }
}

TEST(trace, goes_on_in_a_child_whatever_other_threads_trace_at_the_fork) {
  const std::string path = new_file(FRESH);
  std::atomic<bool> done = false;
  std::vector<std::thread> tracers;
  for (int count = 0; count < 4; ++count)
    tracers.emplace_back([&] {
      while (!done) trace(path, "parent", "m");
    });
  for (int count = 0; count < 400 && !HasFailure(); ++count)
    in_child([&] {
      alarm(20);
      EXPECT_EQ(trace(path, "child", "m"), ZELK_SUCCESS);
    });
  done = true;
  for (std::thread& tracer : tracers) tracer.join();
}

TEST(trace_file, made_twice_at_once_is_made_once) {
  for (int count = 0; count < 50; ++count) {
    const std::string path = scratch() + "/raced" + std::to_string(count);
    auto create = [&] { EXPECT_EQ(zk_create_debug_file(path.c_str()), ZELK_SUCCESS); };
    std::thread other(create);
    create();
    other.join();
    EXPECT_TRUE(contents(path) == FRESH);
  }
}

TEST(space_fill, counts_what_it_writes) {
  const std::string path = new_file(std::string(5000, 'x'));
  int fildes = open(path.c_str(), O_RDWR), ends[2];
  ASSERT_EQ(pipe(ends), 0);
  lseek(fildes, 100, SEEK_SET);
  EXPECT_EQ(fclear(fildes, 0), 0);
  EXPECT_EQ(fclear(fildes, 2500), 2500);
  EXPECT_EQ(contents(path), std::string(100, 'x') + std::string(2500, '\0') + std::string(2400, 'x'));
  const struct {
    int fildes;
    off_t length;
    int error;
  } rows[] = {{-1, 1, EBADF}, {ends[1], 1, EINVAL}, {fildes, LLONG_MAX, EFBIG}, {fildes, -2601, EFBIG}};
  for (const auto& row : rows) {
    EXPECT_EQ(fclear(row.fildes, row.length), -1);
    EXPECT_EQ(errno, row.error);
  }
  for (int one : {fildes, ends[0], ends[1]}) close(one);
}

TEST(allocation, that_is_refused_leaves_no_file) {
  const std::string here = scratch(), path = here + "/refused";
  off_t size = -7;
  EXPECT_EQ(zk_allocate_file(0, nullptr, nullptr, 16384, 8192, &size), ZELK_INV_PARAM3);
  EXPECT_EQ(zk_determine_max_fsize(0, nullptr, path.c_str(), 16384, 8192, nullptr), ZELK_INV_PARAM4);
  EXPECT_EQ(zk_allocate_file(0, nullptr, new_file("kept").c_str(), 16384, 8192, &size), ZELK_SUCCESS);
  EXPECT_EQ(zk_create_debug_file((here + "/none/x").c_str()), ZELK_DIR_MISSING);
  EXPECT_EQ(zk_create_debug_file((new_file("") + "/x/y").c_str()), ZELK_FAILURE);
  EXPECT_EQ(size, -7);
  chmod(here.c_str(), 0755);
  as_ordinary_user([&] { EXPECT_EQ(zk_create_debug_file(path.c_str()), ZELK_READ_ONLY); });
  const std::string log = new_file(FRESH);
  in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {10000, 10000};
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(zk_allocate_file(1, log.c_str(), path.c_str(), 16384, 8192, &size), ZELK_NO_SPACE);
    const rlimit none = {0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(zk_create_debug_file(path.c_str()), ZELK_TOO_MANY);
  });
  EXPECT_EQ(trace_entries(log).back(),
            traced("zk_allocate_file", "Not enough space for fclear(" + path + ",16384) - error 27\n"));
  EXPECT_FALSE(std::filesystem::exists(path));
}

namespace {

/* A file system of 100 blocks, of which 5 are to stay available, with so many in use. */
struct small_volume {
  explicit small_volume(size_t used) : block(static_cast<size_t>(sysconf(_SC_PAGESIZE))) {
    std::filesystem::create_directory(path);
    EXPECT_EQ(mount("tmpfs", path.c_str(), "tmpfs", 0, ("size=" + std::to_string(100 * block)).c_str()), 0);
    std::ofstream(path + "/used") << std::string(used * block, 'u');
  }
  ~small_volume() { umount(path.c_str()); }
  const std::string path = "/var/small";
  const size_t block;
};

}  // namespace

TEST(allocation, leaves_five_percent_of_the_blocks) {
  NEEDS_PRIVATE_VAR();
  const struct {
    size_t used, requested, minimum, size; /* blocks; size 0: refused */
    const char* entry;
  } rows[] = {{83, 10, 2, 10, nullptr}, /* 83 + 10 + 1 < 95 */
              {84, 10, 2, 8, nullptr},
              {85, 10, 2, 8, nullptr},
              {86, 10, 6, 0, "Cannot reserve %zu bytes, returning ZELK_NO_SPACE(-18)\n"},
              {86, 10, 5, 6, nullptr},
              {95, 4, 2, 0, "Cannot reserve %zu bytes, returning ZELK_NO_SPACE(-18)\n"},
              {96, 4, 2, 0, "5%% space in /var/small not available, returning ZELK_NO_SPACE(-18)\n"}};
  for (const auto& row : rows) {
    const small_volume volume(row.used);
    const std::string path = volume.path + "/made", log = new_file(FRESH);
    const size_t bytes = row.size * volume.block;
    off_t size = 0;
    EXPECT_EQ(zk_allocate_file(1, log.c_str(), path.c_str(), static_cast<off_t>(row.requested * volume.block),
                               static_cast<off_t>(row.minimum * volume.block), &size),
              row.size != 0 ? ZELK_SUCCESS : ZELK_NO_SPACE);
    EXPECT_EQ(static_cast<size_t>(size), bytes) << row.used;
    std::string expected = control_line(36, 0, size);
    expected.resize(bytes);
    EXPECT_TRUE(contents(path) == (bytes != 0 ? expected : "")) << row.used;
    EXPECT_EQ(std::filesystem::exists(path), bytes != 0);
    if (row.entry == nullptr) {
      const std::string made = std::to_string(size) + " bytes";
      const std::string asked = std::to_string(row.requested * volume.block);
      EXPECT_EQ(
          trace_entries(log),
          (std::vector{
              traced("zk_determine_max_fsize", "Requested " + asked + " bytes, able to get " + made),
              traced("zk_allocate_file", path + " reserved (" + made + ") - returning ZELK_SUCCESS(0)")}));
    } else {
      char entry[200];
      snprintf(entry, sizeof entry, row.entry, row.minimum * volume.block);
      EXPECT_EQ(trace_entries(log), std::vector{traced("zk_determine_max_fsize", entry)});
    }
  }
}

TEST(allocation, tries_again_when_others_took_the_space_meanwhile) {
  NEEDS_PRIVATE_VAR();
  /* The trace file is on the same volume and takes two blocks when it wraps: after the size is settled. */
  for (size_t requested : {10, 3}) {
    const small_volume volume(95 - requested - 3);
    const std::string path = volume.path + "/made", log = volume.path + "/log";
    std::ofstream(log) << control_line(static_cast<long>(2 * volume.block - 11), 0, 0).replace(30, 1, "1");
    off_t size = 0;
    const bool fits = requested > 4;
    EXPECT_EQ(zk_allocate_file(1, log.c_str(), path.c_str(), static_cast<off_t>(requested * volume.block + 1),
                               0, &size),
              fits ? ZELK_SUCCESS : ZELK_NO_SPACE);
    EXPECT_EQ(std::filesystem::exists(path), fits);
    EXPECT_EQ(static_cast<size_t>(size), fits ? (requested - 2) * volume.block + 1 : 0);
    const std::string entries = contents(log);
    std::cout << entries << "\n";
  }
}

TEST(command, reports_the_same_whether_it_traces_or_not) {
  stack s;
  const std::string file = s.add("one").add("two").file(), corrupt = new_file("short"),
                    fresh = scratch() + "/log";
  ASSERT_EQ(mkfifo((scratch() + "/pipe").c_str(), 0666), 0);
  for (const std::vector<std::string>& arguments : {std::vector<std::string>{"-d", "-s", file},
                                                    {"-a", "-p", "-s", file},
                                                    {"-s", corrupt},
                                                    {"-s", "none"},
                                                    {"-h"},
                                                    {"-x"}}) {
    const outcome plain = zkview(arguments);
    std::filesystem::remove(fresh);
    for (const std::string& name : {fresh, fresh, new_file("no trace"), scratch(), scratch() + "/pipe",
                                    scratch() + "/none/x", std::string("/dev/zero"), std::string()})
      EXPECT_EQ(zkview(arguments, {{"ZELKDEBUG", name}}), plain) << arguments[0] << " " << name;
    EXPECT_GT(contents(fresh).find("\1"), 35u);
  }
}
