/* SPDX-License-Identifier: MIT */
/* hostile_test.cpp - the neighbours of SECURITY.md, played: each test is a row of its table. The folders are those that the
 * package makes; a stranger has an account and no more, a member is one of the group zelk. */
#include "faults.h"

#include <grp.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "qx_record.h"
#include "support.h"

namespace fs = std::filesystem;

static constexpr uid_t STRANGER = 47001, MEMBER = 47002;
static const fs::path FOLDER = ZELK_DIR, STACKS = ZELK_STACK_DIR, DUMPS = ZELK_DUMP_DIR;

/* Makes the folders as the package does, once. False where the machine cannot. */
static bool has_node() {
  static const bool made = [] {
    if (!has_private_var() || !has("systemd-tmpfiles") || !has("native")) return false;
    const std::string groups = contents("/etc/group");
    const std::string own = new_file(groups + (groups.find("\nzelk:") == groups.npos ? "zelk:x:47000:\n" : ""));
    fs::remove_all("/var/adm");
    fs::permissions(scratch(), fs::perms{0755});
    fs::permissions(own, fs::perms{0644});
    return mount(own.c_str(), "/etc/group", nullptr, MS_BIND, nullptr) == 0 &&
           run({"/usr/bin/systemd-tmpfiles", "--create", INSTALL_FOLDER "/zkview.tmpfiles"}).err.empty();
  }();
  return made;
}

/* Turns this process into one of somebody's. */
static void become(uid_t user) {
  struct stat folder = {};
  stat(STACKS.c_str(), &folder);
  ASSERT_EQ(setgroups(user == MEMBER ? 1 : 0, &folder.st_gid), 0);
  ASSERT_EQ(setgid(user) + setuid(user), 0);
}
static void as(uid_t user, const std::function<void()>& work) {
  in_child([&] {
    become(user);
    work();
  });
}

/* That a call fails, and why. */
static void expect_refused(int result, int error) {
  EXPECT_EQ(std::pair(result, errno), std::pair(-1, error));
}

struct node : testing::Test {
  const std::string stack = STACKS / "night.stack";

  void SetUp() override {
    if (!has_node()) GTEST_SKIP() << "the machine has no mount namespace or no systemd-tmpfiles";
    fs::remove(stack);
    ASSERT_EQ(zk_create_stack(0, nullptr, "night.stack", 8192), 0);
  }
};

/* ---- Who has an account ------------------------------------------------------------------------------------------ */

/* A read lock takes only read permission, and holds up every recorder and every report. */
TEST_F(node, is_closed_to_strangers) {
  as(STRANGER, [&] {
    expect_refused(open(stack.c_str(), O_RDONLY), EACCES);
    expect_refused(open(STACKS.c_str(), O_RDONLY | O_DIRECTORY), EACCES);
    expect_refused(open(DUMPS.c_str(), O_RDONLY | O_DIRECTORY), EACCES);
    expect_refused(chdir(DUMPS.c_str()), EACCES); /* copies of dumps are 0644, their folder is not */
  });
}

/* The recipe of SECURITY.md. */
TEST_F(node, is_open_for_reading_to_whom_an_acl_names) {
  if (!has("setfacl")) GTEST_SKIP() << "no setfacl";
  const std::string user = std::to_string(STRANGER), folder = STACKS;
  run({"/usr/bin/setfacl", "-m", "u:" + user + ":rx,d:u:" + user + ":r", folder});
  run({"/usr/bin/setfacl", "-m", "u:" + user + ":r", stack});
  ASSERT_EQ(zk_create_stack(0, nullptr, "new.stack", 8192), 0);
  as(STRANGER, [&] {
    for (const std::string& path : {stack, std::string(STACKS / "new.stack")}) {
      const int fildes = open(path.c_str(), O_RDONLY);
      struct flock whole = {};
      whole.l_type = F_RDLCK;
      EXPECT_EQ(fcntl(fildes, F_SETLK, &whole), 0) << path; /* she is trusted not to */
      expect_refused(open(path.c_str(), O_WRONLY), EACCES);
    }
  });
  as(STRANGER + 100, [&] { expect_refused(open(stack.c_str(), O_RDONLY), EACCES); });
  run({"/usr/bin/setfacl", "-x", "u:" + user + ",d:u:" + user, folder});
}

