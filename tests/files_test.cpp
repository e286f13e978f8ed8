/* Copies of dump files, what a path leads to, and the texts that recording programs make. */
#include <fcntl.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>

#include "support.h"

static std::atomic<int> closed_in_vain = 0;

/* Every close of this program: one that fails has hit a descriptor a second time. */
extern "C" int close(int fildes) {
  const long result = syscall(SYS_close, fildes);
  if (result != 0) ++closed_in_vain;
  return static_cast<int>(result);
}

namespace {

const std::string LOG = "/var/open/log", MISSING = "/var/open/none";
const std::string COPIER = "zk_copy_dump_file"; /* zk_make_dump_file_copy in a trace */

std::string new_trace() {
  static int count = 0;
  const std::string path = scratch() + "/trace" + std::to_string(++count);
  EXPECT_EQ(zk_create_debug_file(path.c_str()), ZELK_SUCCESS);
  return path;
}

/* The dumps directory and a folder that are open to everybody, and the name of the failing command. */
bool has_dumps() {
  if (!has_private_var()) return false;
  for (const char* folder : {ZELK_DUMP_DIR, "/var/open"}) {
    std::filesystem::remove_all(folder);
    std::filesystem::create_directory(folder);
    chmod(folder, 0777);
  }
  return setenv("ZELKPNAME", "prog", 1) == 0;
}
#define NEEDS_DUMPS() \
  if (!has_dumps()) GTEST_SKIP() << "the machine forbids a mount namespace"

std::set<std::string> files_of(const std::string& folder) {
  std::set<std::string> names;
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(folder, missing)) names.insert(entry.path());
  return names;
}

std::string dump_name() {
  timeval now = {};
  gettimeofday(&now, nullptr);
  char name[100];
  strftime(name, sizeof name, "%Y%m%d.%H%M%S", localtime(&now.tv_sec));
  return ZELK_DUMP_DIR "/prog." + std::to_string(getpid()) + "." + name;
}

std::string filled(std::string text, const std::string& mark, const std::string& value) {
  for (size_t at = 0; (at = text.find(mark)) != text.npos;) text.replace(at, mark.size(), value);
  return text;
}

/* Copies `input` and expects a result, a name to record and a last trace entry; <in> and <out> in the texts stand for
 * the two files. Returns the name. */
std::string copied(const std::string& input, int result, const std::string& gives, const std::string& routine,
                   const std::string& says) {
  std::string recorded = "left alone" + std::string(ZELK_DUMP_NAME_SIZE, '\0');
  std::filesystem::remove(LOG);
  EXPECT_EQ(zk_create_debug_file(LOG.c_str()), ZELK_SUCCESS);
  const size_t dumps = files_of(ZELK_DUMP_DIR).size(), descriptors = files_of("/proc/self/fd").size();
  const int in_vain = closed_in_vain;
  std::string name = dump_name();
  EXPECT_EQ(zk_make_dump_file_copy(1, LOG.c_str(), input.c_str(), recorded.data()), result) << input;
  EXPECT_EQ(closed_in_vain, in_vain) << input;
  EXPECT_EQ(files_of("/proc/self/fd").size(), descriptors) << input;
  EXPECT_EQ(files_of(ZELK_DUMP_DIR).size(), dumps + (result == ZELK_SUCCESS ? 1 : 0)) << input;

  const std::string entry = trace_entries(LOG).back();
  auto expected = [&](const std::string& text) { return filled(filled(text, "<in>", input), "<out>", name); };
  if (entry != traced(routine, expected(says)) || recorded.c_str() != expected(gives)) name = dump_name();
  EXPECT_EQ(entry, traced(routine, expected(says)));
  EXPECT_EQ(recorded.c_str(), expected(gives));
  return recorded.c_str();
}

std::string copied(const std::string& input) {
  return copied(input, ZELK_SUCCESS, "<out>", COPIER,
                "File \"<in>\" successfully copied to \"<out>\"\nReturning ZELK_SUCCESS(0) to the caller\n");
}

std::string input_of(off_t size) {
  static int count = 0;
  const std::string path = "/var/open/input" + std::to_string(++count);
  std::ofstream file(path);
  for (off_t at = 0; at < std::min<off_t>(size, 5000); ++at) file << static_cast<char>(at % 251);
  file.close();
  EXPECT_EQ(truncate(path.c_str(), size), 0);
  return path;
}

}  // namespace

