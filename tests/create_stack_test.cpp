/* create_stack_test.cpp - makes empty stacks, also where that fails. */
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "qx_record.h"
#include "support.h"

static int create(const std::string& path, int32_t size = 8192) {
  return zk_create_stack(0, nullptr, path.c_str(), size);
}

/* A folder of its own; how many names are in it. */
static std::string new_folder() {
  const std::string path = new_file("") + "-folder";
  mkdir(path.c_str(), 0755);
  return path;
}
static auto names_in(const std::string& folder) {
  return std::distance(std::filesystem::directory_iterator(folder), {});
}

TEST(new_stack, is_empty_and_of_its_full_size) {
  const std::string folder = new_folder();
  for (int32_t size : {8192, 16384}) {
    const std::string path = folder + "/" + std::to_string(size);
    const mode_t mask = umask(026);
    EXPECT_EQ(create(path, size), 0);
    umask(mask);
    std::string expected = image(0) + image(24) + image(24) + image(24) + image(size);
    expected.resize(static_cast<size_t>(size));
    EXPECT_EQ(contents(path), expected);
    struct stat status = {};
    EXPECT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, mode_t{S_IFREG | 0640});
    EXPECT_GE(status.st_blocks * 512, size); /* nothing is skipped over */
  }
  EXPECT_EQ(names_in(folder), 2);
  EXPECT_EQ(run({program("zkview"), "-d", "-s", folder + "/8192"}).out, "TIMESTAMP    PROCESS          DESCRIPTION\n");
}

TEST(new_stack, leaves_what_exists_alone) {
  const std::string file = new_file("mine"), link = file + "-link";
  EXPECT_EQ(symlink("/nowhere", link.c_str()), 0);
  EXPECT_EQ(create(file), -27);
  EXPECT_EQ(create(link), -27);
  EXPECT_EQ(create("/"), -27);
  EXPECT_EQ(contents(file), "mine");
  EXPECT_EQ(unlink(link.c_str()), 0);
}

TEST(new_stack, fails_by_the_reason_and_leaves_nothing_behind) {
  const std::string folder = new_folder(), path = folder + "/stack";
  EXPECT_EQ(zk_create_stack(0, nullptr, nullptr, 0), -4);
  EXPECT_EQ(create("", 0), -4);
  EXPECT_EQ(create(path, 8191), -5);
  EXPECT_EQ(create(path, 16385), -5);
  EXPECT_EQ(create(folder + "/none/stack"), -14);
  EXPECT_EQ(create("/dev/null/stack"), -14);
  EXPECT_EQ(create(folder + "/" + std::string(256, 'x')), -1);
  as_ordinary_user([] { EXPECT_EQ(create("/stack"), -13); });
  in_child([&] {
    const rlimit few = {3, 3};
    setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_EQ(create(path), -20);
  });
  in_child([&] {
    const rlimit short_files = {4096, 4096};
    setrlimit(RLIMIT_FSIZE, &short_files);
    signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(create(path), -1);
  });
  EXPECT_EQ(names_in(folder), 0);
}

TEST(new_stack, needs_space_and_a_file_system_that_is_written) {
  NEEDS_PRIVATE_VAR();
  const std::string folder = ZELK_STACK_DIR;
  EXPECT_EQ(create("relative"), 0);
  EXPECT_EQ(create(folder + "/relative"), -27);
  ASSERT_EQ(mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=8k"), 0);
  EXPECT_EQ(create("large", 16384), -18);
  EXPECT_EQ(names_in(folder), 0);
  ASSERT_EQ(mount(nullptr, folder.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
  EXPECT_EQ(create("small"), -16);
  EXPECT_EQ(umount(folder.c_str()), 0);
}