/* ---- Members of the group ---------------------------------------------------------------------------------------- */

/* Root's commands would follow a link in the place of a folder. */
TEST_F(node, keeps_its_folders_from_members) {
  as(MEMBER, [&] {
    expect_refused(rename(STACKS.c_str(), (FOLDER / "aside").c_str()), EACCES);
    expect_refused(rmdir(DUMPS.c_str()), EACCES);
    expect_refused(symlink("/etc", (FOLDER / "new").c_str()), EACCES);
    expect_refused(chmod(STACKS.c_str(), 0777), EPERM);
  });
}

TEST_F(node, lets_members_write_to_a_stack_but_not_take_it_away) {
  as(MEMBER, [&] {
    const std::string own = STACKS / "own.stack";
    EXPECT_EQ(zk_create_stack(0, nullptr, own.c_str(), 8192), 0);
    expect_refused(unlink(stack.c_str()), EPERM);
    expect_refused(rename(stack.c_str(), (STACKS / "aside").c_str()), EPERM);
    expect_refused(rename(own.c_str(), stack.c_str()), EPERM);
    EXPECT_NE(open(stack.c_str(), O_RDWR), -1);
  });
}

TEST_F(node, has_no_recorder_that_makes_what_a_members_link_names) {
  const std::string link = STACKS / "later.stack", target = "/var/target";
  as(MEMBER, [&] { EXPECT_EQ(symlink(target.c_str(), link.c_str()), 0); });
  zk_recorder_t* recorder = nullptr;
  EXPECT_EQ(zk_create_stack(0, nullptr, "later.stack", 8192), -27);
  EXPECT_EQ(zk_open_recorder(0, nullptr, "later.stack", &recorder), -24);
  EXPECT_FALSE(fs::exists(target));
  std::ofstream(target) << "root's own";
  EXPECT_EQ(zk_open_recorder(0, nullptr, "later.stack", &recorder), -26);
  EXPECT_EQ(contents(target), "root's own");
}

/* The name of a copy can be told in advance. */
TEST_F(node, has_no_dump_that_goes_where_a_members_link_leads) {
  const std::string target = "/var/taken", dump = new_file("secrets");
  as(MEMBER, [&] { EXPECT_EQ(symlink(target.c_str(), (DUMPS / "prog.4711.20231114.221320").c_str()), 0); });
  char recorded[ZELK_DUMP_NAME_SIZE] = "";
  setenv("TZ", "UTC", 1);
  setenv("ZELKPNAME", "prog", 1);
  pid_is = 4711;
  EXPECT_EQ(zk_make_dump_file_copy(0, nullptr, dump.c_str(), recorded), -1);
  pid_is = 0;
  EXPECT_EQ(recorded, dump);
  EXPECT_FALSE(fs::exists(target));
}

/* ---- Who holds a lock -------------------------------------------------------------------------------------------- */

/* A member may lock a stack, and anybody a trace file, for as long as they like. What waits can be ended. */
TEST_F(node, ends_what_waits_for_a_lock_when_it_is_told_to) {
  const std::string trace = new_file(EMPTY_TRACE);
  fs::permissions(trace, fs::perms{0666});
  for (const std::string& locked : {stack, trace}) {
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    const pid_t holder = fork();
    if (holder == 0) {
      become(locked == stack ? MEMBER : STRANGER);
      lockf(open(locked.c_str(), O_RDWR), F_LOCK, 0);
      if (write(ready[1], "y", 1) == 1) pause();
      _exit(0);
    }
    char has_it = 'n';
    ASSERT_EQ(read(ready[0], &has_it, 1), 1);
    const outcome ended =
        run({"/usr/bin/timeout", "-k", "5", "0.2", program("zkview"), "-d", "-s", stack}, {{"ZELKDEBUG", trace}});
    EXPECT_EQ(ended.status, 124) << locked; /* by SIGTERM: SIGKILL would give 137 */
    kill(holder, SIGKILL);
    waitpid(holder, nullptr, 0);
    close(ready[0]);
    close(ready[1]);
  }
}