TEST(dump_copy, equals_its_input) {
  NEEDS_DUMPS();
  umask(0);
  for (off_t size : {0, 1, 1024, 1025, 100 << 20}) {
    const std::string input = input_of(size);
    const std::string copy = copied(input);
    EXPECT_EQ(std::system(("cmp " + input + " " + copy).c_str()), 0);
    EXPECT_EQ(std::filesystem::status(copy).permissions(), std::filesystem::perms{0644});
    const std::vector<std::string> entries = trace_entries(LOG);
    ASSERT_EQ(entries.size(), 3u);
    EXPECT_EQ(entries[0], traced(COPIER, "Copying File \"" + input + "\" to file \"" + copy + "\"\n"));
    EXPECT_EQ(entries[1], traced("zk_copy_file", "Successfully copied files\nReturning ZELK_SUCCESS(0) to caller\n"));
    unlink(copy.c_str());
  }
}

TEST(dump_copy, is_made_once_a_second) {
  NEEDS_DUMPS();
  const std::string first = input_of(10), second = input_of(20);
  for (const std::string now = dump_name(); dump_name() == now;) usleep(1000);
  const std::string copy = copied(first);
  copied(second, ZELK_FILE_EXIST, "<in>", "zk_get_dump_file_name",
         "Dump file \"<out>\" already exists, cannot recreated it\nReturning ZELK_FILE_EXIST(-27) to the caller\n");
  EXPECT_EQ(contents(copy), contents(first));
  unlink(copy.c_str());
  ASSERT_EQ(symlink("elsewhere", copy.c_str()), 0); /* the name counts as free, but nothing is written through it */
  copied(second, ZELK_FAILURE, "<in>", COPIER, "Cannot open output file \"<out>\"\nError code 17\n");
}

TEST(dump_copy, of_what_is_no_dump_file_is_refused) {
  NEEDS_DUMPS();
  ASSERT_EQ(mkfifo("/var/open/fifo", 0666), 0);
  const std::string file = input_of(10);
  for (const auto& [input, result] : {std::pair<std::string, int>{"/var/open", ZELK_IS_A_DIR},
                                      {MISSING, ZELK_FILE_MISSING},
                                      {MISSING + "/x", ZELK_DIR_MISSING},
                                      {file + "/x", ZELK_DIR_MISSING}})
    copied(input, result, "left alone", COPIER,
           "Existence of file \"<in>\" cannot be verified\nzk_test_for_file returned " + std::to_string(result) +
               "\nPassing same return code to caller\n");
  for (const char* input : {"/var/open/fifo", "/dev/zero"})
    copied(input, ZELK_FAILURE, "<in>", COPIER, "Cannot open input file \"<in>\"\nError code 22\n");
  copied("/proc/self/mem", ZELK_IO_ERROR, "<in>", "zk_copy_file",
         "Error reading input from file - Iteration 0 - Error Code 5\nReturning ZELK_IO_ERROR(-30) to caller\n");
  copied("", ZELK_INV_PARAM3, "left alone", COPIER,
         "Called with invalid dump file input name\nReturning ZELK_INV_PARAM3(-4) to the caller\n");
  EXPECT_EQ(zk_make_dump_file_copy(1, LOG.c_str(), file.c_str(), nullptr), ZELK_INV_PARAM4);
  EXPECT_EQ(trace_entries(LOG).back(), traced(COPIER,
                                              "Called with invalid pointer for dump output file name\n"
                                              "Returingin ZELK_INV_PARAM4(-5) to caller\n"));
  chmod(file.c_str(), 0);
  as_ordinary_user(
      [&] { copied(file, ZELK_FAILURE, "<in>", COPIER, "Cannot open input file \"<in>\"\nError code 13\n"); });
}

