/* SPDX-License-Identifier: MIT */
/* The routines of the libraries and of the command, beside what they are held against. */
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cstdlib>
#include <cstring>

#include "inputs.h"
#include "qx_record.h"
#include "zk_int.h"
#include "zk_msg.h"
#include "zk_trace.h"
#include "zkfields.h"

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
    zk_decoded_t decoded;
    zk_open_record({}, record.data(), &decoded);
    benchmark::DoNotOptimize(zk_decode_record({}, &decoded));
    zk_release_arguments(&decoded);
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

/* ---- Recording ----------------------------------------------------------------------------------------------------- */

static const char DETAILS[] = "state      degraded, 7 of 8 disks\nredundancy none until a disk is replaced";

static void record_incident(benchmark::State& state) {
  const std::string path = "/tmp/zkview-bench-stack";
  unlink(path.c_str());
  zk_recorder_t* recorder = nullptr;
  zk_create_stack(0, nullptr, path.c_str(), 16384);
  if (zk_open_recorder(0, nullptr, path.c_str(), &recorder) != 0) std::abort();
  zk_incident_t incident = {};
  incident.default_message = "Volume archive is degraded.";
  incident.details = DETAILS;
  for (auto _ : state) {
    zk_eid_t eid;
    if (zk_record_incident(0, nullptr, recorder, &incident, eid) != 0) state.SkipWithError("not recorded");
  }
  zk_close_recorder(recorder);
  unlink(path.c_str());
}
BENCHMARK(record_incident);

/* The system calls of an incident in a stack that has wrapped, without what is between them. */
static void record_incident_bare_calls(benchmark::State& state) {
  const std::string path = new_file(std::string(16384, ' '));
  const int fildes = open(path.c_str(), O_RDWR);
  char stack[16385], record[240] = "";
  struct flock whole = {};
  whole.l_whence = SEEK_SET;
  for (off_t at = 24; auto _ : state) {
    bool is_done = getpid() > 0 && getppid() >= 0 && gettid() > 0;
    whole.l_type = F_WRLCK;
    is_done = is_done && fcntl(fildes, F_OFD_SETLKW, &whole) == 0 && pread(fildes, stack, sizeof stack, 0) > 0;
    is_done = is_done && pwrite(fildes, stack, 20, 4) > 0 && pwrite(fildes, record, sizeof record, at) > 0;
    is_done = is_done && pwrite(fildes, record, 4, at) > 0 && pwrite(fildes, stack, 20, 4) > 0;
    whole.l_type = F_UNLCK;
    is_done = is_done && fcntl(fildes, F_OFD_SETLKW, &whole) == 0;
    if (!is_done) state.SkipWithError("a call failed");
    at = at < 16000 ? at + static_cast<off_t>(sizeof record) : 24;
  }
  close(fildes);
  unlink(path.c_str());
}
BENCHMARK(record_incident_bare_calls);

static void insert_into_sqlite(benchmark::State& state) {
  const std::string path = new_file("");
  sqlite3* database = nullptr;
  sqlite3_stmt* insert = nullptr;
  sqlite3_open(path.c_str(), &database);
  sqlite3_exec(database,
               "PRAGMA journal_mode=WAL; PRAGMA synchronous=OFF;"
               "CREATE TABLE incident(id TEXT PRIMARY KEY, time INTEGER, process TEXT, description TEXT, details TEXT)",
               nullptr, nullptr, nullptr);
  sqlite3_prepare_v2(database, "INSERT INTO incident VALUES(?, ?, 'stn_volmgr', 'Volume archive is degraded.', ?)", -1,
                     &insert, nullptr);
  for (int number = 0; auto _ : state) {
    const std::string eid = bench_eid(++number);
    sqlite3_bind_text(insert, 1, eid.c_str(), -1, SQLITE_STATIC);
    sqlite3_bind_int(insert, 2, 1790000000 + number);
    sqlite3_bind_text(insert, 3, DETAILS, -1, SQLITE_STATIC);
    if (sqlite3_step(insert) != SQLITE_DONE) state.SkipWithError("not inserted");
    sqlite3_reset(insert);
  }
  sqlite3_finalize(insert);
  sqlite3_close(database);
  for (const char* suffix : {"", "-wal", "-shm"}) unlink((path + suffix).c_str());
}
BENCHMARK(insert_into_sqlite);

/* What syslog(3) does: formats a line with the time, and sends it to a local socket. A reader takes it there. */
static void send_to_syslog_socket(benchmark::State& state) {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_DGRAM, 0, pair) != 0) std::abort();
  for (auto _ : state) {
    char line[512], when[32];
    const time_t now = time(nullptr);
    tm parts;
    strftime(when, sizeof when, "%h %e %T", localtime_r(&now, &parts));
    const int size = std::snprintf(line, sizeof line, "<27>%s stn_volmgr[%d]: Volume archive is degraded. %s", when,
                                   static_cast<int>(getpid()), DETAILS);
    if (send(pair[0], line, static_cast<size_t>(size), MSG_NOSIGNAL) != size) state.SkipWithError("not sent");
    state.PauseTiming();
    if (recv(pair[1], line, sizeof line, 0) != size) state.SkipWithError("not received");
    state.ResumeTiming();
  }
  close(pair[0]);
  close(pair[1]);
}
BENCHMARK(send_to_syslog_socket);
