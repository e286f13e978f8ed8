/* SPDX-License-Identifier: MIT */
/* create_stack_test.cpp - makes empty stacks, also where there is no room. Reasons to fail stand in
 * golden/library/create_stack.calls. */
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "qx_record.h"
#include "support.h"

static int create(const std::string& path, int32_t size = 8192) {
  return zk_create_stack(0, nullptr, path.c_str(), size);
}

TEST(new_stack, is_empty_and_of_its_full_size) {
  const std::string path = scratch() + "/stack", empty = image(0) + image(24) + image(24) + image(24) + image(16384);
  const mode_t mask = umask(023);
  EXPECT_EQ(create(path, 16384), 0);
  umask(mask);
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode, mode_t{S_IFREG | 0644});
  EXPECT_GE(status.st_blocks * 512, 16384); /* nothing is skipped over */
  EXPECT_TRUE(contents(path) == empty + std::string(16384 - 20, '\0'));
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
