/* The command as its user meets it beyond what it says: translations, a terminal, the finished program. */
#include <pty.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <climits>

#include "support.h"
#include "zk_msg.h"

namespace {

/* ---- Translations -------------------------------------------------------------------------------------------- */

/* Opens a catalog made of `source`, texts of the command's message set. */
nl_catd catalog(const std::string& source) {
  const std::string path = scratch() + "/some.cat", texts = new_file("$set 6\n$quote \"\n" + source);
  EXPECT_EQ(system(("gencat --new " + path + " " + texts).c_str()), 0);
  return catopen(path.c_str(), 0);
}
/* What message 2615-713, with "open" and -5, is under a translation. */
std::string translated(const std::string& text) {
  nl_catd texts = catalog("39 \"" + text + "\"\n");
  const std::string out = printed([&] { zk_print_message(stdout, texts, 39, {zk_msg_arg("open"), zk_msg_arg(-5)}); });
  catclose(texts);
  return out;
}

TEST(translation, may_take_the_arguments_in_any_order_and_form) {
  EXPECT_EQ(translated("%2$d by %1$s"), "-5 by open");
  EXPECT_EQ(translated("%s: %d"), "open: -5");
  EXPECT_EQ(translated("%2$i %2$+d %1$6.2s|%1$-6s|%%"), "-5 -5     op|open  |%");
  EXPECT_EQ(translated("no argument"), "no argument");
  EXPECT_EQ(translated(""), "");
  EXPECT_EQ(translated("%1$1024s"), std::string(1020, ' ') + "open");
}

TEST(translation, that_does_not_fit_is_not_used) {
  for (const char* unfit : {"%1$d",    "%s %s",    "%2$c",      "%2$x",    "%1$p",     "%n",   "%1$n", "%s%n",
                            "%m",      "%*d",      "%.*s",      "%1$*2$s", "%s %d %d", "%3$s", "%0$s", "%4294967297$s",
                            "%s %2$d", "%1$1025s", "%1$.1025s", "%1$ls",   "%2$ld",    "%",    "%y",   "%5%"})
    EXPECT_EQ(translated(unfit), unexpected("open", -5)) << unfit;
}

TEST(translation, of_a_number_without_a_text_takes_one_text) {
  nl_catd more = catalog("48 \"<%1$s>\"\n49 \"%d\"\n50 \"%s %s\"\n");
  auto shown = [&](int number) {
    return printed([&] { zk_print_message(stdout, more, number, {zk_msg_arg("one")}); });
  };
  EXPECT_EQ(shown(48), "<one>");
  for (int number : {49, 50, 0, -1, INT_MAX, INT_MIN})
    EXPECT_EQ(shown(number), "Bad message id for message set zkview_cmd");
  catclose(more);
}

/* ---- Terminals ----------------------------------------------------------------------------------------------- */

/* What the command shows on a terminal. */
std::string on_terminal(const std::string& arguments, const environment& variables = {}) {
  std::string command = "exec env -i TZ=UTC ASAN_OPTIONS=detect_leaks=0 ";
  for (const auto& [name, value] : variables) command += name + "=" + value + " ";
  command += EMULATOR " " + program("zkview") + " " + arguments;
  termios plain = {};
  cfmakeraw(&plain);
  int terminal = -1;
  const pid_t child = forkpty(&terminal, nullptr, &plain, nullptr);
  if (child == 0) {
    execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    _exit(127);
  }
  std::string shown;
  for (char byte; read(terminal, &byte, 1) == 1;) shown += byte;
  waitpid(child, nullptr, 0);
  close(terminal);
  return shown;
}

/* What is recorded reaches a file as it is, and a terminal as `shown`, from each text of a record. */
void expect_on_terminal(const std::string& recorded, const std::string& shown, const environment& variables = {}) {
  stack s;
  s.add({.process = recorded,
         .file = recorded,
         .file_version = recorded,
         .product = recorded,
         .description = recorded,
         .details = recorded});
  const std::string path = s.file(), as_it_is = view(s, {"-a"}, variables).out;
  EXPECT_NE(as_it_is.find(recorded), as_it_is.npos);
  EXPECT_EQ(on_terminal("-a -s " + path, variables), replaced(as_it_is, recorded, shown));
  EXPECT_EQ(on_terminal("-d -s " + path, variables), HEADING + replaced(line(recorded, recorded), recorded, shown));
}

TEST(terminal, is_not_driven_by_what_was_recorded) {
  expect_on_terminal("\x1b]0;title\x07", "?]0;title?");
  expect_on_terminal("\x01\r\x1f\x7f.", "????.");
  expect_on_terminal("\x80\x9b[2J\x9f", "??[2J?");
  expect_on_terminal("\xc2\x80\xc2\x9b\xc2\x9f\xc2\xa0", "???\xc2\xa0");
}

TEST(terminal, gets_letters_newlines_and_tabs) {
  expect_on_terminal("tab\tnew\nline", "tab\tnew\nline");
  expect_on_terminal("\xc3\x9b \xe2\x82\x9b \xf0\x9f\x9b\x80",
                     "\xc3\x9b \xe2\x82\x9b \xf0\x9f\x9b\x80"); /* 0x9b inside */
}

TEST(terminal, is_not_driven_by_what_only_looks_like_letters) {
  expect_on_terminal("\xe2\x82.\xe0\x80\x9b\xed\xa0\x80", "\xe2?.\xe0??\xed\xa0?");
  expect_on_terminal("\xf5\x9b.\xf0\x80\x9b\xf4\x90\x9b.\xc2", "\xf5?.\xf0??\xf4??.\xc2");
}

TEST(terminal, is_not_driven_by_a_name_from_the_command_line) {
  EXPECT_EQ(on_terminal("-s '/no\x1bwhere'"),
            "2615-712 zkview Error: Unable to locate or open ZELK Error Stack file\n\t /no?where.\n");
}

/* Japan in Shift-JIS, whose letters have bytes from 0x80 on that are controls elsewhere. */
struct japanese_terminal : testing::Test {
  environment variables = {{"LOCPATH", scratch()}, {"LC_ALL", "ja_JP.SJIS"}};
  void SetUp() override {
    GTEST_SKIP() << "letters of such a locale are still taken for controls";
    const std::string make = "localedef -c -i ja_JP -f SHIFT_JIS " + scratch() + "/ja_JP.SJIS 2>/dev/null";
    if (system(make.c_str()) == -1 || access((scratch() + "/ja_JP.SJIS/LC_TIME").c_str(), F_OK) != 0)
      GTEST_SKIP() << "no such locale can be made";
  }
};

TEST_F(japanese_terminal, gets_the_time_as_the_locale_writes_it) {
  stack s;
  const std::string time =
      "2007\x94N02\x8c\x8e"
      "03\x93\xfa 09\x8e\x9e"
      "05\x95\xaa"
      "00\x95"
      "b UTC\n";
  const std::string shown = on_terminal("-a -s " + s.add("one").file(), variables);
  EXPECT_NE(shown.find("\t Timestamp: " + time), shown.npos) << shown;
}

TEST_F(japanese_terminal, gets_recorded_letters_but_no_controls) {
  expect_on_terminal("\x94N\x1b[2J", "\x94N?[2J", variables);
}

/* ---- The finished program ------------------------------------------------------------------------------------ */

TEST(program, is_hardened_and_needs_nothing_but_the_c_library) {
  const outcome read = run({"/bin/sh", "-c", "readelf -Whlds " + program("zkview")}, {{"PATH", "/usr/bin:/bin"}});
  if (read.out.empty()) GTEST_SKIP() << "no readelf here";
  for (const char* sign : {"__asan_", "__ubsan_", "__tsan_", "__msan_", "__gcov_", "__sanitizer"})
    if (read.out.find(sign) != read.out.npos) GTEST_SKIP() << "an instrumented build";
  const std::string needed = "Shared library: [";
  for (size_t at = read.out.find(needed); at != read.out.npos; at = read.out.find(needed, at + 1)) {
    const std::string library = read.out.substr(at + needed.size(), 16);
    EXPECT_TRUE(library.starts_with("libc.so") || library.starts_with("ld")) << library;
  }
  for (const char* sign : {" DYN (", "PIE", "GNU_RELRO", "__stack_chk_fail"})
    EXPECT_NE(read.out.find(sign), read.out.npos) << sign;
}

}  // namespace
