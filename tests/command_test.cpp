/* The command as its user meets it: options, messages and their translations, exit statuses, where the report goes. */
#include <fcntl.h>
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <filesystem>
#include <future>
#include <regex>

#include "support.h"
#include "zk_msg.h"

static std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != text.npos; at += by.size()) text.replace(at, what.size(), by);
  return text;
}

/* Runs a line of the shell in which "@" is the command, with $SET in its environment. */
static const std::string COMMAND =
    "exec env -i TZ=UTC ASAN_OPTIONS=detect_leaks=0 $SET " EMULATOR " " + program("zkview");
static outcome shell(const std::string& line) {
  const std::string out = new_file(""), err = new_file("");
  const int status = system(("(" + replaced(line, "@", COMMAND) + ") >" + out + " 2>" + err).c_str());
  return {contents(out), contents(err), WEXITSTATUS(status)};
}

static const std::string USAGE = message(ZK_MSG_USAGE), HELP = told(ZK_MSG_HELP, "/var/adm/zelk/stacks");

/* ---- Options and opening ------------------------------------------------------------------------------------------- */

TEST(options, are_checked) {
  const std::string one = stack().add("one").file(), id(42, '0'), self = program("zkview");
  auto unknown = [&](const std::string& problem, const std::string& option) {
    return self + ": " + problem + " -- '" + option + "'\n" + told(ZK_MSG_UNKNOWN_OPTION, option);
  };
  auto twice = [](const char* option) { return told(ZK_MSG_REPEATED, option); };
  auto both = [](const char* first, const char* second) { return told(ZK_MSG_EXCLUDED, first, second); };
  const std::string neither = told(ZK_MSG_NEEDS_STACK, "f", "s"), alone = told(ZK_MSG_NEEDS_OTHER, "i", "f");
  const std::string bad_q = unknown("invalid option", "q"), no_value = "option requires an argument";
  const struct {
    std::vector<std::string> arguments;
    outcome expected;
  } rows[] = {
      {{}, {"", message(ZK_MSG_NO_OPTIONS) + USAGE, 10}},
      {{"-a"}, {USAGE, neither, 10}},
      {{"-i", "-d", "-r"}, {USAGE, neither, 10}},
      {{one}, {USAGE, neither, 10}},
      {{"-q"}, {"", bad_q, 12}},
      {{"-q", "-p", "-p", "-s", "x"}, {"", bad_q + twice("p"), 12}},
      {{"-s"}, {"", unknown(no_value, "s"), 12}},
      {{"-d", "-f"}, {"", unknown(no_value, "f"), 12}},
      {{"-p", "-p", "-s", "x"}, {"", twice("p"), 26}},
      {{"-rrr", "-s", "x", "-s", "y"}, {"", twice("r") + twice("r") + twice("s"), 26}},
      {{"-f", "x", "-f", "y", "-s", "z"}, {"", twice("f"), 26}},
      {{"-h"}, {USAGE + HELP, "", 2}},
      {{"-f", "x", "-s", "y", "-dprih", "-h"}, {USAGE + HELP, "", 2}},
      {{"-h", "-q"}, {"", bad_q, 12}},
      {{"-h", "-p", "-p"}, {"", twice("p"), 26}},
      {{"-f", id, "-s", one, "-d", "-r"}, {USAGE, both("f", "s"), 26}},
      {{"-r", "-d", "-p", "-s", one}, {USAGE, both("d", "r"), 26}},
      {{"-r", "-p", "-s", one}, {USAGE, both("p", "r"), 26}},
      {{"-d", "-p", "-i", "-f", id}, {USAGE, both("d", "p"), 26}},
      {{"-d", "-i", "-s", one}, {USAGE, both("d", "i"), 26}},
      {{"-i", "-s", one}, {USAGE, alone, 10}},
      {{"-i", "-p", "-s", one}, {USAGE, alone, 10}},
      {{"-ads" + one, "-a", "-d", "more"}, {report(stack().add("one"), {"-a"}), "", 0}},
  };
  for (const auto& row : rows) EXPECT_EQ(zkview(row.arguments), row.expected) << testing::PrintToString(row.arguments);
}

