/* SPDX-License-Identifier: MIT */
/* create_stack_test.cpp - makes empty stacks, also where that fails. */
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>

#include "qx_record.h"
#include "support.h"

static int create(const std::string& path, int32_t size = 8192) {
  return zk_create_stack(0, nullptr, path.c_str(), size);
}

static std::string new_folder() {
  const std::string path = new_file("") + "-folder";
  mkdir(path.c_str(), 0755);
  return path;
}

TEST(new_stack, is_empty_and_of_its_full_size) {
  const std::string path = new_folder() + "/stack";
  std::string expected = image(0) + image(24) + image(24) + image(24) + image(16384);
  expected.resize(16384);
  const mode_t mask = umask(026);
  EXPECT_EQ(create(path, 16384), 0);
  umask(mask);
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, mode_t{S_IFREG | 0640});
  EXPECT_GE(status.st_blocks * 512, 16384); /* nothing is skipped over */
  EXPECT_TRUE(contents(path) == expected);
}

TEST(new_stack, fails_by_the_reason_and_leaves_nothing_behind) {
  const std::string folder = new_folder(), path = folder + "/stack";
  const std::string mine = new_file("mine");
  EXPECT_EQ(symlink("/nowhere", (mine + "-link").c_str()), 0);
  EXPECT_EQ(create("", 0), -4);
  for (const std::string& existing : {mine, mine + "-link", std::string("/")}) EXPECT_EQ(create(existing), -27);
  EXPECT_EQ(contents(mine), "mine");
  for (int32_t size : {8191, 16385}) EXPECT_EQ(create(path, size), -5);
  for (const std::string& nowhere : {folder + "/none/stack", std::string("/dev/null/stack")})
    EXPECT_EQ(create(nowhere), -14);
  EXPECT_EQ(create(folder + "/" + std::string(256, 'x')), -1);
  as_ordinary_user([] { EXPECT_EQ(create("/stack"), -13); });
  auto create_within = [&](auto resource, rlim_t limit, int expected) {
    in_child([=] {
      rlimit before;
      getrlimit(resource, &before);
      const rlimit lower = {limit, before.rlim_max};
      signal(SIGXFSZ, SIG_IGN);
      setrlimit(resource, &lower);
      const int result = create(path);
      setrlimit(resource, &before); /* memory checkers need descriptors too */
      EXPECT_EQ(result, expected);
    });
  };
  create_within(RLIMIT_NOFILE, 3, -20);
  create_within(RLIMIT_FSIZE, 4096, -1);
  EXPECT_TRUE(std::filesystem::is_empty(folder));
}

TEST(new_stack, needs_space_and_a_file_system_that_is_written) {
  NEEDS_PRIVATE_VAR();
  EXPECT_EQ(create("one"), 0);
  EXPECT_EQ(create(ZELK_STACK_DIR "/one"), -27);
  ASSERT_EQ(mount("tmpfs", ZELK_STACK_DIR, "tmpfs", 0, "size=8k"), 0);
  EXPECT_EQ(create("large", 16384), -18);
  EXPECT_TRUE(std::filesystem::is_empty(ZELK_STACK_DIR));
  ASSERT_EQ(mount(nullptr, ZELK_STACK_DIR, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(create("small"), -16);
  umount(ZELK_STACK_DIR);
}
