/* SPDX-License-Identifier: MIT */
/* Recording from a script: the command line, what is recorded, and what is said when it is not. */
#include <filesystem>
#include <regex>
#include <sstream>

#include "support.h"

static std::string new_stack() {
  static int made = 0;
  return scratch() + "/stack" + std::to_string(++made);
}
static outcome zkrecord(std::vector<std::string> arguments, const environment& variables = {}) {
  arguments.insert(arguments.begin(), program("zkrecord"));
  return run(arguments, variables);
}
/* A line of the shell in which S is a stack. */
static outcome script(const std::string& stack, const std::string& line) {
  return shell("S=" + stack + "; " + line);
}
/* What the full report of the newest incident shows from `label` up to `behind`. */
static std::string newest(const std::string& stack, const std::string& label, const std::string& behind = "\n") {
  const std::string report = zkview({"-d", "-a", "-s", stack}).out;
  const size_t start = report.rfind(label) + label.size();
  return report.substr(start, report.find(behind, start) - start);
}
static std::string description(const std::string& stack) {
  return newest(stack, "\nDescription:\n", "\n" + SEPARATOR);
}
static const std::string DETAILS = "\n\nDetails:\n";

TEST(zkrecord, takes_a_format_as_printf_does) {
  const std::string stack = new_stack(), highest = "0x" + std::string(2 * sizeof(void*), 'f');
  const std::pair<std::vector<std::string>, std::string> rows[] = {
      {{"Disk %s is %d%% full.", "sda", "97"}, "Disk sda is 97% full."},
      {{"%c%c%c%c%c|", "A", "66", "2147483459", "-2147483580", ""}, "ABCD|"},
      {{"%c is %3c%1$c", "\u00e9", "\u20ac"}, "\u00e9 is \u20ac\u00e9"},
      {{"%.2f %g %E %a", "1.5", "inf", "100", "0x1p4"}, "1.50 inf 1.000000E+02 0x1p+4"},
      {{"%e %F %G %A %i", "0.5", "0.5", "5e-1", "0.5", "-010"}, "5.000000e-01 0.500000 0.5 0X1P-1 -8"},
      {{"%p %p", highest, "0"}, highest + " (nil)"},
      {{"%2$s before %1$#x|%1$-4d|", "0xffffffffffffffff", "text"}, "text before 0xffffffffffffffff|-1  |"},
      {{"%3$s but not %1$s", "a", "b", "c"}, "c but not a"},
      {{"a\\tb\\\\ \\101\\x42 \\u00e9 \\q"}, "a\tb\\ AB \u00e9 \\q"},
      {{"\\a\\b\\e\\f\\n\\r\\v\\\"\\541 \\U0001F600a"}, "\a\b\033\f\n\r\v\"a \U0001F600a"},
      {{"\\18\\78\\0419 \\x4g \\u00e9a"},
       "\1"
       "8\7"
       "8!9 \4g \u00e9a"},
      {{"100\\045 d \\x25s"}, "100% d %s"},
      {{"\\x25d \\%d %d", "5"}, "%d \\%d 5"},
      {{"{}[a,b] %s %s", "[c,d]", "--quiet"}, "{}[a,b] [c,d] --quiet"}};
  for (auto [arguments, shown] : rows) {
    arguments.insert(arguments.begin(), {"-qC", stack});
    EXPECT_EQ(zkrecord(arguments), good("")) << shown;
    EXPECT_EQ(description(stack), shown + DETAILS);
  }
}

/* Each number as printf(1) shows it, and none that printf(1) complains of. */
TEST(zkrecord, takes_numbers_as_printf_does) {
  const std::string stack = new_stack();
  std::vector<std::string> numbers = words(
      "0 -1 +7 010 0x1F 9223372036854775807 9223372036854775808 -9223372036854775808 18446744073709551615 "
      "18446744073709551616 1x - 0.5 1e3 1e9999 INF -nan");
  numbers.insert(numbers.end(), {" 8", "8 "});
  for (const std::string& format : words("%d %i %o %u %x %X %+5d %#o %08.2e %g %E"))
    for (const std::string& number : numbers) {
      const outcome wanted = run({"/usr/bin/printf", format, number});
      const outcome taken = zkrecord({"-qC", "--", stack, format, number});
      EXPECT_EQ(taken.status, wanted.status == 0 ? 0 : 2) << format << " of '" << number << "'";
      const std::string shown = taken.status == 0 ? wanted.out : "";
      EXPECT_EQ(taken.status == 0 ? description(stack) : DETAILS, shown + DETAILS) << format << " of " << number;
    }
}

