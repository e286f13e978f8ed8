/* The routines of the libraries and of the command, beside what they are held against. */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>
#include <thread>

#include "inputs.h"
#include "qx_record.h"
#include "zk_int.h"
#include "zk_msg.h"
#include "zkrecord.h"

static std::string new_file(const std::string& contents) {
  char path[] = "/tmp/zkview-bench-XXXXXX";
  const int fildes = mkstemp(path);
  if (write(fildes, contents.data(), contents.size()) == -1) std::abort();
  close(fildes);
  return path;
}

/* ---- Numbers and Error IDs ----------------------------------------------------------------------------------------- */

static void zk_l64a_r_six_digits(benchmark::State& state) {
  char digits[8];
  for (uint64_t value = 0xC0A80102FULL; auto _ : state) {
    benchmark::DoNotOptimize(zk_l64a_r(value, digits, sizeof digits));
    benchmark::ClobberMemory();
  }
}
BENCHMARK(zk_l64a_r_six_digits);

static void zk_a64l_six_digits(benchmark::State& state) {
  char digits[] = "J3iLY0";
  for (auto _ : state) {
    benchmark::DoNotOptimize(digits);
    benchmark::DoNotOptimize(zk_a64l(digits));
  }
}
BENCHMARK(zk_a64l_six_digits);

static void zk_generate_eid_2_stack(benchmark::State& state) {
  const std::string stack = new_file("");
  setenv("ZELKADDR", "/...z/...................", 1);
  for (auto _ : state) {
    zk_eid_t eid;
    long seconds;
    benchmark::DoNotOptimize(zk_generate_eid_2(0, nullptr, stack.c_str(), 0, -1, 0, &seconds, eid));
  }
  unlink(stack.c_str());
}
BENCHMARK(zk_generate_eid_2_stack);

static void another_identifier(benchmark::State& state) {
  for (auto _ : state) {
    uuid_t uuid;
    uuid_generate_time(uuid);
    benchmark::DoNotOptimize(uuid);
  }
}
BENCHMARK(another_identifier)->Name("uuid_generate_time");

static void zk_decode_eid_2_remote(benchmark::State& state) {
  int local, version, location, facility, priority, ipv6;
  unsigned int label;
  char files[4 * ZELK_FILE_SLOT_SIZE] = "", address[16];
  timeval time;
  const std::string eid = bench_eid(1);
  for (auto _ : state)
    benchmark::DoNotOptimize(zk_decode_eid_2(0, nullptr, eid.c_str(), &local, &version, &location, files, 4, &label,
                                             &facility, &priority, &time, address, &ipv6));
}
BENCHMARK(zk_decode_eid_2_remote);

/* ---- Records ------------------------------------------------------------------------------------------------------- */

static void decode_record(benchmark::State& state) {
  const std::string record = bench_record(1, 1000, -1);
  for (auto _ : state) {
    zk_record_t decoded;
    zk_open_record({}, record.data(), &decoded);
    benchmark::DoNotOptimize(zk_decode_record({}, &decoded));
    zk_release_description(&decoded.description);
  }
}
BENCHMARK(decode_record);

static void format_description(benchmark::State& state) {
  char disk[] = "disk07";
  cu_error_arg_t arguments[2] = {};
  arguments[0].cu_arg_type = CU_ERROR_ARG_CHAR_STR;
  arguments[0].cu_arg_value.cu_arg_char_str = disk;
  arguments[1].cu_arg_value.cu_arg_int = 85;
  const cu_error_t error = {1, nullptr, "", 1, 1, "Disk %1$s: %2$d unreadable sectors", 2, arguments};
  for (auto _ : state) {
    char* text = nullptr;
    cu_get_errmsg_1(&error, &text);
    free(text);
  }
}
BENCHMARK(format_description);

static void walk_full_stack(benchmark::State& state) {
  const std::string path = new_file(full_stack());
  const int fildes = open(path.c_str(), O_RDWR);
  for (auto _ : state) /* a search that finds nothing prints nothing */
    benchmark::DoNotOptimize(zk_dump_stack(0, nullptr, 0, 0, "no such Error ID", 1, fildes, ZK_NO_CATALOG));
  close(fildes);
  unlink(path.c_str());
}
BENCHMARK(walk_full_stack);

