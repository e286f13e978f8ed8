/* SPDX-License-Identifier: MIT */
/* Who may make files in the stacks' folder, beside `zkexport --follow --every`: each test plays one of them. */
#include <sys/stat.h>

#include <fstream>

#include "support.h"

/* What a line of the shell prints in the stacks' folder, emptied before, where `follow` starts the command, `lines` waits until
 * it has given out so many, `shown` shows which, and `end` ends it. */
static std::string script(const std::string& line) {
  static const std::string TOOLS =
      "rm -rf " ZELK_STACK_DIR "/* out err cursor holds; touch out; home=$PWD; cd " ZELK_STACK_DIR
      ";"
      "follow() { : >$home/out; $within $zkexport --follow --every \"$@\" >$home/out 2>$home/err & follower=$!; };"
      "lines() { n=0; while [ $(wc -l <$home/out) -lt $1 ] && [ $n -lt 600 ]; do sleep 0.05; n=$((n + 1)); done; };"
      "shown() { jq -r '.description // .gap // .error.reason' $home/out | tr '\\n' ' '; };"
      "end() { kill $follower; wait $follower; echo ended $?; };";
  return shell(TOOLS + line, {{"zkexport", program("zkexport")}, {"zkrecord", program("zkrecord") + " -qC"}}).out;
}

/* Python that holds something of a stack until it is ended. */
static std::string holding(const std::string& what) {
  return "python3 -c 'import fcntl, os, signal, sys, time; signal.signal(signal.SIGIO, signal.SIG_IGN);"
         "f = os.open(sys.argv[1], os.O_RDWR); " +
         what +
         "; open(sys.argv[2], \"w\"); time.sleep(30)' held $home/holds & holder=$!;"
         "until [ -e $home/holds ]; do sleep 0.02; done;";
}

struct follow : testing::Test {
  void SetUp() override {
    if (!has_private_var() || !has("jq")) GTEST_SKIP() << "the machine forbids a mount namespace, or has no jq";
  }
};

TEST_F(follow, keeps_the_mark_of_a_stack_that_stays_locked) {
  const std::string start = "follow --cursor-file=$home/cursor;";
  EXPECT_EQ(
      script(start + "$zkrecord held mine; lines 1; end;" + holding("fcntl.lockf(f, fcntl.LOCK_EX)") + start +
             "$zkrecord open one; lines 1; end; kill $holder;" + start + "$zkrecord held two; lines 1; shown; end"),
      "ended 0\nended 0\ntwo ended 0\n");
}

TEST_F(follow, ends_when_its_cursor_cannot_be_kept) {
  EXPECT_EQ(
      script("mkdir ../kept; follow --cursor-file=$PWD/../kept/cursor; $zkrecord s one; lines 1; mv ../kept ../away;"
             "$zkrecord s two; wait $follower; echo ended $?; cut -d: -f3- $home/err; rm -r ../away"),
      "ended 1\n No such file or directory\n");
}

/* Who holds the lock of a stack that is replaced holds that of a file which nobody records in. */
TEST_F(follow, goes_on_to_the_next_file_while_the_last_one_is_locked) {
  const std::string story = "$zkrecord held mine; follow; lines 1; " + holding("fcntl.lockf(f, fcntl.LOCK_EX)");
  EXPECT_EQ(
      script(story + "$zkrecord new one; mv new held; lines 2; $zkrecord held two; lines 3; shown; kill $holder; end"),
      "mine one two ended 0\n");
}

/* What it still held is given all the same, as nobody records there any more. */
TEST_F(follow, gives_what_a_locked_stack_held_when_it_is_replaced) {
  const std::string story = "$zkrecord held mine; " + holding("fcntl.lockf(f, fcntl.LOCK_EX)");
  EXPECT_EQ(script(story + "follow; $zkrecord open one; lines 1; $zkrecord ../new two; mv ../new held; lines 3; shown;"
                           "kill $holder; end"),
            "one mine two ended 0\n");
}

TEST_F(follow, keeps_few_names_that_have_gone) {
  EXPECT_EQ(
      script(
          "follow --cursor-file=$home/cursor; $zkrecord kept one; for n in $(seq 150); do $zkrecord s$n x; done;"
          "lines 151; mv kept ..; sleep 0.1; mv ../kept .; $zkrecord kept two; lines 152; rm s*; $zkrecord kept three;"
          "lines 153; names() { grep -c / $home/cursor; }; n=0;"
          "while [ $(names) -gt 101 ] && [ $n -lt 600 ]; do sleep 0.05; n=$((n + 1)); done; [ $(names) -le 101 ] && "
          "echo few;"
          "shown | tr -d 'x '; end; follow --cursor-file=$home/cursor; $zkrecord kept four; lines 1; shown; end"),
      "few\nonetwothreeended 0\nfour ended 0\n");
}

