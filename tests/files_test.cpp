/* SPDX-License-Identifier: MIT */
/* Files whose space is reserved: how large they may be, how they are made, what is left of them after a fault. */
#include "faults.h"

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "support.h"

/* The size that a file gets of those 100 blocks, or the failure. */
static off_t size_for(uint64_t available, off_t requested, off_t least, uint64_t number = 100) {
  off_t size = 7;
  space = {blocks(number, available)};
  const int result = zk_determine_max_fsize(0, nullptr, "/folder/file", requested, least, &size);
  EXPECT_EQ(result != 0, size == 7); /* which is written on success only */
  return result != 0 ? result : size;
}

TEST(space, is_reckoned_at_once_however_much_is_asked_for) {
  EXPECT_EQ(size_for(20, INT64_MAX, 0), 13807);
}

TEST(space, is_not_reckoned_for_an_unusable_name_or_file_system) {
  off_t size = 99;
  space = {blocks(100, 20)};
  EXPECT_EQ(zk_determine_max_fsize(0, nullptr, std::string(4097, 'n').c_str(), 10, 0, &size), -1);
  EXPECT_EQ(zk_determine_max_fsize(0, nullptr, std::string(4096, 'n').c_str(), 10, 0, &size), 0);
  space = {{}}; /* a block size of 0 */
  EXPECT_EQ(zk_determine_max_fsize(0, nullptr, "/folder/file", 10, 0, &size), -1);
}

/* ---- Making a file ------------------------------------------------------------------------------------------------ */

/* A file that is made where there is room, or not, with its descriptors counted. */
struct new_trace_file : testing::Test {
  const std::string path = scratch() + "/made";
  const size_t open_files = open_descriptors();
  off_t size = 7;

  void SetUp() override { space = {blocks(1000, 900)}; }
  int make(off_t requested = 20000) { return zk_allocate_file(0, nullptr, path.c_str(), requested, 3000, &size); }
  void TearDown() override {
    std::filesystem::remove(path);
    EXPECT_EQ(open_descriptors(), open_files);
    EXPECT_EQ(closed_in_vain, 0);
  }
};

TEST_F(new_trace_file, is_zeros_behind_its_control_line_and_open_to_everybody) {
  umask(077);
  EXPECT_EQ(make(), 0);
  EXPECT_EQ(size, 20000);
  EXPECT_EQ(contents(path), "ZKTFO=36    ZKTFW=0     ZKTFS=20000\n" + std::string(19964, '\0'));
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0666});
}

TEST_F(new_trace_file, has_16384_bytes_or_more_than_8192) {
  EXPECT_EQ(zk_create_debug_file(path.c_str()), 0);
  EXPECT_EQ(contents(path), "ZKTFO=36    ZKTFW=0     ZKTFS=16384\n" + std::string(16348, '\0'));
  std::filesystem::remove(path);
  space = {blocks(100, 17)};
  space[0].f_bsize = 1024;
  EXPECT_EQ(zk_create_debug_file(path.c_str()), 0);
  EXPECT_EQ(std::filesystem::file_size(path), 10240U);
  std::filesystem::remove(path);
  space[0].f_bavail = 16; /* for 8192 bytes */
  EXPECT_EQ(zk_create_debug_file(path.c_str()), -18);
}

TEST_F(new_trace_file, that_exists_already_is_left_alone) {
  std::ofstream(path) << "as before";
  EXPECT_EQ(make(), 0);
  EXPECT_EQ(size, 7);
  EXPECT_EQ(contents(path), "as before");
}

TEST_F(new_trace_file, that_cannot_be_finished_is_removed) {
  for (const char* call : {"lock", "fchmod", "write"}) {
    refuse(call, EIO);
    EXPECT_LT(make(), 0);
    EXPECT_FALSE(std::filesystem::exists(path)) << call;
  }
  in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit limit = {5000, 5000};
    setrlimit(RLIMIT_FSIZE, &limit);
    EXPECT_EQ(make(), -18);
  });
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(new_trace_file, waits_for_the_lock_of_whoever_finds_it_first) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  pid_t finder = 0;
  meanwhile = {"lock", [&] {
                 finder = fork();
                 if (finder == 0) {
                   lockf(openat(AT_FDCWD, path.c_str(), O_RDWR), F_LOCK, 0);
                   if (write(ready[1], "y", 1) == 1) usleep(100000);
                   _exit(contents(path).empty() ? 0 : 1); /* nobody has written meanwhile */
                 }
                 char locked;
                 EXPECT_EQ(read(ready[0], &locked, 1), 1);
               }};
  EXPECT_EQ(make(), 0);
  int status = 0;
  waitpid(finder, &status, 0);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(close(ready[0]) + close(ready[1]), 0);
}

/* ---- Zeros -------------------------------------------------------------------------------------------------------- */

struct zeros : testing::Test {
  const std::string path = new_file(std::string(5000, 'o'));
  const int fildes = open(path.c_str(), O_RDWR);
  void TearDown() override { close(fildes); }
};

TEST_F(zeros, are_written_at_the_position) {
  lseek(fildes, 100, SEEK_SET);
  EXPECT_EQ(fclear(fildes, 2500), 2500);
  EXPECT_EQ(lseek(fildes, 0, SEEK_CUR), 2600);
  EXPECT_EQ(contents(path), std::string(100, 'o') + std::string(2500, '\0') + std::string(2400, 'o'));
  EXPECT_EQ(fclear(fildes, 0), 0);
  EXPECT_EQ(fclear(fildes, -100), -100);
  EXPECT_EQ(contents(path).substr(2600), std::string(2400, 'o'));
}

TEST_F(zeros, are_carried_on_after_an_interruption_and_a_short_write) {
  refuse("write", EINTR, 2, 1);
  most_written = 700;
  EXPECT_EQ(fclear(fildes, 3000), 3000);
  most_written = SIZE_MAX;
  EXPECT_EQ(fault.times, 0);
  EXPECT_EQ(contents(path), std::string(3000, '\0') + std::string(2000, 'o'));
}

TEST_F(zeros, that_cannot_be_written_give_the_error) {
  auto error_of = [](int file, off_t length) {
    errno = 0;
    EXPECT_EQ(fclear(file, length), -1);
    return errno;
  };
  EXPECT_EQ(error_of(-1, 10), EBADF);
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_EQ(error_of(ends[1], 10), EINVAL);
  EXPECT_EQ(close(ends[0]) + close(ends[1]), 0);
  lseek(fildes, 100, SEEK_SET);
  EXPECT_EQ(error_of(fildes, INT64_MAX - 99), EFBIG);
  EXPECT_EQ(error_of(fildes, -101), EFBIG);
  most_written = 0; /* neither progress nor an error */
  EXPECT_EQ(error_of(fildes, 2000), ENOSPC);
  most_written = SIZE_MAX;
  bad_place = 1600;
  EXPECT_EQ(error_of(fildes, 2000), EIO);
  bad_place = -1;
  EXPECT_EQ(contents(path).substr(100), std::string(1500, '\0') + std::string(3400, 'o')); /* what was written stays */
}
