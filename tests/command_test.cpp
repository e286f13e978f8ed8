/* The command as its user meets it: options, messages and their translations, exit statuses, a terminal. */
#include <pty.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <climits>
#include <filesystem>

#include "support.h"
#include "zk_msg.h"

static std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != text.npos; at += by.size()) text.replace(at, what.size(), by);
  return text;
}

/* Runs a line of the shell. */
static outcome shell(const std::string& line) {
  int status = 0;
  const std::string out = printed([&] { status = system(line.c_str()); });
  return {out, "", WEXITSTATUS(status)};
}

/* The command for a shell. */
static const std::string COMMAND = "exec env -i TZ=UTC ASAN_OPTIONS=detect_leaks=0 " EMULATOR " " + program("zkview");
static const std::string USAGE = message(ZK_MSG_USAGE), HELP = told(ZK_MSG_HELP, "/var/adm/zelk/stacks");

/* ---- Options and opening ------------------------------------------------------------------------------------------- */

TEST(options, are_checked) {
  const std::string one = stack().add("one").file(), id(42, '0');
  auto unknown = [](const std::string& problem, const std::string& option) {
    return program("zkview") + ": " + problem + " -- '" + option + "'\n" + told(ZK_MSG_UNKNOWN_OPTION, option);
  };
  auto twice = [](const char* option) { return told(ZK_MSG_REPEATED, option); };
  auto both = [](const char* first, const char* second) { return told(ZK_MSG_EXCLUDED, first, second); };
  const std::string neither = told(ZK_MSG_NEEDS_STACK, "f", "s"), alone = told(ZK_MSG_NEEDS_OTHER, "i", "f");
  const std::string bad_q = unknown("invalid option", "q");
  const std::pair<std::vector<std::string>, outcome> rows[] = {
      {{}, {"", message(ZK_MSG_NO_OPTIONS) + USAGE, 10}},
      {{one}, {USAGE, neither, 10}},
      {{"-q", "-p", "-p", "-s", "x"}, {"", bad_q + twice("p"), 12}},
      {{"-d", "-f"}, {"", unknown("option requires an argument", "f"), 12}},
      {{"-rrr", "-f", "x", "-f", "y", "-s", "x", "-s", "y"},
       {"", twice("r") + twice("r") + twice("f") + twice("s"), 26}},
      {{"-f", "x", "-s", "y", "-dprih", "-h"}, {USAGE + HELP, "", 2}},
      {{"-h", "-q"}, {"", bad_q, 12}},
      {{"-f", id, "-s", one, "-d", "-r"}, {USAGE, both("f", "s"), 26}},
      {{"-r", "-d", "-p", "-s", one}, {USAGE, both("d", "r"), 26}},
      {{"-d", "-p", "-i", "-f", id}, {USAGE, both("d", "p"), 26}},
      {{"-i", "-r", "-p", "-s", one}, {USAGE, both("p", "r"), 26}},
      {{"-d", "-i", "-s", one}, {USAGE, both("d", "i"), 26}},
      {{"-i", "-p", "-s", one}, {USAGE, alone, 10}},
      {{"-ads" + one, "-a", "-d", "more"}, {report(stack().add("one"), {"-a"}), "", 0}},
  };
  for (const auto& [arguments, expected] : rows)
    EXPECT_EQ(zkview(arguments), expected) << testing::PrintToString(arguments);
}

TEST(opening, fails_by_what_the_name_leads_to) {
  const std::string file = new_file("not a stack"), fifo = scratch() + "/fifo", no_access = file + "/below";
  const std::string corrupt = message(ZK_MSG_STACK_CORRUPT), routine = "zk_display_recs_by_proc";
  ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
  const std::pair<std::string, outcome> rows[] = {
      {"/nowhere", {"", told(ZK_MSG_STACK_MISSING, "/nowhere"), 20}},
      {"no/such/stack", {"", told(ZK_MSG_STACK_MISSING, "no/such/stack"), 20}},
      {no_access, {"", told(ZK_MSG_STACK_NO_ACCESS, no_access), 20}},
      {"/", {"", unexpected(routine, -1), 99}},
      {"", {"", unexpected(routine, -5), 99}},
      {"/tmp" + std::string(4092, '/') + "nowhere", {"", unexpected(routine, -1), 99}}, /* 4096 of them are used */
      {file, {"", corrupt, 24}},
      {fifo, {"", corrupt, 24}},
      {"/dev/null", {"", corrupt, 24}},
  };
  for (const auto& [name, expected] : rows)
    for (const char* view : {"-d", "-r"}) EXPECT_EQ(zkview({view, "-s", name}), expected) << name;
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
  for (const char* built_in : zk_mesgtbl_zkview_cmd)
    for (char byte : text(built_in)) digest = (digest ^ static_cast<unsigned char>(byte)) * 1099511628211u;
  EXPECT_EQ(digest, 0x9515f7d78c4f88aeu);
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
  /* Whoever prints a number that has no built-in text has one text to show. */
  nl_catd more = catalog("48 \"<%1$s>\"\n49 \"%d\"\n50 \"%s %s\"\n");
  for (int number : {48, 49, 50, 0, -1, INT_MAX, INT_MIN})
    EXPECT_EQ(printed([&] { zk_print_message(stdout, more, number, {zk_msg_arg("shown")}); }),
              number == 48 ? "<shown>" : "Bad message id for message set zkview_cmd");
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

TEST(report, comes_before_the_message_that_ends_it) {
  const std::string path = stack().add("one").add_raw(3000, "").file(), corrupt = message(ZK_MSG_STACK_CORRUPT);
  const std::pair<std::string, outcome> rows[] = {
      {" -d -s " + path + " 2>&1", {HEADING + line("one") + CORRUPT + corrupt, "", 24}},
      {" -i -s x 2>&1", {told(ZK_MSG_NEEDS_OTHER, "i", "f") + USAGE, "", 10}},
      /* A message is not kept back by a report that cannot be written, and the status stays. */
      {" -d -s " + path + " 2>&1 >&-", {corrupt, "", 24}},
      {" -i -s x 2>&1 >&-", {told(ZK_MSG_NEEDS_OTHER, "i", "f"), "", 10}},
  };
  for (const auto& [arguments, expected] : rows) EXPECT_EQ(shell(COMMAND + arguments), expected) << arguments;
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
  for (const char* sign : {"__asan_", "__ubsan_", "__tsan_", "__msan_", "__gcov_", "__sanitizer"})
    if (out.find(sign) != out.npos) GTEST_SKIP() << "an instrumented build";
  const std::string needed = "Shared library: [";
  for (size_t at = out.find(needed); at != out.npos; at = out.find(needed, at + 1)) {
    const std::string library = out.substr(at + needed.size(), 16);
    EXPECT_TRUE(library.starts_with("libc.so") || library.starts_with("ld")) << library;
  }
  for (const char* sign : {" DYN (", "Flags: NOW PIE", "GNU_RELRO", "__stack_chk_fail"})
    EXPECT_NE(out.find(sign), out.npos) << sign;
}
