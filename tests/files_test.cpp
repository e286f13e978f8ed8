/* SPDX-License-Identifier: MIT */
/* Files whose space is reserved. How large they may be, and what is left after a fault, stands in golden/library. */
#include "faults.h"

#include <sys/wait.h>

#include <filesystem>

#include "support.h"

TEST(space, is_not_reckoned_for_an_unusable_name_or_file_system) {
  off_t size = 99;
  space = {blocks(100, 20)};
  EXPECT_EQ(zk_determine_max_fsize(0, nullptr, std::string(4097, 'n').c_str(), 10, 0, &size), -1);
  EXPECT_EQ(zk_determine_max_fsize(0, nullptr, std::string(4096, 'n').c_str(), 10, 0, &size), 0);
  space = {{}}; /* a block size of 0 */
  EXPECT_EQ(zk_determine_max_fsize(0, nullptr, "/folder/file", 10, 0, &size), -1);
}

/* ---- Making a file ------------------------------------------------------------------------------------------------ */

TEST(new_trace_file, is_open_to_everybody) {
  const std::string path = scratch() + "/made";
  space = {blocks(1000, 900)};
  umask(077);
  EXPECT_EQ(zk_create_debug_file(path.c_str()), 0);
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0666});
}

TEST(new_trace_file, waits_for_the_lock_of_whoever_finds_it_first) {
  const std::string path = scratch() + "/found";
  space = {blocks(1000, 900)};
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
  EXPECT_EQ(zk_create_debug_file(path.c_str()), 0);
  int status = 0;
  waitpid(finder, &status, 0);
  EXPECT_EQ(status, 0);
}

/* ---- Zeros -------------------------------------------------------------------------------------------------------- */

struct zeros : testing::Test {
  const std::string path = new_file(std::string(5000, 'o'));
  const int fildes = open(path.c_str(), O_RDWR);
};

TEST_F(zeros, are_carried_on_after_an_interruption_and_a_short_write) {
  refuse("write", EINTR, 2, 1);
  most_written = 700;
  EXPECT_EQ(fclear(fildes, 3000), 3000);
  most_written = SIZE_MAX;
  EXPECT_EQ(fault.times, 0);
  EXPECT_EQ(contents(path), std::string(3000, '\0') + std::string(2000, 'o'));
}

TEST_F(zeros, that_cannot_be_written_give_the_error) {
  auto error_of = [&](off_t length) {
    errno = 0;
    EXPECT_EQ(fclear(fildes, length), -1);
    return errno;
  };
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  EXPECT_EQ(fclear(ends[1], 10), -1);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(close(ends[0]) + close(ends[1]), 0);
  lseek(fildes, 100, SEEK_SET);
  EXPECT_EQ(error_of(INT64_MAX - 99), EFBIG);
  EXPECT_EQ(error_of(-101), EFBIG);
  most_written = 0; /* neither progress nor an error */
  EXPECT_EQ(error_of(2000), ENOSPC);
  most_written = SIZE_MAX;
  bad_place = 1600;
  EXPECT_EQ(error_of(2000), EIO);
  EXPECT_EQ(contents(path).substr(100), std::string(1500, '\0') + std::string(3400, 'o')); /* what was written stays */
}
