/* fault_test.cpp - the command while what it needs of the system fails: reading the stack, memory, writing the report.
 * A fault strikes at the first, the second, ... time that it can, until there is none any more. */
#include <unistd.h>

#include <functional>
#include <set>

#include "support.h"

namespace {

struct faults : testing::Test {
  void SetUp() override { NEEDS_FAULTS(); }

  const std::string stack_file = scratch() + "/disk";
  void make_stack(const stack& s) { write(stack_file, s.bytes()); }
  static void write(const std::string& path, const std::string& bytes) {
    FILE* file = fopen(path.c_str(), "w");
    fwrite(bytes.data(), 1, bytes.size(), file);
    fclose(file);
  }

  /* Runs the command with the `number`-th of these things failing; whether it came to that. */
  bool fails(const std::string& what, int number, const std::string& error, const std::string& arguments,
             outcome* result) {
    const std::string hit = scratch() + "/hit";
    unlink(hit.c_str());
    *result =
        shell("zkview " + arguments + " -s " + stack_file,
              {{"FAULT", what + " " + std::to_string(number) + " " + error}, {"FAULT_HIT", hit}, {"ZELKDEBUG", trace}});
    return access(hit.c_str(), F_OK) == 0;
  }
  /* `check` for each time that `what` can fail; returns how often that is. */
  int each(const std::string& what, const std::string& error, const std::string& arguments,
           const std::function<void(int, const outcome&)>& check) {
    int number = 1;
    for (outcome result; fails(what, number, error, arguments, &result); ++number) check(number, result);
    EXPECT_GT(number, 1) << what << " never comes";
    return number - 1;
  }
  void expect_each(const std::string& what, const std::string& error, const std::string& arguments,
                   const outcome& wanted) {
    each(what, error, arguments, [&](int number, const outcome& result) {
      EXPECT_EQ(result, wanted) << what << " " << number << " " << error;
    });
  }
  std::string trace = "unread-trace";
};

const std::string NOT_LOCKED =
    "2615-718 zkview Error: Unable to lock the ZELK Error Stack file\n\t for exclusive use.  The file may have been "
    "removed "
    "by another\n\t application, or another application may have locked this file for\n\t use and become hung.  Unable "
    "to "
    "generate a report for this ZELK\n\t Error Stack file at this time.\n";

/* ---- The stack ----------------------------------------------------------------------------------------------- */

TEST_F(faults, of_locking_the_stack_end_the_run) {
  make_stack(stack().add("A"));
  for (const char* view : {"-d", "-r", "-p"}) {
    expect_each("locking disk", "EDEADLK", view, {"", NOT_LOCKED, 22});
    expect_each("locking disk", "EINTR", view, {"", NOT_LOCKED, 22});
  }
}

TEST_F(faults, of_unlocking_the_stack_change_nothing) {
  make_stack(stack().add("A"));
  for (const char* view : {"-d", "-r", "-p"}) expect_each("unlocking disk", "EIO", view, good(lines("A")));
}

TEST_F(faults, of_reading_the_header_are_damage) {
  outcome result;
  make_stack(stack().add("A"));
  for (const char* view : {"-d", "-r", "-p"}) {
    EXPECT_TRUE(fails("reading disk", 1, "EIO", view, &result));
    EXPECT_EQ(result, corrupt("")) << view;
  }
}

/* A record that cannot be had is damage, or the end of its lap where its length word is missing; where the file has been
 * read already nothing is lost. */
TEST_F(faults, of_reading_records_show_none_of_them) {
  stack s;
  make_stack(s.add("older").wrap().add("newer"));
  each("reading disk", "EIO", "-d", [](int number, const outcome& result) {
    const outcome nothing = corrupt(""), newer = good(lines("newer")), both = good(lines("older newer"));
    EXPECT_TRUE(result == nothing || (number > 1 && (result == newer || result == both))) << number << result;
  });
}

TEST_F(faults, of_reading_that_pass_change_nothing) {
  stack s;
  make_stack(s.add("A").add("B", "A").wrap().add("C", "A"));
  for (const char* error : {"EINTR", "short"})
    for (const char* view : {"-d", "-p"}) expect_each("reading disk", error, view, good(lines("A B C")));
  expect_each("reading disk", "EINTR", "-r", good(lines("A C B")));
}

/* ---- The report ---------------------------------------------------------------------------------------------- */

TEST_F(faults, of_writing_the_report_are_no_success) {
  make_stack(stack().add("A"));
  const outcome unwritten = {"", unexpected("fflush", 5), 99};
  for (const char* view : {"-d", "-r", "-a"}) expect_each("writing stdout", "EIO", view, unwritten);
  expect_each("writing stdout", "EIO", "-h", unwritten);
}

TEST_F(faults, of_writing_that_pass_change_nothing) {
  make_stack(stack().add("A").add("B"));
  for (const char* error : {"EINTR", "short"}) expect_each("writing stdout", error, "-d", good(lines("A B")));
}

/* What could not be written ends the report: nothing follows behind a hole. */
TEST_F(faults, of_writing_leave_no_hole) {
  stack s;
  s.version = 8;
  for (int n = 0; n < 3000; ++n) s.add("n" + std::to_string(n)); /* more than a megabyte in full */
  make_stack(s);
  const std::string whole = view(s, {"-a", "-d"}).out;
  ASSERT_GT(whole.size(), size_t{1} << 20);
  const int writes = each("writing stdout", "EIO", "-a -d", [&](int, const outcome& result) {
    EXPECT_TRUE(whole.starts_with(result.out) && result.out.size() < whole.size());
    EXPECT_EQ(result.status, 99);
  });
  EXPECT_GT(writes, 1);
}

/* ---- Memory -------------------------------------------------------------------------------------------------- */

/* Takes the last entry of the trace, and the trace away. */
std::string take_last_entry() {
  const std::string path = scratch() + "/trace";
  const std::vector<std::string> entries = trace_entries(path);
  unlink(path.c_str());
  return entries.empty() ? "" : entries.back();
}

TEST_F(faults, of_memory_for_the_lists_end_the_run) {
  trace = "trace";
  make_stack(stack().add("A").add("B", "A").add("C"));
  std::set<std::string> last;
  const outcome out_of_memory = {"", NO_MEMORY, 18};
  for (const char* view : {"-r", "-p"}) {
    int lost = 0;
    each("memory -", "ENOMEM", view, [&](int, const outcome& result) {
      const std::string entry = take_last_entry();
      EXPECT_TRUE(result == out_of_memory || result.status == 0) << result; /* a description is empty then */
      if (result.status == 0) return;
      last.insert(entry);
      ++lost;
    });
    EXPECT_GE(lost, 6) << "an element and a copy for each record";
  }
  std::string all;
  for (const std::string& entry : last) all += entry;
  if (sizeof(void*) == 8) expect_golden("memory_of_lists", all);
}

/* An argument that cannot be kept is a damaged description; a text that cannot be made is an empty one. */
TEST_F(faults, of_memory_for_a_description) {
  trace = "trace";
  const std::string arguments = string_arg("disk") + int_arg(-7);
  make_stack(stack().add({.description = "%1$s %2$d", .arg_count = 2, .args = arguments}));
  std::set<std::string> last;
  int damaged = 0, empty = 0;
  each("memory -", "ENOMEM", "-d", [&](int, const outcome& result) {
    const std::string entry = take_last_entry();
    damaged += result == corrupt(HEADING + RECORD_CORRUPT);
    empty += result == good(HEADING + line(""));
    EXPECT_TRUE(result == corrupt(HEADING + RECORD_CORRUPT) || result == good(HEADING + line(""))) << result;
    if (result.status != 0) last.insert(entry);
  });
  EXPECT_EQ(damaged, 2) << "the array, the text";
  EXPECT_GE(empty, 1);
  EXPECT_EQ(last, std::set<std::string>{
                      traced("zk_get_description",
                             "Unable to allocate memory to store arguments\nReturning ZELK_NO_MEMORY(-19) to caller")});
}

/* ---- What the command can do without ------------------------------------------------------------------------- */

TEST_F(faults, of_the_trace_change_nothing) {
  trace = "trace";
  make_stack(stack().add("A"));
  for (const char* what : {"opening trace", "reading trace", "writing trace", "locking trace", "unlocking trace"})
    for (int number : {1, 2, 3}) {
      outcome result;
      EXPECT_TRUE(fails(what, number, "EIO", "-d", &result)) << what;
      EXPECT_EQ(result, good(lines("A"))) << what;
      unlink((scratch() + "/trace").c_str());
    }
}

TEST_F(faults, of_a_recorded_catalog_leave_the_recorded_text) {
  const std::string entry = image(4) + image(14) + image(0); /* text 14 of set 3 starts the texts */
  write(scratch() + "/texts.cat", image(0x960408deU) + image(1) + image(1) + entry + entry + text("translated"));
  make_stack(stack().add({.catalog = scratch() + "/texts.cat", .description = "recorded"}));
  EXPECT_EQ(shell("zkview -d -s " + stack_file), good(HEADING + line("translated")));
  expect_each("opening texts.cat", "EACCES", "-d", good(HEADING + line("recorded")));
  expect_each("reading texts.cat", "EIO", "-d", good(HEADING + line("recorded")));
  expect_each("reading texts.cat", "EINTR", "-d", good(HEADING + line("translated")));
  expect_each("reading texts.cat", "short", "-d", good(HEADING + line("translated")));
}

/* ---- Limits -------------------------------------------------------------------------------------------------- */

TEST(file_size_limit, loses_the_trace_and_not_the_report) {
  GTEST_SKIP() << "the limit still ends the command";
  const std::string path = stack().add("A").file();
  EXPECT_EQ(shell("ulimit -f 1; ZELKDEBUG=limited zkview -d -s " + path), good(lines("A")));
  EXPECT_NE(access((scratch() + "/limited").c_str(), F_OK), 0) << "half of a trace file is left";
}

TEST(file_size_limit, fails_a_report_that_is_longer) {
  GTEST_SKIP() << "the limit still ends the command";
  stack s;
  for (int n = 0; n < 40; ++n) s.add("A");
  const outcome limited = shell("ulimit -f 1; zkview -a -d -s " + s.file() + " >report");
  EXPECT_EQ(limited, (outcome{"", unexpected("fflush", 27), 99}));
  EXPECT_EQ(contents(scratch() + "/report").size() % 512, 0U);
}

TEST(node_without_addresses, has_no_stacks_of_its_own) {
  NEEDS_PRIVATE_VAR();
  const outcome result = shell("unshare -n zkview -f 7z.....Fris1/..../...z/...................");
  if (result.status == 1) GTEST_SKIP() << "no network namespace";
  EXPECT_EQ(result.status, 43);
  EXPECT_TRUE(result.err.starts_with("2615-717 ")) << result;
}

}  // namespace
