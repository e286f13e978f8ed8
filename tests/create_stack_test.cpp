/* SPDX-License-Identifier: MIT */
/* create_stack_test.cpp - makes empty stacks, also where there is no room. Reasons to fail stand in
 * golden/library/create_stack.calls. */
#include "faults.h"

#include <sys/mount.h>
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

TEST(new_stack, is_opened_below_the_folder_of_the_stacks) {
  NEEDS_PRIVATE_VAR();
  const std::string trace = new_file(EMPTY_TRACE);
  zk_recorder_t* recorder = nullptr;
  EXPECT_EQ(create("below"), 0);
  EXPECT_EQ(zk_open_recorder(1, trace.c_str(), "below", &recorder), 0);
  zk_close_recorder(recorder);
  EXPECT_EQ(trace_entries(trace).back().find("Stack " ZELK_STACK_DIR "/below opened for recording"), 18U);
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

/* EOPNOTSUPP and EINVAL are the file system's, EISDIR that of a kernel without such files. */
TEST(new_stack, is_made_where_no_file_can_be_without_a_name_and_leaves_nothing_beside_it) {
  for (const int error : {EOPNOTSUPP, EISDIR, EINVAL}) {
    const std::string folder = scratch() + "/named" + std::to_string(error);
    std::filesystem::create_directory(folder);
    refuse("open", error);
    EXPECT_EQ(create(folder + "/stack"), 0);
    EXPECT_EQ(contents(folder + "/stack").size(), 8192U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder), {}), 1);
  }
}

TEST(new_stack, that_somebody_else_makes_first_is_opened) {
  const std::string path = scratch() + "/first";
  zk_recorder_t* recorder = nullptr;
  EXPECT_EQ(create(path), 0);
  refuse("open", ENOENT); /* it was not there a moment ago */
  EXPECT_EQ(zk_open_or_create_recorder(0, nullptr, path.c_str(), 16384, &recorder), 0);
  EXPECT_EQ(contents(path).size(), 8192U);
  zk_close_recorder(recorder);
}