/* ---- The caller of a program that has more rights ------------------------------------------------------------------ */

/* Copies a command and has somebody call it: root, for whom the environment counts, or a stranger, who gets root's rights
 * by a set-user-ID bit or a capability of the file. */
enum rights_t { THE_CALLERS, SET_USER_ID, CAPABILITY };
static outcome called(const std::string& command, rights_t rights, std::vector<std::string> arguments,
                      const environment& callers) {
  const std::string copy = scratch() + "/" + command + std::to_string(rights);
  const std::string user = rights == THE_CALLERS ? "0" : std::to_string(STRANGER);
  fs::copy_file(program(command), copy, fs::copy_options::overwrite_existing);
  fs::permissions(copy, rights == SET_USER_ID ? fs::perms{04755} : fs::perms{0755});
  if (rights == CAPABILITY) run({"/usr/sbin/setcap", "cap_dac_override+ep", copy});
  arguments.insert(arguments.begin(), {"/usr/bin/setpriv", "--reuid=" + user, "--clear-groups", copy});
  return run(arguments, callers);
}

struct rights : node, testing::WithParamInterface<rights_t> {
  void SetUp() override {
    node::SetUp();
    if (IsSkipped()) return;
    if (!has("setpriv") || !has("setcap") || !has("gencat")) GTEST_SKIP() << "no setpriv, setcap or gencat";
    if (called("zkview", GetParam(), {"-d", "-s", stack}, {}).status != 0) GTEST_SKIP() << "a nosuid file system";
  }
};

TEST_P(rights, come_without_a_say_in_what_is_traced_recorded_and_copied) {
  if (!fs::exists(program("zkrecord"))) GTEST_SKIP() << "no zkrecord to copy";
  const std::string folder = scratch() + "/callers", dump = new_file("state"), address = "02.e.1...................";
  fs::create_directory(folder);
  fs::permissions(folder, fs::perms{0777});
  const outcome recorded = called("zkrecord", GetParam(), {"-D", dump, stack, "x"},
                                  {{"ZELKDEBUG", folder + "/trace"}, {"ZELKADDR", address}, {"ZELKPNAME", "callers"}});
  const bool counts = GetParam() == THE_CALLERS;
  ASSERT_EQ(recorded.out.size(), 43U) << recorded;
  EXPECT_EQ(recorded.out.substr(17, 25) == address, counts);
  EXPECT_EQ(fs::remove(folder + "/trace"), counts);
  EXPECT_EQ(run({"/bin/sh", "-c", "rm /var/adm/zelk/dumps/callers.*"}).status == 0, counts);
}

TEST_P(rights, come_without_a_say_in_the_words_of_a_description) {
  run({"/usr/bin/gencat", scratch() + "/words.cat", new_file("$set 3\n14 the caller's\n")});
  const std::string path = ::stack().add({.catalog = "words.cat", .description = "recorded"}).file();
  const outcome shown = called("zkview", GetParam(), {"-d", "-s", path}, {{"NLSPATH", scratch() + "/%N"}});
  EXPECT_EQ(shown.out, HEADING + line(GetParam() == THE_CALLERS ? "the caller's" : "recorded"));
}

INSTANTIATE_TEST_SUITE_P(of, rights, testing::Values(THE_CALLERS, SET_USER_ID, CAPABILITY));