TEST(dump_copy, needs_a_directory_with_room) {
  NEEDS_DUMPS();
  const std::string input = input_of(200000), moved = "/var/open/moved";
  auto unverified = [&](int result) {
    copied(input, result, "<in>", COPIER,
           "Existence of dump directory \"<in>\" cannot be verified\nzk_test_for_dir returned " +
               std::to_string(result) + "\n");
  };
  std::filesystem::rename(ZELK_DUMP_DIR, moved);
  unverified(ZELK_FILE_MISSING);
  std::ofstream(ZELK_DUMP_DIR) << "a file";
  unverified(ZELK_NOT_A_DIR);
  std::filesystem::rename(ZELK_DIR, moved + "/zelk");
  unverified(ZELK_DIR_MISSING);
  std::filesystem::rename(moved + "/zelk", ZELK_DIR);
  std::filesystem::remove(ZELK_DUMP_DIR);
  std::filesystem::rename(moved, ZELK_DUMP_DIR);

  const std::string unopened = "Cannot open output file \"<out>\"\nError code ";
  const struct {
    unsigned long flags;
    const char* options;
    int result;
    std::string routine, says;
  } rows[] = {{MS_RDONLY, "", ZELK_READ_ONLY, COPIER, unopened + "30\n"},
              {0, "nr_inodes=1", ZELK_NO_SPACE, COPIER, unopened + "28\n"},
              {0, "size=64k", ZELK_NO_SPACE, "zk_copy_file", "Error copying data - Iteration 64 - Error Code 28\n"}};
  for (const auto& row : rows) {
    ASSERT_EQ(mount("tmpfs", ZELK_DUMP_DIR, "tmpfs", row.flags, row.options), 0);
    copied(input, row.result, "<in>", row.routine, row.says);
    umount(ZELK_DUMP_DIR);
  }
  chmod(ZELK_DUMP_DIR, 0755);
  as_ordinary_user([&] { copied(input, ZELK_FAILURE, "<in>", COPIER, unopened + "13\n"); });
  chmod(ZELK_DUMP_DIR, 0);
  as_ordinary_user([&] {
    copied(input, ZELK_NO_ACCESS, "<in>", "zk_get_dump_file_name",
           "Unexpected failure testing for the file \"<out>\"\nRetruning -25 to the caller\n");
  });
}

TEST(dump_copy, is_whole_within_the_limits_of_the_process_or_not_there) {
  NEEDS_DUMPS();
  const std::string input = input_of(20000);
  in_child([&] {
    signal(SIGXFSZ, SIG_IGN);
    const rlimit size = {17000, 17000};
    setrlimit(RLIMIT_FSIZE, &size);
    copied(input, ZELK_NO_SPACE, "<in>", "zk_copy_file", "Error copying data - Iteration 16 - Error Code 27\n");
    const int next = dup(0);
    close(next);
    for (int count : {next, next + 1, 1024}) { /* of descriptors: none for the copy, none for the input, enough */
      std::string recorded(ZELK_DUMP_NAME_SIZE, '\0');
      const rlimit descriptors = {static_cast<rlim_t>(count), 1024};
      setrlimit(RLIMIT_NOFILE, &descriptors);
      const int result = zk_make_dump_file_copy(1, LOG.c_str(), input.c_str(), recorded.data());
      EXPECT_EQ(result, count != 1024 ? ZELK_TOO_MANY : ZELK_NO_SPACE);
      EXPECT_EQ(recorded.c_str(), input);
    }
    EXPECT_EQ(files_of(ZELK_DUMP_DIR), std::set<std::string>());
  });
}

TEST(dump_copy, needs_the_name_of_a_command) {
  NEEDS_DUMPS();
  const std::string input = input_of(10);
  for (const char* value : {"unset", "", "../../etc/x"}) {
    setenv("ZELKPNAME", value, 1);
    if (value == std::string("unset")) unsetenv("ZELKPNAME");
    copied(input, ZELK_INV_ENV, "<in>", "zk_get_dump_file_name",
           "Cannot obtain command name from envionment value ZELKPNAME\nAssuming corrupted ZELK Environment\n"
           "Returning ZELK_INV_ENV(-31) to the caller");
  }
}