TEST(opening, fails_by_what_the_name_leads_to) {
  const std::string file = new_file("not a stack"), fifo = scratch() + "/fifo", no_access = file + "/below";
  const std::string corrupt = message(ZK_MSG_STACK_CORRUPT), long_name(300, 'n'), routine = "zk_display_recs_by_proc";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const struct {
    std::string name;
    outcome expected;
  } rows[] = {
      {"/nowhere", {"", told(ZK_MSG_STACK_MISSING, "/nowhere"), 20}},
      {"no/such/stack", {"", told(ZK_MSG_STACK_MISSING, "no/such/stack"), 20}},
      {no_access, {"", told(ZK_MSG_STACK_NO_ACCESS, no_access), 20}},
      {"/", {"", unexpected(routine, -1), 99}},
      {"", {"", unexpected(routine, -5), 99}},
      {"/" + long_name, {"", unexpected(routine, -1), 99}},
      {"/tmp" + std::string(4092, '/') + "nowhere", {"", unexpected(routine, -1), 99}}, /* 4096 of them are used */
      {file, {"", corrupt, 24}},
      {fifo, {"", corrupt, 24}},
      {"/dev/null", {"", corrupt, 24}},
  };
  for (const auto& row : rows)
    for (const char* view : {"-d", "-r"}) EXPECT_EQ(zkview({view, "-s", row.name}), row.expected) << row.name;
}

TEST(opening, needs_to_read_and_write) {
  const std::string read_only = stack().add("one").file(), hidden = scratch() + "/hidden";
  std::filesystem::create_directory(hidden);
  chmod(read_only.c_str(), 0444);
  chmod(hidden.c_str(), 0);
  chmod(scratch().c_str(), 0777);
  as_ordinary_user([&] {
    if (access(program("zkview").c_str(), X_OK) != 0) return; /* the build folder is out of reach */
    for (const std::string& name : {read_only, hidden + "/stack"})
      EXPECT_EQ(zkview({"-s", name}), (outcome{"", told(ZK_MSG_STACK_NO_ACCESS, name), 20}));
  });
  chmod(scratch().c_str(), 0700);
}

TEST(opening, looks_in_the_stacks_directory) {
  NEEDS_PRIVATE_VAR();
  std::filesystem::copy_file(stack().add("here").file(), ZELK_STACK_DIR "/mystack");
  EXPECT_EQ(zkview({"-d", "-s", "mystack"}), (outcome{HEADING + line("here"), "", 0}));
  EXPECT_EQ(zkview({"-d", "-s", "../stacks/mystack"}), (outcome{HEADING + line("here"), "", 0}));
}

/* ---- Messages ------------------------------------------------------------------------------------------------------ */

/* Opens a catalog made of `source`, texts of the command's message set. */
static nl_catd catalog(const std::string& source, const std::string& name = "some.cat") {
  const std::string path = scratch() + "/" + name, texts = new_file("$set 6\n$quote \"\n" + source);
  EXPECT_EQ(system(("gencat --new " + path + " " + texts).c_str()), 0);
  return catopen(path.c_str(), 0);
}

TEST(messages, are_those_that_programs_search_for) {
  uint64_t digest = 14695981039346656037u;
  for (const char* text : zk_mesgtbl_zkview_cmd)
    for (const char* at = text;; ++at) {
      digest = (digest ^ static_cast<unsigned char>(*at)) * 1099511628211u;
      if (*at == '\0') break;
    }
  EXPECT_EQ(digest, 0x9515f7d78c4f88aeu);

  nl_catd built = catopen(program("../zelk.cat").c_str(), 0);
  if (built == reinterpret_cast<nl_catd>(-1)) GTEST_SKIP() << "this build has no catalog";
  for (int number = 1; number < ZK_MSG_COUNT; ++number)
    EXPECT_STREQ(catgets(built, ZK_MSG_SET, number, "missing"), zk_mesgtbl_zkview_cmd[number]);
  EXPECT_STREQ(catgets(built, ZK_MSG_SET, ZK_MSG_COUNT, "none"), "none");
  catclose(built);
}

TEST(translation, takes_the_arguments_of_the_text_or_is_not_used) {
  std::map<std::string, std::string> texts = {{"%2$d by %1$s", "-5 by open"},
                                              {"%s: %d", "open: -5"},
                                              {"%2$i %2$+d %1$6.2s|%1$-6s|%%", "-5 -5     op|open  |%"},
                                              {"no argument", "no argument"},
                                              {"", ""},
                                              {"%1$1024s", std::string(1020, ' ') + "open"}};
  for (const char* unfit : {"%1$d",    "%s %s",    "%2$c",      "%2$x",    "%1$p",     "%n",   "%1$n", "%s%n",
                            "%m",      "%*d",      "%.*s",      "%1$*2$s", "%s %d %d", "%3$s", "%0$s", "%4294967297$s",
                            "%s %2$d", "%1$1025s", "%1$.1025s", "%1$ls",   "%2$ld",    "%",    "%y",   "%5%"})
    texts[unfit] = unexpected("open", -5);
  for (const auto& [text, expected] : texts) {
    nl_catd translated = catalog("39 \"" + text + "\"\n");
    auto print = [&] { zk_print_message(stdout, translated, 39, {zk_msg_arg("open"), zk_msg_arg(-5)}); };
    EXPECT_EQ(printed(print), expected) << text;
    catclose(translated);
  }
  /* A number that has no built-in text comes with one text to show. */
  nl_catd more = catalog("48 \"<%1$s>\"\n49 \"%d\"\n50 \"%s %s\"\n");
  const std::string bad_id = "Bad message id for message set zkview_cmd";
  for (const auto& [number, expected] : {std::pair{48, std::string("<shown>")},
                                         {49, bad_id},
                                         {50, bad_id},
                                         {0, bad_id},
                                         {-1, bad_id},
                                         {INT_MAX, bad_id},
                                         {INT_MIN, bad_id}}) {
    std::string field = "shown";
    void* cursor = field.data();
    size_t unread = field.size();
    const int wanted = number;
    EXPECT_EQ(printed([&] { zk_print_rec_substring(0, nullptr, more, wanted, &cursor, &unread); }), expected) << number;
  }
  catclose(more);
}

