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
  EXPECT_EQ(create(path, 16384), 0);
  struct stat status = {};
  EXPECT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_GE(status.st_blocks * 512, 16384); /* nothing is skipped over */
  EXPECT_TRUE(contents(path) == empty + std::string(16384 - 20, '\0'));
}

/* Who may read a stack can hold up its writers, by a lock that takes no more than that. */
TEST(new_stack, is_closed_to_others_whatever_the_umask) {
  for (const auto& [mask, permissions] : {std::pair(0, 0660), std::pair(023, 0640), std::pair(077, 0600)}) {
    const std::string path = scratch() + "/closed" + std::to_string(mask);
    const mode_t before = umask(static_cast<mode_t>(mask));
    EXPECT_EQ(create(path), 0);
    umask(before);
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms(permissions));
  }
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
