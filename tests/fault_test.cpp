/* fault_test.cpp - the command while what it asks of the system fails, call by call, and with standard streams that
 * are closed, full or broken. */
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>

#include "support.h"
#include "zk_msg.h"

namespace {

const std::string OF_CATALOG = "WHEN         WHO              WHAT\n", AFAR = "from afar", RECORDED = "as recorded",
                  OLDEST = "the oldest", LONG = "filled: " + std::string(300, 'f');

struct view {
  const char* options;
  int candidates; /* files that the Error ID may be in; 0: the stack is named */
};
void PrintTo(const view& what, std::ostream* stream) {
  *stream << what.options << ' ' << what.candidates;
}
const view VIEWS[] = {{"-d", 0},  {"-da", 0}, {"-r", 0},  {"-ra", 0}, {"-p", 0},
                      {"-pa", 0}, {"-i", 1},  {"-ia", 2}, {"-r", 2}};

/* How a call fails: with an error, or short after so many bytes, or with errors behind that. */
struct fault {
  int error, part = -1;
};
const std::map<std::string, std::vector<fault>> FAULTS = {{"open", {{ENOENT}, {EACCES}, {EMFILE}, {EINTR}, {EIO}}},
                                                          {"opendir", {{ENOENT}, {EACCES}, {EIO}}},
                                                          {"read", {{EIO}, {EINTR}, {0, 1}}},
                                                          {"pread", {{EIO}, {EINTR}, {0, 1}}},
                                                          {"write", {{ENOSPC}, {EINTR}, {0, 1}}},
                                                          {"lockf", {{EDEADLK}, {EINTR}}},
                                                          {"socket", {{EMFILE}, {EINTR}}},
                                                          {"ioctl", {{EIO}, {EADDRNOTAVAIL}, {EINTR}}}};
constexpr size_t CALLS = 20; /* kinds that the shim knows */

struct call {
  std::string name;
  long detail = 0;
  std::string file;
};

struct plan {
  int candidates = 0;
  std::string stack = "", named = "", catalog = ""; /* files; `named` is what the command finds the stack by */
  std::string trace = "none", trace_image = "", log = new_file("");
  std::vector<std::string> command = {};
  environment variables = {};
  outcome good = {}, lapless = {}; /* when nothing fails; when the older lap cannot be had */
};

struct expectation {
  std::vector<outcome> any;
  bool has_beginning = false; /* part of the good report comes before */
};

void write_file(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

/* A message catalog that holds one text. */
std::string catalog_of(int32_t set, int32_t number, const std::string& what) {
  const std::string entry = image(set + 1) + image(number) + image(int32_t{0});
  return image(0x960408deU) + image(int32_t{1}) + image(int32_t{1}) + entry + entry + text(what);
}

/* The texts that come of replacing one `key`; the text itself when it has none. */
std::set<std::string> replaced(const std::string& text, const std::string& key, const std::string& value) {
  std::set<std::string> made;
  for (size_t at = text.find(key); at != text.npos; at = text.find(key, at + 1))
    made.insert(std::string(text).replace(at, key.size(), value));
  return made.empty() ? std::set{text} : made;
}

std::string filled(int number, const std::string& text, int code = 0) {
  return *replaced(*replaced(message(number), "%1$s", text).begin(), "%2$d", std::to_string(code)).begin();
}

/* Runs the command with the `number`-th call failing, none for 0, and tells what it called. */
outcome play(plan& made, size_t number, const fault& how, std::vector<call>& calls) {
  write_file(made.log, "");
  unlink(made.trace.c_str());
  if (!made.trace_image.empty()) write_file(made.trace, made.trace_image);
  made.variables["LD_PRELOAD"] = FAULT_SHIM;
  made.variables["ZK_FAULT_LOG"] = made.log;
  made.variables["ZK_FAULT"] =
      std::to_string(number) + " " + std::to_string(how.error) + " " + std::to_string(how.part);
  const outcome result = run(made.command, made.variables);
  calls.clear();
  std::ifstream log(made.log);
  for (call one; log >> one.name >> one.detail && log.ignore() && std::getline(log, one.file);) calls.push_back(one);
  return result;
}

plan make_plan(const view& what, bool is_traced) {
  const std::string folder = scratch() + "/C.UTF-8";
  std::filesystem::create_directories(folder);
  write_file(folder + "/zelk.cat", catalog_of(ZK_MSG_SET, ZK_MSG_HEADING, OF_CATALOG));
  plan made = {.candidates = what.candidates};
  made.stack = (what.candidates > 0 ? ZELK_STACK_DIR : scratch()) + "/faulty";
  made.catalog = new_file(catalog_of(1, 1, AFAR));
  made.command = {program("zkview"), what.options};
  made.variables = {{"LC_ALL", "C.UTF-8"}, {"NLSPATH", scratch() + "/%L/%N"}};
  write_file(made.stack, "");
  zk_eid_t id = "";
  long seconds = 0;
  setenv("ZELKADDR", "/...z/...................", 1); /* 127.0.0.1 */
  EXPECT_EQ(zk_generate_eid_2(0, nullptr, made.stack.c_str(), 0, -1, 0, &seconds, id), 0);
  stack s;
  s.add({.id = eid("a"), .description = OLDEST});
  s.add({.id = eid("b"), .pid = 101, .catalog = made.catalog, .description = RECORDED}).wrap();
  s.add({.id = id,
         .related = eid("a"),
         .description = "%s%s",
         .arg_count = 2,
         .args = string_arg(LONG.substr(0, 8)) + string_arg(LONG.substr(8))});
  std::filesystem::remove(made.stack + "2");
  if (what.candidates > 1) std::filesystem::create_hard_link(made.stack, made.stack + "2");
  made.named = what.candidates > 0 ? id : made.stack;
  made.command.insert(made.command.end(), {what.candidates > 0 ? "-f" : "-s", made.named});

  if (is_traced) made.variables["ZELKDEBUG"] = made.trace = scratch() + "/trace";
  if (is_traced && made.command[1].size() > 2) /* one that is full */
    for (made.trace_image = "ZKTFO=15900 ZKTFW=1     ZKTFS=16384\n"; made.trace_image.size() < 16384;)
      made.trace_image += "\1an old entry\n";
  struct stack lapless = s;
  lapless.header.earliest_rec = s.header.file_size - 4; /* where a length word of 0 is */
  write_file(made.stack, lapless.bytes());
  made.lapless = run(made.command, made.variables);
  write_file(made.stack, s.bytes());
  return made;
}

/* How a run ends whose last call of `calls` failed with `error`. */
expectation expected(const plan& made, const std::vector<call>& calls, int error) {
  const call& failed = calls.back();
  const call before = calls.size() > 1 ? calls[calls.size() - 2] : call();
  int locks = 0, walks = 0, reads = 0, queries = 0; /* that came before; the reads of the last walk */
  for (const call* one = calls.data(); one != &failed; ++one) {
    queries += one->name == "ioctl";
    const bool is_stack = one->file.starts_with(made.stack);
    if (is_stack && one->name == "lockf") ++(one->detail == F_LOCK ? locks : walks), reads = 0;
    reads += is_stack && one->name == "pread";
  }
  const bool is_stack = failed.file.starts_with(made.stack), is_full = made.command[1].ends_with('a');
  const bool by_id = made.candidates > 0, searching = made.candidates > 1 && walks == 0;
  const bool grouping = made.command[1].find_first_of("rp") != std::string::npos && locks > walks && !searching;
  const std::string search = made.candidates > 1 ? made.good.out.substr(0, made.good.out.find('\n') + 1) : "";

  auto unexpected = [](int code, const char* routine = "zk_display_recs_by_proc") {
    return expectation{{{"", filled(ZK_MSG_UNEXPECTED, routine, code), 99}}};
  };
  auto refused = [&](int by_name, int by_eid) { return outcome{"", filled(by_id ? by_eid : by_name, made.named), 20}; };
  auto less = [&](const std::string& key, const std::string& value) {
    expectation any;
    for (const std::string& out : replaced(made.good.out, key, value)) any.any.push_back({out, "", 0});
    return any;
  };
  auto ended = [&](int number, int status, const std::string& last = "") {
    if (searching) return expectation{{{last, unexpected(ZELK_FAILURE).any[0].err, 99}}};
    return expectation{{{grouping ? search + last : last, message(number), status}}, !grouping};
  };

  const std::string& name = failed.name;
  const bool is_opening = is_stack && (name == "open" || name == "lockf");
  if (error == 0 || (error == EINTR && !is_opening) || failed.file == made.trace) return {{made.good}};
  if (name == "write") return unexpected(error, "fflush");
  if (name == "catopen" || name == "setlocale") return less(OF_CATALOG, HEADING);
  if (failed.file == made.catalog || (before.file == made.catalog && name == "malloc")) return less(AFAR, RECORDED);
  if (name == "socket" || (name == "ioctl" && queries < 2)) return {{{"", filled(ZK_MSG_REMOTE, made.named), 43}}};
  if (name == "opendir") return unexpected(error == ENOENT ? -14 : error == EACCES ? -13 : -1);
  if (name == "readdir") /* what was found before counts */
    return {{made.good, refused(0, ZK_MSG_ID_STACK_GONE), {made.good.out.substr(search.size()), "", 0}}};

  if (is_stack && name == "open" && error == ENOENT) return {{refused(ZK_MSG_STACK_MISSING, ZK_MSG_ID_STACK_GONE)}};
  if (is_stack && name == "open" && error == EACCES) return {{refused(ZK_MSG_STACK_NO_ACCESS, ZK_MSG_ID_NO_ACCESS)}};
  if (is_stack && name == "open") return unexpected(error == EMFILE ? -20 : -1);
  if (is_stack && name == "lockf" && failed.detail == F_LOCK) return ended(ZK_MSG_NOT_LOCKED, 22);
  if (is_stack && name == "lseek" && (reads == 0 || failed.detail != 0)) return ended(ZK_MSG_STACK_CORRUPT, 24);
  if (is_stack && name == "read") return ended(ZK_MSG_STACK_CORRUPT, 24);
  if (is_stack && name == "pread" && reads == 0 && !searching) return {{made.lapless}};

  if (!name.ends_with("alloc")) return {{made.good}};
  if (failed.detail == 0 && before.name == "opendir") return unexpected(-1);
  if (failed.detail == 0) { /* for a library */
    expectation either = locks == 0 ? less(OF_CATALOG, HEADING) : expectation();
    either.any.push_back(made.good);
    return either;
  }
  if (grouping && failed.detail > ZK_REC_SIZE_MAX) return {{made.good}}; /* of use, not needed */
  if (grouping) return ended(ZK_MSG_NO_MEMORY, 18);
  if (name == "calloc")
    return ended(ZK_MSG_STACK_CORRUPT, 24, is_full && !searching ? CORRUPT + CORRUPT : CORRUPT); /* for arguments */
  expectation emptied;
  for (const std::string& description : {LONG.substr(0, 50), LONG, AFAR, OLDEST})
    for (const outcome& one : less(description, "").any) emptied.any.push_back(one);
  return emptied;
}

bool is_expected(const outcome& result, const expectation& wanted, const std::string& good) {
  return std::any_of(wanted.any.begin(), wanted.any.end(), [&](const outcome& one) {
    const size_t beginning = wanted.has_beginning ? result.out.size() - std::min(one.out.size(), result.out.size()) : 0;
    return one == outcome{result.out.substr(beginning), result.err, result.status} &&
           good.starts_with(result.out.substr(0, beginning));
  });
}

#define NEEDS_SHIM() \
  if (*FAULT_SHIM == '\0') GTEST_SKIP() << "nothing can be preloaded into this build of the command"

struct faults : testing::TestWithParam<std::tuple<view, bool>> {};

TEST_P(faults, end_the_run_as_told) {
  const auto& [what, is_traced] = GetParam();
  NEEDS_SHIM();
  if (what.candidates > 0) NEEDS_PRIVATE_VAR();
  plan made = make_plan(what, is_traced);
  std::vector<call> all, calls;
  std::set<std::string> kinds;
  made.good = play(made, 0, {0}, all);
  if (made.good.status == 43) GTEST_SKIP() << "the node has no loopback address";
  ASSERT_EQ(made.good.status, 0) << made.good;
  for (size_t number = 1; number <= all.size(); ++number) {
    const std::string name = all[number - 1].name;
    kinds.insert(name);
    for (const fault& how : FAULTS.contains(name) ? FAULTS.at(name) : std::vector<fault>{{ENOMEM}}) {
      const outcome result = play(made, number, how, calls);
      /* Trace entries differ in length, so that the file is full earlier or later. */
      if (!made.trace_image.empty() && (calls.size() < number || calls[number - 1].name != name)) continue;
      ASSERT_GE(calls.size(), number);
      calls.resize(number);
      const expectation wanted = expected(made, calls, how.error);
      ASSERT_TRUE(is_expected(result, wanted, made.good.out))
          << testing::PrintToString(made.command) << "\ncall " << number << ", " << name << " " << calls.back().detail
          << " of " << calls.back().file << ", error " << how.error << "\n"
          << result << "\nexpected " << testing::PrintToString(wanted.any);
    }
  }
  const bool has_all = what.candidates > 1 && is_traced && made.trace_image.empty();
  EXPECT_TRUE(!has_all || kinds.size() == CALLS) << testing::PrintToString(kinds);
}
INSTANTIATE_TEST_SUITE_P(view, faults, testing::Combine(testing::ValuesIn(VIEWS), testing::Bool()));

TEST(failed_read, is_as_the_end_of_the_file_there) {
  NEEDS_SHIM();
  stack s;
  s.add("one").add("two").add("three");
  for (const char* options : {"-d", "-da", "-pa", "-ra"}) {
    plan cut = {};
    cut.command = {program("zkview"), options, "-s", s.file()};
    std::vector<call> calls;
    play(cut, 0, {0}, calls);
    auto is_read = [](const call& one) { return one.name == "pread"; };
    const size_t number = static_cast<size_t>(std::find_if(calls.begin(), calls.end(), is_read) - calls.begin()) + 1;
    for (int size = 24; size < s.header.write_pos + 8; size += 5)
      EXPECT_EQ(play(cut, number, {EIO, size}, calls),
                zkview({options, "-s", new_file(s.bytes().substr(0, static_cast<size_t>(size)))}))
          << options << " " << size;
  }
}

TEST(standard_streams, decide_about_the_status_alone) {
  if (*EMULATOR != '\0') GTEST_SKIP() << "an emulator has descriptors of its own";
  stack s, bad;
  const std::string path = s.add("one").file(), dump = "-d -s " + path, trace = scratch() + "/trace",
                    fifo = scratch() + "/fifo";
  const std::string broken = "-d -s " + bad.add_raw(-1, "").file(), full = "exec >/dev/full", missing = path + "x";
  const std::string unread = "rm -f " + fifo + "; mkfifo " + fifo + "; exec 3<>" + fifo + "; exec >" + fifo + " 3<&-";
  auto unwritten = [](int error) { return outcome{"", filled(ZK_MSG_UNEXPECTED, "fflush", error), 99}; };
  const outcome good = {HEADING + line("one"), "", 0}, corrupt = {"", message(ZK_MSG_STACK_CORRUPT), 24};
  const struct {
    std::string redirections, arguments;
    outcome wanted;
  } rows[] = {{"exec <&-", dump, good},
              {"exec >&-", dump, unwritten(EBADF)},
              {"exec 2>&-", dump, good},
              {"exec <&- >&-", dump, unwritten(EBADF)},
              {"exec <&- 2>&-", dump, good},
              {"exec >&- 2>&-", dump, {"", "", 99}},
              {"exec <&- >&- 2>&-", dump, {"", "", 99}},
              {full, dump, unwritten(ENOSPC)},
              {full, "-h", unwritten(ENOSPC)},
              {full, broken, corrupt},
              {full, "-s " + missing, {"", filled(ZK_MSG_STACK_MISSING, missing), 20}},
              {unread, dump, {"", "", 1000 + SIGPIPE}},
              {"trap '' PIPE; " + unread, dump, unwritten(EPIPE)},
              {"trap '' PIPE; " + unread, broken, corrupt}};
  std::signal(SIGPIPE, SIG_DFL);
  zkview({"-d", "-s", path}, {{"ZELKDEBUG", trace}});
  const std::vector<std::string> entries = trace_entries(trace);
  for (const auto& row : rows) {
    unlink(trace.c_str());
    const std::string script = row.redirections + "; exec " + program("zkview") + " " + row.arguments;
    EXPECT_EQ(run({"/bin/sh", "-c", script}, {{"ZELKDEBUG", trace}}), row.wanted) << script;
    EXPECT_EQ(contents(path), s.bytes()) << script;
    EXPECT_TRUE(row.arguments != dump || trace_entries(trace) == entries) << script;
  }
}

}  // namespace