TEST(translation, comes_from_the_catalog_along_nlspath) {
  catclose(catalog("25 \"Liste\\n\"\n26 \"%7$s %2$.2d.%1$.2d.\\n\"\n30 \"doppelt: %c\\n\"\n45 \"kaputt %s\\n\"\n",
                   "zelk.cat"));
  stack s;
  s.add("text").add_raw(3000, "");
  const environment here = {{"NLSPATH", scratch() + "/%N"}};
  EXPECT_EQ(zkview({"-d", "-s", s.file()}, here),
            (outcome{"Liste\ntext 03.02.\n" + CORRUPT, message(ZK_MSG_STACK_CORRUPT), 24}));
  EXPECT_EQ(zkview({"-p", "-p"}, here), (outcome{"", "doppelt: p\n", 26}));
  std::filesystem::remove(scratch() + "/zelk.cat");
  EXPECT_EQ(zkview({"-p", "-p"}, here), (outcome{"", told(ZK_MSG_REPEATED, "p"), 26}));
}

/* ---- Where the report goes ------------------------------------------------------------------------------------------ */

TEST(report, that_cannot_be_written_is_no_success) {
  const std::string file = stack().add("one").file(), bytes = contents(file), good = " -d -s " + file;
  const std::string bad = " -d -s " + stack().add("one").add_raw(3000, "").file();
  const std::string corrupt = message(ZK_MSG_STACK_CORRUPT), shown = HEADING + line("one");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  close(ends[0]);
  dup2(ends[1], 9); /* a pipe that nobody reads */
  signal(SIGPIPE, SIG_DFL);
  const struct {
    std::string line;
    outcome expected;
  } rows[] = {
      {"@" + good + " >&-", {"", unexpected("fflush", EBADF), 99}},
      {"@ -h >&-", {"", unexpected("fflush", EBADF), 99}},
      {"@" + bad + " >&-", {"", corrupt, 24}},
      {"@ >&-", {"", message(ZK_MSG_NO_OPTIONS) + USAGE, 10}},
      {"@ -a >&-", {"", told(ZK_MSG_NEEDS_STACK, "f", "s"), 10}},
      {"@" + good + " >/dev/full", {"", unexpected("fflush", ENOSPC), 99}},
      {"@ -h >/dev/full", {"", unexpected("fflush", ENOSPC), 99}},
      {"@" + good + " >&9", {"", "", 128 + SIGPIPE}},
      {"trap '' PIPE; @" + good + " >&9", {"", unexpected("fflush", EPIPE), 99}},
      {"@" + good + " <&-", {shown, "", 0}},
      {"@" + good + " 2>&-", {shown, "", 0}},
      {"@" + bad + " 2>&-", {shown + CORRUPT, "", 24}},
      {"@" + good + " <&- >&- 2>&-", {"", "", 99}},
      {"@" + bad + " 2>&1", {shown + CORRUPT + corrupt, "", 24}},
      {"@ -i -s x 2>&1", {told(ZK_MSG_NEEDS_OTHER, "i", "f") + USAGE, "", 10}},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(shell(row.line), row.expected) << row.line;
    EXPECT_EQ(contents(file), bytes);
  }
  close(9);
  close(ends[1]);

  /* Neither does a trace file become a standard stream. */
  const std::string trace = scratch() + "/trace";
  EXPECT_EQ(shell("SET=ZELKDEBUG=" + trace + "; @" + good + " <&- >&- 2>&-").status, 99);
  EXPECT_EQ(contents(trace).find(HEADING), std::string::npos);
  EXPECT_EQ(trace_entries(trace).size(), 5u);
}

