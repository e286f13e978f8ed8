/* concurrency_test.cpp - many at once: programs that record, reports, readers that do not read, trace files. */
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <set>

#include "support.h"

namespace {

/* Starts a report. */
FILE* started(const std::string& view, const std::string& path, const std::string& trace = "") {
  const std::string surroundings =
      "exec env -i TZ=UTC ASAN_OPTIONS=detect_leaks=0 ZELKDEBUG=" + trace + " " EMULATOR " ";
  return popen((surroundings + program("zkview") + " " + view + " -s " + path).c_str(), "r");
}
/* All that it prints; it must succeed. */
std::string ended(FILE* reporter) {
  const std::string out = contents("/dev/fd/" + std::to_string(fileno(reporter)));
  EXPECT_EQ(pclose(reporter), 0);
  return out;
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
    const std::string rest = report.substr(at), id = rest.substr(parts[0].size(), ZELK_EID_LENGTH);
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

TEST(report, waits_for_the_lock_and_keeps_none_while_nobody_reads) {
  constexpr int PIPE_SIZE = 4096;
  stack early, late(16384);
  early.add("early");
  for (int i = 0; i < 50; ++i) late.add("late");
  for (const std::string view : {"-da", "-ra", "-pa"}) {
    const std::string path = early.file(), wanted = report(late, {view});
    const int fildes = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(lockf(fildes, F_LOCK, 0), 0);
    FILE* reporter = started(view, path);
    auto printed_bytes = [&] {
      int bytes = -1;
      ioctl(fileno(reporter), FIONREAD, &bytes);
      return bytes;
    };
    ASSERT_EQ(fcntl(fileno(reporter), F_SETPIPE_SZ, PIPE_SIZE), PIPE_SIZE);
    usleep(200000);
    EXPECT_EQ(printed_bytes(), 0) << view;
    EXPECT_GT(pwrite(fildes, late.bytes().data(), late.bytes().size(), 0), 0);
    EXPECT_EQ(lockf(fildes, F_ULOCK, 0), 0);

    for (int tries = 0; tries < 1000 && printed_bytes() < PIPE_SIZE; ++tries) usleep(10000);
    EXPECT_LT(static_cast<size_t>(printed_bytes()), wanted.size());
    EXPECT_EQ(lockf(fildes, F_TLOCK, 0), 0) << view;
    EXPECT_GT(pwrite(fildes, early.bytes().data(), early.bytes().size(), 0), 0);
    EXPECT_EQ(ended(reporter), wanted);
    close(fildes);
  }
}

TEST(trace_file, is_made_by_one_of_many_and_loses_nothing_then) {
  const std::string path = stack().add("one").file(), trace = scratch() + "/trace", wanted = HEADING + line("one");
  EXPECT_EQ(ended(started("-d", path, trace)), wanted);
  const size_t of_one = trace_entries(trace).size();
  for (int round = 0; round < 20; ++round) {
    unlink(trace.c_str());
    std::vector<FILE*> reporters;
    for (int i = 0; i < 6; ++i) reporters.push_back(started("-d", path, trace));
    for (FILE* reporter : reporters) EXPECT_EQ(ended(reporter), wanted);

    const std::string bytes = contents(trace);
    EXPECT_EQ(bytes.size(), 16384U);
    EXPECT_TRUE(bytes.starts_with("ZKTFO=" + std::to_string(bytes.find("[END OF FINAL ENTRY]\n")) + " "));
    EXPECT_GE(trace_entries(trace).size(), of_one);
  }
}

}  // namespace