/* ---- Recording ----------------------------------------------------------------------------------------------------- */

static const std::string bench_path = "/tmp/zkview-bench-recorded";

static void record_incident(benchmark::State& state) {
  zk_incident_t incident = {};
  char disk[] = "disk07";
  cu_error_arg_t arguments[2] = {};
  arguments[0].cu_arg_type = CU_ERROR_ARG_CHAR_STR;
  arguments[0].cu_arg_value.cu_arg_char_str = disk;
  arguments[1].cu_arg_value.cu_arg_int = 85;
  incident.process_name = "stn_diskmon";
  incident.detecting_file = "/usr/src/stn/disk.c";
  incident.default_message = "%1$s: %2$d unreadable sectors";
  incident.details = "state ok";
  incident.arguments = arguments;
  incident.argument_count = 2;
  unlink(bench_path.c_str());
  zk_recorder_t* recorder = nullptr;
  zk_eid_t eid;
  bool is_good = zk_create_stack(0, nullptr, bench_path.c_str(), 16384) == ZELK_SUCCESS &&
                 zk_open_recorder(0, nullptr, bench_path.c_str(), &recorder) == ZELK_SUCCESS;
  for (auto _ : state) is_good = is_good && zk_record_incident(0, nullptr, recorder, &incident, eid) == ZELK_SUCCESS;
  if (!is_good) state.SkipWithError("cannot record");
  zk_close_recorder(recorder);
  unlink(bench_path.c_str());
}
BENCHMARK(record_incident);