TEST(report, waits_for_the_lock_and_shows_what_is_there_then) {
  const std::string path = stack().file(), later = stack().add("later").bytes();
  const int file = open(path.c_str(), O_RDWR);
  ASSERT_EQ(lockf(file, F_LOCK, 0), 0);
  for (const char* view : {"-d", "-r"}) {
    auto waiting = std::async(std::launch::async, [&] { return zkview({view, "-s", path}); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    EXPECT_EQ(pwrite(file, later.data(), later.size(), 0), static_cast<ssize_t>(later.size()));
    EXPECT_EQ(lockf(file, F_ULOCK, 0), 0);
    EXPECT_EQ(waiting.get(), (outcome{HEADING + line("later"), "", 0}));
    EXPECT_EQ(lockf(file, F_TLOCK, 0), 0);
  }
  close(file);
}

TEST(report, does_not_hold_the_lock_while_its_reader_is_slow) {
  stack s(16384);
  for (int i = 0; i < 50; ++i) s.add(incident{.description = "%1$1000d%1$1000d", .arg_count = 1, .args = int_arg(i)});
  const std::string path = s.file();
  const int file = open(path.c_str(), O_RDWR);
  FILE* reader = popen((COMMAND + " -d -a -s " + path).c_str(), "r"); /* more than a pipe holds */
  std::string shown(1, static_cast<char>(fgetc(reader)));
  EXPECT_EQ(lockf(file, F_TEST, 0), 0);
  for (int c; (c = fgetc(reader)) != EOF;) shown += static_cast<char>(c);
  EXPECT_EQ(pclose(reader), 0);
  EXPECT_EQ(shown, report(s, {"-d", "-a"}));
  EXPECT_GT(shown.size(), 100000u);
  close(file);
}

/* What the command shows on a terminal. */
static std::string on_terminal(const std::string& arguments) {
  termios plain = {};
  cfmakeraw(&plain);
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, &plain, nullptr);
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", (COMMAND + arguments).c_str(), nullptr);
    _exit(127);
  }
  std::string shown;
  for (char byte; read(terminal, &byte, 1) == 1;) shown += byte;
  waitpid(child, nullptr, 0);
  close(terminal);
  return shown;
}

TEST(terminal, is_not_driven_by_what_was_recorded) {
  const std::pair<std::string, std::string> texts[] = {
      {"\x1b]0;title\x07", "?]0;title?"},
      {"\x01\r\x1f\x7f.", "????."},
      {"\x80\x9b[2J\x9f", "??[2J?"},
      {"\xc2\x80\xc2\x9b\xc2\x9f\xc2\xa0", "???\xc2\xa0"},
      {"tab\tnew\nline", "tab\tnew\nline"},
      {"\xc3\x9b \xe2\x82\x9b \xf0\x9f\x9b\x80", "\xc3\x9b \xe2\x82\x9b \xf0\x9f\x9b\x80"}, /* 0x9b inside */
      {"\xe2\x82.\xe0\x80\x9b\xed\xa0\x80\xf5\x9b\xc2", "\xe2?.\xe0??\xed\xa0?\xf5?\xc2"},  /* not well formed */
  };
  for (const auto& [recorded, shown] : texts) {
    stack s;
    s.add(incident{.process = recorded, .file = recorded, .description = recorded, .details = recorded});
    const std::string as_it_is = report(s, {"-a"}), path = s.file();
    EXPECT_NE(as_it_is.find(recorded), as_it_is.npos); /* a file gets the bytes */
    EXPECT_EQ(on_terminal(" -a -s " + path), replaced(as_it_is, recorded, shown));
    EXPECT_EQ(on_terminal(" -d -s " + path).substr(HEADING.size()),
              replaced(line(recorded, recorded), recorded, shown));
  }
  EXPECT_EQ(on_terminal(" -s '/no\x1bwhere'"), told(ZK_MSG_STACK_MISSING, "/no?where"));
}

/* ---- The finished program -------------------------------------------------------------------------------------------- */

TEST(program, needs_the_c_library_alone_and_is_hardened) {
  const std::string out = shell("readelf -Whlds " + program("zkview")).out;
  if (out.empty()) GTEST_SKIP() << "no readelf here";
  if (std::regex_search(out, std::regex("__asan_|__ubsan_|__tsan_|__msan_|__gcov_|__sanitizer")))
    GTEST_SKIP() << "an instrumented build";
  const std::regex needed(R"(\(NEEDED\)\s+Shared library: \[(.*?)\])");
  for (std::sregex_iterator at(out.begin(), out.end(), needed), end; at != end; ++at)
    EXPECT_TRUE(std::regex_match((*at)[1].str(), std::regex("(libc|ld[^.]*)\\.so.*"))) << (*at)[1];
  for (const char* sign : {"Type: +DYN", "FLAGS_1\\).*NOW.*PIE", "GNU_RELRO", "__stack_chk_fail"})
    EXPECT_TRUE(std::regex_search(out, std::regex(sign))) << sign;
}