TEST(zkrecord, makes_a_stack_where_there_is_none) {
  const std::string stack = new_stack();
  EXPECT_EQ(zkrecord({stack, "x"}),
            (outcome{"", "zkrecord: " + stack + ": there is no such file; --create makes one\n", 1}));
  EXPECT_EQ(zkrecord({"-q", "-C=8192", stack, "one"}), good(""));
  EXPECT_EQ(zkrecord({"-q", "--create=9000", stack, "two"}), good(""));
  EXPECT_EQ(contents(stack).size(), 8192U); /* one that exists keeps its size */
  EXPECT_EQ(zkrecord({"-C", "/dev/null", "x"}).err,
            "zkrecord: /dev/null: it is damaged, or no Error Stack: it is not a regular file (offset 0)\n");
  const std::string turned = shell("LC_ALL=C.UTF-8 " + program("zkrecord") + " '/no\n\x1b[2J\u202e\u00e9' x").err;
  EXPECT_EQ(turned, "zkrecord: /no??[2J?\u00e9: there is no such file; --create makes one\n");
  EXPECT_EQ(zkrecord({"./no.stack", "x"}).err.substr(0, 42), "zkrecord: /var/adm/zelk/stacks/./no.stack:");
}

TEST(zkrecord, prints_the_id_by_which_the_next_incident_names_its_cause) {
  const std::string stack = new_stack();
  const std::string cause = zkrecord({"-C", stack, "cause"}).out.substr(0, 42);
  const outcome effect = zkrecord({"--details=", "--cause", cause, "--", stack, "-d"});
  EXPECT_EQ(effect.out.size(), 43U);
  EXPECT_EQ(newest(stack, "ZELK Error Identifier:\n\t "), cause); /* the associated one */
  EXPECT_EQ(description(stack), "-d" + DETAILS);
}

TEST(zkrecord, records_the_caller_unless_told_otherwise) {
  const std::string stack = new_stack();
  const std::string ids = script(stack, "zkrecord -qC $S x; echo $$ $PPID").out;
  EXPECT_EQ(newest(stack, "Process Name: "), "sh");
  EXPECT_EQ(newest(stack, "\t Process Identifier: ") + " " + newest(stack, "Parent Process Identifier: ") + "\n", ids);
  zkrecord({"-p", "stn_volmgr", "--pid=2147483647", "--file=vm.c", "--line=97", "--file-version=1.31", "--product=stn",
            "-m", "stn.cat:2:3", stack, "Volume %s", "mail"});
  const std::string source = text("vm.c") + text("1.31") + text("stn") + image(97);
  EXPECT_NE(contents(stack).find(source + text("stn.cat") + image(2) + image(3) + text("Volume %s")),
            std::string::npos);
  EXPECT_EQ(newest(stack, "Process Name: "), "stn_volmgr");
  EXPECT_EQ(newest(stack, "Process Thread Identifier: "), "2147483647");
  EXPECT_EQ(newest(stack, "Parent Process Identifier: "), "0"); /* it has ended */
  zkrecord({"--pid=1", stack, "x"});
  EXPECT_EQ(newest(stack, "Parent Process Identifier: "), "0");
}

static const std::string CUT = "zkrecord: --details: it is cut, since a record has no room for all of it\n";

TEST(zkrecord, keeps_the_line_of_a_cause_beside_a_text_that_is_cut) {
  const std::string stack = new_stack(), cause(203, 'c'); /* no longer than what is left of one that is cut */
  EXPECT_EQ(zkrecord({"-tC", "-c", cause, stack, std::string(2000, '%')}).err,
            "zkrecord: --cause: '" + cause + "' is not an Error ID\n" +
                "zkrecord: FORMAT: it is cut, since a record has no room for all of it\n");
  EXPECT_TRUE(description(stack).ends_with("%%%..." + DETAILS + "cause  " + cause)) << description(stack);
}

