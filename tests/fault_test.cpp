/* fault_test.cpp - the command while what it asks of the system fails, call by call, and with standard streams that
 * are closed, full or broken. */
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

#include "support.h"
#include "zk_msg.h"

namespace {

const std::string AFAR = "from afar", RECORDED = "as recorded", OLDEST = "the oldest",
                  LONG = "filled: " + std::string(300, 'f');

struct view {
  std::string options;
  int candidates;                                /* files that the Error ID may be in; 0: the stack is named */
  enum { UNTRACED, NEW, FULL } trace = UNTRACED; /* the trace file before the run */
};
void PrintTo(const view& what, std::ostream* stream) {
  *stream << what.options.substr(1) << "_in_" << what.candidates;
}

struct call {
  std::string name;
  long detail = 0;
  std::string file;
};

struct plan {
  view what;
  std::string stack, named, catalog, trace = "none"; /* files; `named` is what the command finds the stack by */
  std::vector<std::string> command;
  environment variables;
  outcome good, lapless; /* when nothing fails; when the older lap cannot be had */
};

/* The errors to let a call fail with; 0 is for a transfer of one byte. */
std::vector<int> errors_of(const std::string& name) {
  if (name == "open" || name == "opendir") return {ENOENT, EACCES, EMFILE, EINTR};
  if (name == "read" || name == "pread" || name == "write") return {EIO, EINTR, 0};
  if (name == "lockf" || name == "socket" || name == "ioctl") return {EIO, EINTR};
  return {ENOMEM};
}

/* Runs the command with the `number`-th call failing, none for 0, and tells what it called. */
outcome play(const plan& made, size_t number, int error, std::vector<call>& calls) {
  const std::string log_file = new_file(""), which = std::to_string(number) + " " + std::to_string(error);
  environment variables = made.variables;
  variables.insert({{"LD_PRELOAD", FAULT_SHIM}, {"ZK_FAULT_LOG", log_file}, {"ZK_FAULT", which}});
  unlink(made.trace.c_str());
  if (made.what.trace == view::FULL) /* 16384 bytes */
    std::ofstream(made.trace) << "ZKTFO=15900 ZKTFW=1     ZKTFS=16384\n" + std::string(16348, '\n');
  const outcome result = run(made.command, variables);
  calls.clear();
  std::ifstream log(log_file);
  for (call one; log >> one.name >> one.detail && log.ignore() && std::getline(log, one.file);) calls.push_back(one);
  return result;
}

plan make_plan(const view& what) {
  const bool by_id = what.candidates > 0;
  plan made = {};
  made.what = what;
  made.stack = (by_id ? ZELK_STACK_DIR : scratch()) + "/faulty";
  const std::string entry = image(2) + image(1) + image(0); /* text 1 of set 1 starts the texts */
  made.catalog = new_file(image(0x960408deU) + image(1) + image(1) + entry + entry + text(AFAR));
  if (what.trace != view::UNTRACED) made.variables["ZELKDEBUG"] = made.trace = scratch() + "/trace";

  std::ofstream(made.stack) << "";
  std::filesystem::remove(made.stack + "2");
  if (what.candidates > 1) std::filesystem::create_hard_link(made.stack, made.stack + "2");
  zk_eid_t id = "";
  long seconds = 0;
  setenv("ZELKADDR", "/...z/...................", 1); /* 127.0.0.1 */
  EXPECT_EQ(zk_generate_eid_2(0, nullptr, made.stack.c_str(), 0, -1, 0, &seconds, id), 0);
  made.named = by_id ? id : made.stack;
  made.command = {program("zkview"), what.options, by_id ? "-f" : "-s", made.named};

  stack s;
  s.add({.id = eid("a"), .description = OLDEST});
  s.add({.id = eid("b"), .pid = 101, .catalog = made.catalog, .description = RECORDED}).wrap();
  const std::string args = string_arg(LONG.substr(0, 8)) + string_arg(LONG.substr(8));
  s.add({.id = id, .related = eid("a"), .description = "%s%s", .arg_count = 2, .args = args});
  stack lapless = s;
  lapless.header.earliest_rec = s.header.file_size - 4; /* where a length word of 0 is */
  std::ofstream(made.stack) << lapless.bytes();
  made.lapless = run(made.command, made.variables);
  std::ofstream(made.stack) << s.bytes();
  return made;
}

/* How a run may end whose last call of `calls` failed with `error`. */
std::vector<outcome> expected(const plan& made, const std::vector<call>& calls, int error) {
  const auto& [name, detail, file] = calls.back();
  bool is_walking = false;
  int walks = 0, reads = 0; /* that came before; the reads of the last walk */
  for (const call* one = calls.data(); one != &calls.back(); ++one) {
    if (!one->file.starts_with(made.stack)) continue;
    if (one->name == "lockf") is_walking = one->detail == F_LOCK, walks += !is_walking, reads = 0;
    reads += one->name == "pread";
  }
  const bool is_stack = file.starts_with(made.stack), is_full = made.what.options.ends_with('a');
  const bool by_id = made.what.candidates > 0, is_search = made.what.candidates > 1 && walks == 0;
  const bool is_grouping = made.what.options.find_first_of("rp") != std::string::npos && is_walking && !is_search;

  auto lost = [](int code) { return outcome{"", unexpected("zk_display_recs_by_proc", code), 99}; };
  auto refused = [&](int by_name, int with_id) { return outcome{"", told(by_id ? with_id : by_name, made.named), 20}; };
  auto ended = [&](int number, int status, const std::string& last = "") {
    return is_search ? outcome{last, lost(ZELK_FAILURE).err, 99} : outcome{last, message(number), status};
  };
  const std::string& good = made.good.out;
  auto less = [&](const std::vector<std::pair<std::string, std::string>>& losses) {
    std::vector<outcome> any; /* for each place of a text that may be lost, and for what is there then */
    for (const auto& [key, value] : losses)
      for (size_t at = good.find(key); at != good.npos; at = good.find(key, at + 1))
        any.push_back({std::string(good).replace(at, key.size(), value), "", 0});
    return any;
  };

  if (name == "opendir") return {lost(error == ENOENT ? -14 : error == EACCES ? -13 : -1)};
  const bool is_opening = is_stack && (name == "open" || name == "lockf");
  if (error == 0 || (error == EINTR && !is_opening) || file == made.trace) return {made.good};
  if (name == "write") return {{"", unexpected("fflush", error), 99}};
  if (file == made.catalog) return less({{AFAR, RECORDED}});
  if (name == "socket" || name == "ioctl") /* one address in hand is enough */
    return {{"", told(ZK_MSG_REMOTE, made.named), 43}, made.good};
  if (name == "readdir") /* what was found before counts */
    return {made.good, refused(0, ZK_MSG_ID_STACK_GONE), {good.substr(good.find('\n') + 1), "", 0}};

  if (is_stack && name == "open" && error == ENOENT) return {refused(ZK_MSG_STACK_MISSING, ZK_MSG_ID_STACK_GONE)};
  if (is_stack && name == "open" && error == EACCES) return {refused(ZK_MSG_STACK_NO_ACCESS, ZK_MSG_ID_NO_ACCESS)};
  if (is_stack && name == "open") return {lost(error == EMFILE ? -20 : -1)};
  if (is_stack && name == "lockf" && detail == F_LOCK) return {ended(ZK_MSG_NOT_LOCKED, 22)};
  if (is_stack && (name == "read" || (name == "lseek" && (reads == 0 || detail != 0))))
    return {ended(ZK_MSG_STACK_CORRUPT, 24)};
  if (is_stack && name == "pread" && reads == 0 && !is_search) return {made.lapless};

  const bool is_index = is_grouping && detail > ZK_REC_SIZE_MAX; /* of use, not needed */
  if (!name.ends_with("alloc") || is_index) return {made.good};
  if (is_grouping) return {ended(ZK_MSG_NO_MEMORY, 18)};
  if (name == "calloc") /* for arguments */
    return {ended(ZK_MSG_STACK_CORRUPT, 24, is_full && !is_search ? CORRUPT + CORRUPT : CORRUPT)};
  return less({{LONG.substr(0, 50), ""}, {LONG, ""}, {AFAR, ""}, {AFAR, RECORDED}, {OLDEST, ""}});
}

/* Before a message that ends it, the beginning of a report may have been printed. */
bool is_expected(const outcome& result, const outcome& wanted, const std::string& good) {
  if (wanted.status == 0) return result == wanted;
  return result.status == wanted.status && result.err == wanted.err && result.out.ends_with(wanted.out) &&
         good.starts_with(result.out.substr(0, result.out.size() - wanted.out.size()));
}

struct faults : testing::TestWithParam<view> {};

TEST_P(faults, end_the_run_as_told) {
  const view& what = GetParam();
  if (*FAULT_SHIM == '\0') GTEST_SKIP() << "nothing can be preloaded into this build of the command";
  if (what.candidates > 0) NEEDS_PRIVATE_VAR();
  plan made = make_plan(what);
  std::vector<call> all, calls;
  made.good = play(made, 0, 0, all);
  if (made.good.status == 43) GTEST_SKIP() << "the node has no loopback address";
  ASSERT_EQ(made.good.status, 0) << made.good;
  ASSERT_GT(all.size(), 30U) << "the shim is bypassed";
  for (size_t number = 1; number <= all.size(); ++number) {
    const auto& [name, detail, file] = all[number - 1];
    std::vector<int> errors = errors_of(name);
    if (file == made.trace) errors = {errors[number % errors.size()]}; /* there are many, all alike */
    for (int error : errors) {
      const outcome result = play(made, number, error, calls);
      /* Trace entries differ in length, so that the file is full earlier or later. */
      if (what.trace == view::FULL && (calls.size() < number || calls[number - 1].name != name)) continue;
      ASSERT_GE(calls.size(), number);
      calls.resize(number);
      const std::vector<outcome> wanted = expected(made, calls, error);
      auto fits = [&](const outcome& one) { return is_expected(result, one, made.good.out); };
      ASSERT_TRUE(std::any_of(wanted.begin(), wanted.end(), fits))
          << "call " << number << ", " << name << " " << detail << " of " << file << ", error " << error << "\n"
          << result << "\nexpected " << testing::PrintToString(wanted);
    }
  }
}
INSTANTIATE_TEST_SUITE_P(view, faults,
                         testing::Values(view{"-d", 0, view::NEW}, view{"-da", 0}, view{"-ra", 0},
                                         view{"-pa", 0, view::FULL}, view{"-i", 1}, view{"-ia", 2, view::NEW},
                                         view{"-r", 2}));

TEST(standard_streams, decide_about_the_status_alone) {
  if (*EMULATOR != '\0') GTEST_SKIP() << "an emulator has descriptors of its own";
  stack s;
  const std::string path = s.add("one").file(), dump = "-d -s " + path, trace = scratch() + "/trace",
                    fifo = scratch() + "/fifo";
  const std::string broken = "-d -s " + stack().add_raw(-1, "").file(), full = "exec >/dev/full",
                    unread = "trap '' PIPE; exec 3<>" + fifo + " >" + fifo + " 3<&-";
  auto unwritten = [](int error) { return outcome{"", unexpected("fflush", error), 99}; };
  const outcome good = {HEADING + line("one"), "", 0}, corrupt = {"", message(ZK_MSG_STACK_CORRUPT), 24};
  const std::tuple<std::string, std::string, outcome> rows[] = {
      {"exec >&-", dump, unwritten(EBADF)}, {"exec <&- 2>&-", dump, good}, {"exec <&- >&- 2>&-", dump, {"", "", 99}},
      {full, dump, unwritten(ENOSPC)},      {full, broken, corrupt},       {unread, dump, unwritten(EPIPE)}};
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  for (const auto& [redirections, arguments, wanted] : rows) {
    unlink(trace.c_str());
    const std::string script = redirections + "; exec " + program("zkview") + " " + arguments;
    EXPECT_EQ(run({"/bin/sh", "-c", script}, {{"ZELKDEBUG", trace}}), wanted) << script;
    EXPECT_EQ(contents(path), s.bytes()) << script;
    EXPECT_FALSE(trace_entries(trace).empty()) << script;
  }
}

}  // namespace