/* One that is moved elsewhere is read on, since who has it open records there: a hundred of them at most. */
TEST_F(follow, reads_on_in_few_stacks_that_were_moved_out_of_the_folder) {
  EXPECT_EQ(
      script("mkdir -p ../away; follow; for n in $(seq 150); do $zkrecord s$n x; done; lines 150; mv s* ../away;"
             "$zkrecord kept one; lines 151; n=0; while [ $(ls /proc/$follower/fd | wc -l) -gt 120 ] && [ $n -lt 600 ];"
             "do sleep 0.05; n=$((n + 1)); done; [ $(ls /proc/$follower/fd | wc -l) -le 120 ] && echo few;"
             "$zkrecord $PWD/../away/s1 late; lines 152; shown | tr -d 'x '; rm -r ../away; end"),
      "few\nonelateended 0\n");
}

/* A namespace has a limit of its own. */
TEST_F(follow, looks_at_what_it_cannot_watch) {
  const std::string within = scratch() + "/few-watches";
  std::ofstream(within)
      << "#!/bin/sh\nexec unshare -Ur sh -c 'echo 3 >/proc/sys/user/max_inotify_watches && exec \"$@\"' - \"$@\"\n";
  chmod(within.c_str(), 0755);
  if (shell(within + " true").status != 0) GTEST_SKIP() << "no user namespaces";
  EXPECT_EQ(script("within=" + within +
                   "; for n in $(seq 6); do $zkrecord s$n old; done; follow; lines 6;"
                   "for n in $(seq 7); do $zkrecord s$n new; done; lines 13;"
                   "sleep 0.1; $zkrecord s6 last; lines 14; shown | wc -w; cut -d: -f3- $home/err; end"),
            "14\n it cannot be watched (No space left on device); what cannot be is looked at every second\nended 0\n");
}

TEST_F(follow, has_more_stacks_than_open_files) {
  EXPECT_EQ(script("for n in $(seq 60); do $zkrecord s$n old; done; ulimit -Sn 20; ulimit -Hn 50; follow; lines 60;"
                   "for n in 1 30 60; do $zkrecord s$n new; done; lines 63; shown | wc -w; cat $home/err; end"),
            "63\nended 0\n");
}

/* A stack of a later format may be of any size, and each of its records may have a long description. */
static std::string large_stack(int records) {
  stack large;
  large.version = 8;
  std::string wide;
  for (int count = 0; count < 30; ++count) wide += "%1$999s";
  for (int count = 0; count < records; ++count)
    large.add({.description = wide, .arg_count = 1, .args = string_arg("x")});
  return large.file();
}

TEST_F(follow, keeps_little_of_a_stack_in_memory) {
  const std::string file = large_stack(3000);
  const std::string limit = *FAULT_SHIM != '\0' ? "limit=24000;" : "limit=800000;"; /* KiB; a sanitizer has more */
  EXPECT_EQ(
      script("cp " + file + " large; cp " + large_stack(100) + " held; " + holding("fcntl.lockf(f, fcntl.LOCK_EX)") +
             limit +
             "follow --max-stack=$(stat -c %s large); lines 3000; $zkrecord ../new one; mv ../new held; lines 3101;"
             "awk '/VmHWM/ { print $2 < '$limit' }' /proc/$follower/status; wc -l <$home/out; kill $holder; end;"
             "for run in 1 2; do $zkexport --cursor-file=$home/cursor held large | wc -l; done; rm $home/cursor held;"
             "follow --max-stack=$(stat -c %s large) --cursor-file=$home/cursor; lines 100; kill -9 $follower;"
             "grep -c large $home/cursor"), /* kept under way */
      "1\n3101\nended 0\n3001\n0\n1\n");
  EXPECT_EQ(script("cp " + file +
                   " large; follow --max-stack=$(($(stat -c %s large) - 1)); $zkrecord small one; lines 2; shown; cat "
                   "$home/err; timeout 9 $zkrecord large x; echo refused $?; end"),
            "one it is larger than --max-stack allows zkexport: " ZELK_STACK_DIR
            "/large: it is larger than --max-stack allows\n"
            "refused 1\nended 0\n"); /* its lock is not held */
}