TEST(zkrecord, loses_no_incident_for_its_trimmings) {
  const std::string stack = new_stack();
  auto noted = [&](std::vector<std::string> arguments, const std::string& said, const std::string& details) {
    arguments.insert(arguments.begin(), {"-qC"});
    arguments.insert(arguments.end(), {stack, "%s", "x"});
    EXPECT_EQ(zkrecord(arguments), (outcome{"", said, 0}));
    EXPECT_EQ(description(stack), "x" + DETAILS + details);
  };
  const std::string no_eid(42, 'x'), no_cause = "zkrecord: --cause: '" + no_eid + "' is not an Error ID\n";
  noted({"-c", no_eid}, no_cause, "cause  " + no_eid);
  noted({"-c", no_eid, "-d", "one\ntwo\n"}, no_cause, "one\ntwo\ncause  " + no_eid);
  const std::string later = "726md..Wdc/f/iJr/06...1..................x",
                    no_later = "zkrecord: --cause: '" + later + "' is not an Error ID\n";
  noted({"-c", later}, no_later, "cause  " + later); /* its address is of another type */
  noted({"-c", "a\nb"}, "zkrecord: --cause: 'a?b' is not an Error ID\n", "cause  a b");
  noted({"-D", "/dev/null"}, "zkrecord: /dev/null: it is not a regular file\n", "dump file  /dev/null");
  noted({"-D", "/a\ncause  b"}, "zkrecord: /a?cause  b: No such file or directory\n", "dump file  /a cause  b");
  const std::string long_name = "/" + std::string(500, 'n');
  noted({"-D", long_name}, "zkrecord: " + long_name + ": File name too long\n", "dump file  " + long_name);
}

/* A body has 1024 bytes: those of these incidents have room for 845 bytes of details. */
TEST(zkrecord, keeps_as_much_of_a_bad_cause_and_of_a_dump_files_name_as_fits) {
  const std::string stack = new_stack(), cause(2000, 'c'), dump(900, 'd'), argument(40, 'a');
  auto recorded = [&](const std::string& details, const std::string& text) {
    EXPECT_EQ(zkrecord({"-qC", "-p", "job", "-c", cause, "-d", details, stack, "%s", text}).status, 0);
    return description(stack);
  };
  const std::string alone = recorded("", argument);
  EXPECT_TRUE(alone.starts_with(argument + DETAILS + "cause  ccc") && alone.ends_with("c...")) << alone;
  EXPECT_EQ(alone.size(), (argument + DETAILS).size() + 845);
  EXPECT_EQ(recorded("more", argument), alone); /* details are cut before the line */
  const std::string beside = recorded("", std::string(3000, 'a'));
  EXPECT_TRUE(beside.ends_with("a..." + DETAILS + "cause  " + std::string(200, 'c') + "...")) << beside;

  const outcome both = zkrecord({"-q", "-p", "job", "-c", cause, "-D", dump, stack, "%s", argument});
  EXPECT_TRUE(
      both.err.ends_with("zkrecord: --cause: it is cut, since a record has no room for all of it\n"
                         "zkrecord: --dump: it is cut, since a record has no room for all of it\n"))
      << both;
  const std::string lines = "cause  " + std::string(200, 'c') + "...\ndump file  ddd";
  EXPECT_TRUE(description(stack).starts_with(argument + DETAILS + lines)) << description(stack);
  EXPECT_EQ(description(stack).size(), alone.size());
}

/* What 300 bytes of the format leave, once the argument is cut, is shared by the two lines. */
TEST(zkrecord, keeps_a_line_of_each_trimming_beside_a_long_format) {
  const std::string stack = new_stack();
  const outcome told = zkrecord({"-qC", "-p", "job", "-c", std::string(322, 'c'), "-D", std::string(900, 'd'), stack,
                                 std::string(300, 'f') + "%s", std::string(700, 'a')});
  EXPECT_EQ(told.status, 0);
  const std::string shown = description(stack);
  EXPECT_NE(shown.find("a..." + DETAILS + "cause  " + std::string(200, 'c')), std::string::npos) << shown;
  EXPECT_NE(shown.find("...\ndump file  " + std::string(276, 'd') + "..."), std::string::npos) << shown;
}

TEST(zkrecord, takes_details_from_standard_input) {
  const std::string stack = new_stack();
  script(stack, "printf 'one\\ntwo\\n\\n' | zkrecord -C -d - $S x");
  EXPECT_EQ(description(stack), "x" + DETAILS + "one\ntwo\n");
  EXPECT_EQ(script(stack, "yes | zkrecord -q -d - $S endless"), (outcome{"", CUT, 0}));
  EXPECT_EQ(script(stack, "zkrecord -q -d - $S x </"), (outcome{"", "zkrecord: standard input: Is a directory\n", 0}));
  EXPECT_EQ(script(stack, "zkrecord -q -d - $S closed <&-").status, 0);
  EXPECT_EQ(description(stack), "closed" + DETAILS);
}