/* The system calls of an incident in a stack that has wrapped, without what is between them. */
static void record_incident_bare_calls(benchmark::State& state) {
  constexpr off_t RECORD_SIZE = 206;
  unlink(bench_path.c_str());
  const int fildes = open(bench_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  const std::string bytes(ZK_STACK_SIZE_MAX, '\0');
  bool is_good = write(fildes, bytes.data(), bytes.size()) == ZK_STACK_SIZE_MAX;
  off_t newest = ZK_STACK_RECORDS_MIN;
  for (auto _ : state) {
    const off_t next =
        newest + 2 * RECORD_SIZE < ZK_STACK_SIZE_MAX ? newest + RECORD_SIZE : off_t{ZK_STACK_RECORDS_MIN};
    struct flock lock = {};
    struct stat status;
    char head[24], eid[ZELK_EID_SIZE];
    benchmark::DoNotOptimize(getpid() + getppid() + gettid());
    lock.l_type = F_WRLCK;
    is_good = is_good && fcntl(fildes, F_OFD_SETLKW, &lock) == 0 && fstat(fildes, &status) == 0;
    is_good = is_good && pread(fildes, head, sizeof head, 0) > 0 && pread(fildes, eid, sizeof eid, newest + 8) > 0;
    is_good = is_good && pwrite(fildes, bytes.data(), 20, 4) > 0;
    is_good = is_good && pwrite(fildes, bytes.data(), RECORD_SIZE + 4, next) > 0;
    is_good = is_good && pwrite(fildes, bytes.data(), 20, 4) > 0;
    lock.l_type = F_UNLCK;
    is_good = is_good && fcntl(fildes, F_OFD_SETLKW, &lock) == 0;
    newest = next;
  }
  if (!is_good) state.SkipWithError("a call failed");
  close(fildes);
  unlink(bench_path.c_str());
}
BENCHMARK(record_incident_bare_calls);

/* The same into a table, one that keeps as many. */
static void insert_into_table(benchmark::State& state) {
  sqlite3* database = nullptr;
  sqlite3_stmt* insert = nullptr;
  for (const char* suffix : {"", "-wal", "-shm"}) unlink((bench_path + suffix).c_str());
  bool is_good = sqlite3_open(bench_path.c_str(), &database) == SQLITE_OK;
  auto execute = [&](const char* text) { return sqlite3_exec(database, text, nullptr, nullptr, nullptr) == SQLITE_OK; };
  is_good = is_good && execute("PRAGMA journal_mode = WAL") && execute("PRAGMA synchronous = OFF") &&
            execute(
                "CREATE TABLE incident (slot INTEGER PRIMARY KEY, id, time, process, pid, parent, thread, file, line, "
                "message, disk, sectors, details)") &&
            sqlite3_prepare_v2(database,
                               "INSERT OR REPLACE INTO incident VALUES (?, '7J4EI..3KW/f/...................', "
                               "1790000000, 'stn_diskmon', ?, 1, 7, '/usr/src/stn/disk.c', 97, "
                               "'%1$s: %2$d unreadable sectors', 'disk07', 85, 'state ok')",
                               -1, &insert, nullptr) == SQLITE_OK;
  int number = 0;
  for (auto _ : state) {
    is_good = is_good && sqlite3_bind_int(insert, 1, ++number % 79) == SQLITE_OK &&
              sqlite3_bind_int(insert, 2, getpid()) == SQLITE_OK && sqlite3_step(insert) == SQLITE_DONE &&
              sqlite3_reset(insert) == SQLITE_OK;
  }
  if (!is_good) state.SkipWithError("cannot insert");
  sqlite3_finalize(insert);
  sqlite3_close(database);
  for (const char* suffix : {"", "-wal", "-shm"}) unlink((bench_path + suffix).c_str());
}
BENCHMARK(insert_into_table);

/* The same to a log daemon of our own, which takes the lines and drops them, in a /dev that only this program sees. */
static void send_to_syslog(benchmark::State& state) {
  const int daemon = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const sockaddr_un address = {AF_UNIX, "/dev/log"};
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      mount("tmpfs", "/dev", "tmpfs", 0, nullptr) != 0 ||
      bind(daemon, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    state.SkipWithError("the machine forbids a mount namespace");
    close(daemon);
    return;
  }
  std::thread reader([=] {
    char line[1024];
    while (recv(daemon, line, sizeof line, 0) > 0) {
    }
  });
  openlog("stn_diskmon", LOG_PID, LOG_DAEMON);
  for (auto _ : state)
    syslog(LOG_ERR, "/usr/src/stn/disk.c:%d: %s: %d unreadable sectors, %s", 97, "disk07", 85, "state ok");
  closelog();
  shutdown(daemon, SHUT_RDWR);
  reader.join();
  close(daemon);
  umount("/dev");
}
BENCHMARK(send_to_syslog);

/* ---- The trace ----------------------------------------------------------------------------------------------------- */

static void trace_entry(benchmark::State& state) {
  const std::string path = "/tmp/zkview-bench-trace";
  unlink(path.c_str());
  zk_create_debug_file(path.c_str());
  for (auto _ : state) zk_debug(path.c_str(), "trace_entry", "Read up to current write position %d.", 16384);
  unlink(path.c_str());
}
BENCHMARK(trace_entry);

/* The system calls of an entry in a file that has wrapped, without what is between them. */
static void trace_entry_bare_calls(benchmark::State& state) {
  const std::string path = new_file(std::string(16384, ' '));
  char line[36], ahead[1024];
  const std::string entry(170, 'e'), marker(21, 'm');
  for (auto _ : state) {
    const int fildes = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    lseek(fildes, 0, SEEK_SET);
    bool is_done = lockf(fildes, F_LOCK, 0) == 0 && read(fildes, line, sizeof line) == sizeof line;
    lseek(fildes, 8000, SEEK_SET);
    is_done = is_done && write(fildes, entry.data(), entry.size()) > 0 && write(fildes, marker.data(), 21) > 0;
    lseek(fildes, 0, SEEK_CUR);
    is_done = is_done && read(fildes, ahead, sizeof ahead) > 0;
    lseek(fildes, 8191, SEEK_SET);
    lseek(fildes, 0, SEEK_CUR);
    is_done = is_done && write(fildes, ahead, 170) > 0;
    lseek(fildes, 0, SEEK_SET);
    is_done = is_done && write(fildes, line, sizeof line) > 0;
    lseek(fildes, 0, SEEK_SET);
    is_done = is_done && lockf(fildes, F_ULOCK, 0) == 0;
    close(fildes);
    if (!is_done) state.SkipWithError("a call failed");
  }
  unlink(path.c_str());
}
BENCHMARK(trace_entry_bare_calls);