TEST(path, is_told_apart_by_one_bit) {
  const std::string here = scratch(), file = new_file(""), shut = here + "/shut", long_name(4095, 'n');
  const int fildes = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address = {AF_UNIX, {}};
  snprintf(address.sun_path, sizeof address.sun_path, "%s/socket", here.c_str());
  ASSERT_EQ(bind(fildes, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(fildes);
  ASSERT_EQ(mkdir(shut.c_str(), 0), 0);
  chmod(here.c_str(), 0755);
  const struct {
    std::string path;
    int as_file, as_directory;
  } rows[] = {{file, 0, ZELK_NOT_A_DIR},
              {here, ZELK_IS_A_DIR, 0},
              {address.sun_path, ZELK_IS_A_DIR, 0}, /* has the bit */
              {"/dev/null", 0, ZELK_NOT_A_DIR},
              {here + "/none", ZELK_FILE_MISSING, ZELK_FILE_MISSING},
              {here + "/none/x", ZELK_DIR_MISSING, ZELK_DIR_MISSING},
              {file + "/x", ZELK_DIR_MISSING, ZELK_DIR_MISSING},
              {shut + "/x", ZELK_NO_ACCESS, ZELK_NO_ACCESS},
              {shut + "/x/y", ZELK_DIR_NO_ACCESS, ZELK_DIR_NO_ACCESS},
              {"", ZELK_INV_PARAM1, ZELK_INV_PARAM1},
              {long_name, ZELK_FAILURE, ZELK_FAILURE},
              {long_name + "n", ZELK_FAILURE, ZELK_FAILURE}};
  as_ordinary_user([&] {
    for (const auto& row : rows) {
      EXPECT_EQ(zk_test_for_file(0, nullptr, row.path.c_str()), row.as_file) << row.path;
      EXPECT_EQ(zk_test_for_dir(0, nullptr, row.path.c_str()), row.as_directory) << row.path;
    }
  });
  chmod(shut.c_str(), 0700);
  const std::string log = new_trace(), unknown(300, 'u');
  EXPECT_EQ(zk_test_for_file(1, log.c_str(), unknown.c_str()), ZELK_FAILURE);
  EXPECT_EQ(trace_entries(log),
            std::vector{traced("zk_test_for_file", "Attemping to check status of file " + unknown)});
}

TEST(file_info, fills_46_characters_and_touches_none_past_the_full_text) {
  const std::string CUT =
      "File Identification information \"<text>\" is <length> chars long, being truncated\nSome information will be "
      "lost\n";
  const std::string p40(40, 'p'), long_file(5000, 'f');
  const std::string log = new_trace();
  std::vector<std::string> entries;
  const struct {
    std::string product, file;
    int line;
    std::vector<int> flags;
    std::string text;
  } rows[] = {{"prod", "/usr/src/a/b.c", 12, {}, "prod,b.c,1.5,12"},
              {"prod", "b.c/", -7, {}, "prod,b.c,1.5,-7"},
              {"", "//", 0, {}, ",/,1.5,0"},
              {"", "", 0, {}, ",.,1.5,0"},
              {"prod", "b.c", 12, {ZELK_FLAG_FILE}, "prod,unknown_file,1.5,12"},
              {"prod", "b.c", 12, {ZELK_FLAG_VERSION}, "prod,b.c,no_version_num,12"},
              {"prod", "b.c", 12, {5, 6, 7, 8}, "pps_product,unknown_file,no_version_num,0"},
              {p40.substr(6), "b.c", 12, {}, p40.substr(6) + ",b.c,1.5,12"}, /* 45 characters, 46 and 47 */
              {p40.substr(5), "b.c", 12, {}, p40.substr(5) + ",b.c,1.5,12"},
              {p40.substr(4), "b.c", 12, {}, p40.substr(4) + ",b.c,1.5,12"},
              {p40, long_file, 12, {}, p40 + "," + long_file + ",1.5,12"}};
  for (const auto& row : rows) {
    int flags[ZELK_FLAG_LINE + 1] = {};
    for (int flag : row.flags) flags[flag] = 1;
    const size_t length = row.text.size(), full = std::max(length, size_t{46});
    std::string buffer(6000, '#'), field = row.text.substr(0, 45);
    field.resize(46, length < 46 ? ' ' : '>');
    const int returned = zk_make_file_info_msg(1, log.c_str(), buffer.data(), row.product.c_str(), row.file.c_str(),
                                               "1.5", row.line, flags);
    EXPECT_EQ(returned, 46);
    EXPECT_TRUE(buffer == field + std::string(full - 46, '\0') + std::string(6000 - full, '#')) << buffer;
    if (length >= 46)
      entries.push_back(traced("zk_make_file_info_msg", filled(filled(CUT, "<text>", row.text.substr(0, 45)),
                                                               "<length>", std::to_string(length))));
  }
  EXPECT_EQ(trace_entries(log), entries);
}

TEST(priority, comes_from_the_event_type) {
  const std::string log = new_trace();
  const int priorities[] = {0, 3, 5, 4, 6, 7, 7};
  for (int type : {0, 1, 2, 3, 4, 5, 6, 7, -1, INT_MAX, INT_MIN}) {
    const bool good = type >= 0 && type <= 6;
    for (int tracked : {0, 1}) {
      int flags[ZELK_FLAG_EVENT_TYPE + 1] = {}, priority = -1;
      zk_determine_bsd_priority(0, nullptr, type, &priority, tracked, flags);
      EXPECT_EQ(priority, good ? priorities[type] : 7) << type;
      EXPECT_EQ(flags[ZELK_FLAG_EVENT_TYPE], good ? 0 : tracked) << type;
    }
  }
  int priority = -1;
  zk_determine_bsd_priority(1, log.c_str(), 7, &priority, 0, nullptr);
  EXPECT_EQ(
      trace_entries(log),
      (std::vector{traced("zk_determine_bsd_priority", "Invalid ZELK Event Type 7 - mapping to type ZELK_DEBUG(6)\n"),
                   traced("zk_determine_bsd_priority", "Assigning SysLog priority of 7 to event type 7\n")}));
}