TEST(zkrecord, preserves_a_dump_file_and_names_it_behind_what_fits_of_the_details) {
  NEEDS_PRIVATE_VAR();
  const std::string dump = new_file("state");
  EXPECT_EQ(zkrecord({"-qC", "-p", "job", "-D", dump, "-d", std::string(2000, 'x'), "node", "x"},
                     {{"ZELKPNAME", "stn_backup"}}),
            (outcome{"", CUT, 0}));
  const std::string shown = description("node"), copy = shown.substr(shown.find("...\ndump file  ") + 15);
  EXPECT_TRUE(copy.starts_with("/var/adm/zelk/dumps/stn_backup.")) << shown;
  EXPECT_EQ(contents(copy), "state");
  const std::string unset = "unset ZELKPNAME; zkrecord -q -D " + dump + " -p a/$(printf %0300d 0) ";
  EXPECT_EQ(shell(unset + "node x"), good(""));
  EXPECT_EQ(description("node").substr(0, 46), "x" + DETAILS + "dump file  /var/adm/zelk/dumps/a_0");
  EXPECT_EQ(shell(unset + "--file $(printf %01024d 0) node y || ls /var/adm/zelk/dumps | wc -l").out, "2\n");
  const std::string no_copy = "zkrecord: " + dump + ": no copy is made in /var/adm/zelk/dumps: ";
  EXPECT_EQ(zkrecord({"-q", "-D", dump, "node", "x"}), /* by the empty name that run() gives */
            (outcome{"", no_copy + "environment variable missing or bad\n", 0}));
  EXPECT_EQ(description("node"), "x" + DETAILS + "dump file  " + dump);
  std::filesystem::rename("/var/adm/zelk/dumps", "/var/adm/zelk/away");
  EXPECT_EQ(zkrecord({"-q", "-D", dump, "node", "y"}, {{"ZELKPNAME", "job"}}),
            (outcome{"", no_copy + "no such file\n", 0}));
  EXPECT_EQ(description("node"), "y" + DETAILS + "dump file  " + dump);
  std::filesystem::rename("/var/adm/zelk/away", "/var/adm/zelk/dumps");
}

TEST(zkrecord, fails_when_the_id_cannot_be_written) {
  const std::string stack = new_stack();
  const outcome full = script(stack, "zkrecord -C $S full >/dev/full");
  EXPECT_TRUE(full.status == 1 && full.err.ends_with(" cannot be written: No space left on device\n")) << full;
  EXPECT_EQ(script(stack, "zkrecord $S closed >&-").status, 1);
  EXPECT_EQ(description(stack), "closed" + DETAILS); /* the ID went nowhere, and not into the stack */
}

/* What --help lists is what is taken: a value apart or with its name, a flag without one. */
TEST(companions, take_each_option_in_each_of_its_forms) {
  const environment samples = {{"FORMAT", "json"}, {"CATALOG", "a:1:2"}, {"WHEN", "auto"}, {"N", "1"},
                               {"TIME", "now"},    {"ADDRESS", "::1"},   {"SIZE", "9000"}, {"BYTES", "20000"}};
  const std::regex row("  (?:-(.),)?--([a-z-]+)(?: (\\[=)?([A-Z]+).*)?");
  for (const char* command : {"zkrecord", "zkdecode", "zkexport"}) {
    const std::string help = run({program(command), "--help"}).out;
    std::istringstream rows(help.substr(help.find("\nOptions:\n")));
    auto expect = [&](const std::vector<std::string>& arguments, const outcome& wanted) {
      std::vector<std::string> all = {program(command)};
      all.insert(all.end(), arguments.begin(), arguments.end());
      EXPECT_EQ(run(all), wanted) << command << " " << arguments[0];
    };
    std::smatch found;
    for (std::string line; std::getline(rows, line);) {
      if (!std::regex_match(line.erase(std::min(line.size(), line.find("  ", 2))), found, row)) continue;
      const std::string name = "--" + found.str(2), letter = "-" + found.str(1), placeholder = found.str(4);
      const bool is_optional = found[3].matched, has_value = found[4].matched;
      if (name == "--help" || name == "--version") continue;
      const std::string value = samples.contains(placeholder) ? samples.at(placeholder) : "x";
      if (has_value) expect({name + "=" + value, "--help"}, good(help));
      if (has_value && letter != "-") expect({letter + value, "--help"}, good(help));
      if (!has_value || is_optional) {
        expect({name, "--help"}, good(help));
        if (letter != "-") expect({letter, "--help"}, good(help));
      } else {
        expect({name, value, "--help"}, good(help));
        if (letter != "-") expect({letter, value, "--help"}, good(help));
      }
      const std::string bad = has_value && !is_optional ? name : name + "=x"; /* no value, and one that is none */
      EXPECT_EQ(run({program(command), bad}).status, 2) << bad;
    }
  }
}
