/* Copies of dump files, and what a path leads to. */
#include "faults.h"

#include <sys/socket.h>

#include <ctime>

#include "transcript.h"

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
  int copy_of(const std::string& input, int active = 0, const char* file = nullptr) {
    return zk_make_dump_file_copy(active, file, input.c_str(), recorded);
  }
};

TEST_F(dump, is_copied_whole_under_the_name_of_its_command_process_and_local_time) {
  umask(0);
  const size_t open_files = count_files("/proc/self/fd");
  for (const size_t size : {0U, 1U, 1024U, 1025U, 5000U}) {
    std::string bytes(size, '\0');
    for (size_t at = 0; at < size; ++at) bytes[at] = static_cast<char>(at % 251);
    most_at_once = size == 5000 ? 100 : SIZE_MAX; /* short writes are carried on */
    EXPECT_EQ(copy_of(new_file(bytes)), 0);
    EXPECT_EQ(recorded, copy);
    EXPECT_EQ(contents(copy), bytes);
    EXPECT_EQ(fs::status(copy).permissions(), fs::perms{0644});
    fs::remove(copy);
  }
  most_at_once = SIZE_MAX;
  EXPECT_EQ(count_files("/proc/self/fd"), open_files);
  EXPECT_EQ(closed_in_vain, 0);
}

TEST_F(dump, that_cannot_be_copied_says_why_and_leaves_nothing) {
  const std::string input = new_file(std::string(3000, 'd'));
  const size_t open_files = count_files("/proc/self/fd");
  const std::tuple<const char*, std::string, std::vector<std::pair<int, int>>> rows[] = {
      {"write", copy, {{ENOSPC, -18}, {EFBIG, -18}, {EDQUOT, -18}, {EIO, -1}, {EINTR, -1}}},
      {"read", input, {{EIO, -30}, {EINTR, -30}}},
      {"open", copy, {{ENOSPC, -18}, {EROFS, -16}, {ENFILE, -20}, {EMFILE, -20}, {EDQUOT, -20}, {EACCES, -1}}},
      {"open", input, {{ENOSPC, -18}, {ENFILE, -20}, {EMFILE, -20}, {EDQUOT, -20}, {EROFS, -1}}}};
  for (const auto& [call, file, errors] : rows)
    for (const auto& [error, result] : errors) {
      refuse(call, error, 1, call[0] == 'o' ? 0 : 2, file); /* the third block */
      EXPECT_EQ(copy_of(input), result) << call << " " << error;
      EXPECT_EQ(recorded, input);
      EXPECT_FALSE(fs::exists(copy));
    }
  EXPECT_EQ(count_files("/proc/self/fd"), open_files);
  EXPECT_EQ(closed_in_vain, 0);
}

TEST_F(dump, does_not_replace_what_stands_there) {
  std::ofstream(copy) << "earlier";
  EXPECT_EQ(copy_of(new_file("later")), -27);
  EXPECT_EQ(contents(copy), "earlier");
  fs::remove(copy);
  fs::create_symlink("elsewhere", copy);
  EXPECT_EQ(copy_of(new_file("later")), -1);
  EXPECT_FALSE(fs::exists(folder / "elsewhere"));
}

TEST_F(dump, tells_what_becomes_of_it) {
  transcript said{"dump_copy"};
  std::ofstream("big") << std::string(3000, 'd');
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  auto note = [&](const std::string& what, const std::string& input, const std::string& call = "",
                  const std::string& file = "") {
    said.note("zk_copy_dump_file (" + what + ")",
              [&](int active, const char* trace) {
                remove(copy.c_str());
                strcpy(recorded, "as before");
                refuse(call, EIO, 1, call == "open" ? 0 : 2, file);
                return copy_of(input, active, trace);
              })
        .gives(recorded);
  };
  note("all is well", "big");
  note("writing fails", "big", "write", copy);
  note("reading fails", "big", "read", "big");
  note("the copy cannot be made", "big", "open", copy);
  note("the input cannot be opened", "big", "open", "big");
  note("the input is a FIFO", "fifo");
  note("the input is missing", "none");
  note("the input is a folder", ".");
  note("the input has no name", "");
  for (const char* command : {"", "../etc/x"}) {
    setenv("ZELKPNAME", command, 1);
    note("the command is \"" + std::string(command) + "\"", "big");
  }
  setenv("ZELKPNAME", "prog", 1);
  fs::create_directories(copy / "not empty");
  note("the name stands for a folder", "big");
  fs::remove_all(folder);
  note("the folder of dumps is missing", "big");
  std::ofstream{folder};
  note("the folder of dumps is none", "big");
  fs::rename("/var/adm/zelk", "/var/adm/away");
  note("even its parent is missing", "big");
  fs::rename("/var/adm/away", "/var/adm/zelk");
  fs::remove(folder);
  CALL(said, zk_make_dump_file_copy, nullptr, nullptr);
  CALL(said, zk_make_dump_file_copy, "big", nullptr);
  unsetenv("ZELKPNAME");
  CALL(said, zk_get_dump_file_name, recorded);
  setenv("ZELKPNAME", std::string(5000, 'p').c_str(), 1);
  EXPECT_EQ(zk_get_dump_file_name(0, nullptr, recorded), -1);
  said.compare();
}

TEST_F(dump, stays_open_when_copying_fails) {
  const int input = open(new_file("bytes").c_str(), O_RDONLY), output = open(new_file("").c_str(), O_WRONLY);
  refuse("write", EIO);
  EXPECT_EQ(zk_copy_file(0, nullptr, input, output), -1);
  EXPECT_EQ(lseek(input, 0, SEEK_SET), 0);
  EXPECT_EQ(zk_copy_file(0, nullptr, input, output), 0);
  EXPECT_EQ(fcntl(input, F_GETFD) + fcntl(output, F_GETFD), -2);
}

TEST(path, cannot_be_told_without_the_right_to_look) {
  refuse("stat", EACCES);
  EXPECT_EQ(zk_test_for_file(0, nullptr, "file"), -13); /* its folder */
  refuse("stat", EACCES, 1, 1);
  EXPECT_EQ(zk_test_for_dir(0, nullptr, "file"), -25);
  EXPECT_EQ(zk_test_for_file(0, nullptr, std::string(4096, 'n').c_str()), -1);
}

TEST(path, is_a_folder_by_one_bit) {
  const std::string path = "/proc/self/fd/" + std::to_string(socket(AF_UNIX, SOCK_STREAM, 0));
  EXPECT_EQ(zk_test_for_file(0, nullptr, path.c_str()), -23); /* a socket has it too */
}
