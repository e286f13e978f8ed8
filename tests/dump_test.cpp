/* SPDX-License-Identifier: MIT */
/* Copies of dump files, and what a path leads to. */
#include "faults.h"

#include <sys/socket.h>

#include <filesystem>

#include "support.h"

namespace fs = std::filesystem;

/* A folder for dumps, a process with a number and a name, and a time in a zone of its own. */
struct dump : testing::Test {
  const fs::path folder = "/var/adm/zelk/dumps", copy = folder / "prog.4711.20231115.034320";
  char recorded[4096] = "as before";

  void SetUp() override {
    NEEDS_PRIVATE_VAR();
    fs::remove_all(folder);
    ASSERT_TRUE(fs::create_directories(folder));
    ASSERT_EQ(chdir(scratch().c_str()), 0);
    setenv("ZELKPNAME", "prog", 1);
    setenv("TZ", "XXX-5:30", 1);
    tzset();
    pid_is = 4711;
  }
  void TearDown() override { pid_is = 0; }
  int copy_of(const std::string& input) { return zk_make_dump_file_copy(0, nullptr, input.c_str(), recorded); }
};

TEST_F(dump, is_copied_whole_under_the_name_of_its_command_process_and_local_time) {
  umask(0);
  const size_t open_files = open_descriptors();
  for (const size_t size : {0U, 1U, 1024U, 1025U, 5000U}) {
    std::string bytes(size, '\0');
    for (size_t at = 0; at < size; ++at) bytes[at] = static_cast<char>(at % 251);
    most_written = size == 5000 ? 100 : SIZE_MAX; /* short writes are carried on */
    EXPECT_EQ(copy_of(new_file(bytes)), 0);
    EXPECT_EQ(recorded, copy);
    EXPECT_EQ(contents(copy), bytes);
    EXPECT_EQ(fs::status(copy).permissions(), fs::perms{0644});
    fs::remove(copy);
  }
  most_written = SIZE_MAX;
  EXPECT_EQ(open_descriptors(), open_files);
}

TEST_F(dump, that_is_half_copied_is_removed) {
  const std::string input = new_file(std::string(3000, 'd'));
  for (const auto& [call, file, result] : {std::tuple("write", copy.string(), -18), {"read", input, -30}}) {
    refuse(call, call[0] == 'w' ? ENOSPC : EINTR, 1, 2, file); /* the third block */
    EXPECT_EQ(copy_of(input), result);
    EXPECT_EQ(recorded, input);
    EXPECT_FALSE(fs::exists(copy));
  }
}

TEST_F(dump, stays_open_when_copying_fails) {
  const int input = open(new_file("bytes").c_str(), O_RDONLY), output = open(new_file("").c_str(), O_WRONLY);
  refuse("write", EIO);
  EXPECT_EQ(zk_copy_file(0, nullptr, input, output), -1);
  EXPECT_EQ(lseek(input, 0, SEEK_SET), 0);
  EXPECT_EQ(zk_copy_file(0, nullptr, input, output), 0);
  EXPECT_EQ(fcntl(input, F_GETFD) + fcntl(output, F_GETFD), -2);
}

TEST(path, has_4095_bytes_at_most) {
  EXPECT_EQ(zk_test_for_file(0, nullptr, (std::string(4091, '/') + "none").c_str()), -24);
  EXPECT_EQ(zk_test_for_file(0, nullptr, (std::string(4092, '/') + "none").c_str()), -1);
}

TEST(path, is_a_folder_by_one_bit) {
  const std::string path = "/proc/self/fd/" + std::to_string(socket(AF_UNIX, SOCK_STREAM, 0));
  EXPECT_EQ(zk_test_for_file(0, nullptr, path.c_str()), -23); /* a socket has it too */
}
