/* Copies of dump files, what a path leads to, and the texts that recording programs make. */
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <fstream>

#include "support.h"

static int closed_in_vain = 0;

/* Every close of this program: one that fails has hit a descriptor a second time. */
extern "C" int close(int fildes) {
  const long result = syscall(SYS_close, fildes);
  closed_in_vain += result != 0;
  return static_cast<int>(result);
}

namespace {

const std::string LOG = scratch() + "/log";
const std::string COPIER = "zk_copy_dump_file"; /* zk_make_dump_file_copy in a trace */

void new_trace() {
  std::filesystem::remove(LOG);
  EXPECT_EQ(zk_create_debug_file(LOG.c_str()), ZELK_SUCCESS);
}

/* An empty dumps directory, open to everybody as scratch() is, and the name of the failing command. */
bool has_dumps() {
  const std::string set_up = "rm -rf " ZELK_DUMP_DIR "; mkdir -m 777 " ZELK_DUMP_DIR "; chmod 777 " + scratch();
  return has_private_var() && std::system(set_up.c_str()) == 0 && setenv("ZELKPNAME", "prog", 1) == 0;
}
#define NEEDS_DUMPS() \
  if (!has_dumps()) GTEST_SKIP() << "the machine forbids a mount namespace"

auto count_files(const std::string& folder) {
  std::error_code missing;
  return std::distance(std::filesystem::directory_iterator(folder, missing), std::filesystem::directory_iterator());
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
 * the two files. */
void expect_copy(const std::string& input, int result, const std::string& gives, const std::string& routine,
                 const std::string& says) {
  std::string recorded = "as before" + std::string(ZELK_DUMP_NAME_SIZE, '\0'), name = dump_name();
  new_trace();
  auto counts = [] { return std::tuple(count_files(ZELK_DUMP_DIR), count_files("/proc/self/fd"), closed_in_vain); };
  auto expected = counts();
  if (result == ZELK_SUCCESS) ++std::get<0>(expected);
  /* A failure changes nothing, so it can be had twice: tracing makes no difference. */
  std::string untraced = recorded;
  if (result != ZELK_SUCCESS) {
    EXPECT_EQ(zk_make_dump_file_copy(0, nullptr, input.c_str(), untraced.data()), result);
  }
  EXPECT_EQ(zk_make_dump_file_copy(1, LOG.c_str(), input.c_str(), recorded.data()), result) << input;
  EXPECT_EQ(counts(), expected) << input;
  auto told = [&](const std::string& text) { return filled(filled(text, "<in>", input), "<out>", name); };
  const std::string entry = trace_entries(LOG).back();
  if (entry != traced(routine, told(says))) name = dump_name(); /* the second may have changed */
  EXPECT_EQ(entry, traced(routine, told(says)));
  EXPECT_EQ(recorded.c_str(), told(gives));
}

TEST(dump_copy, equals_its_input) {
  umask(0);
  for (size_t size : {0U, 1U, 1024U, 1025U, 10U << 20}) {
    NEEDS_DUMPS();
    std::string bytes(size, '\0');
    for (size_t at = 0; at < size; ++at) bytes[at] = static_cast<char>(at % 251);
    expect_copy(new_file(bytes), ZELK_SUCCESS, "<out>", COPIER,
                "File \"<in>\" successfully copied to \"<out>\"\nReturning ZELK_SUCCESS(0) to the caller\n");
    const auto copy = *std::filesystem::directory_iterator(ZELK_DUMP_DIR);
    EXPECT_TRUE(contents(copy.path()) == bytes) << size;
    EXPECT_EQ(copy.status().permissions(), std::filesystem::perms{0644});
  }
}

TEST(dump_copy, is_made_once_a_second) {
  NEEDS_DUMPS();
  for (const std::string now = dump_name(); dump_name() == now;) usleep(1000);
  const std::string input = new_file("later"), taken = dump_name();
  std::ofstream(taken) << "earlier";
  expect_copy(
      input, ZELK_FILE_EXIST, "<in>", "zk_get_dump_file_name",
      "Dump file \"<out>\" already exists, cannot recreated it\nReturning ZELK_FILE_EXIST(-27) to the caller\n");
  EXPECT_EQ(contents(taken), "earlier");
  /* The name of a link into nowhere counts as free, but nothing is written through it. */
  ASSERT_EQ(unlink(taken.c_str()) | symlink("elsewhere", taken.c_str()), 0);
  expect_copy(input, ZELK_FAILURE, "<in>", COPIER, "Cannot open output file \"<out>\"\nError code 17\n");
}

TEST(dump_copy, that_fails_leaves_nothing_and_says_why) {
  ASSERT_EQ(chdir(scratch().c_str()), 0);
  const std::string name = "zk_get_dump_file_name", unread = "Cannot open input file \"<in>\"\nError code 22\n";
  const struct {
    std::string set_up, input;
    int result;
    std::string gives, routine, says, command = "prog";
  } rows[] = {{"chmod 0 $D", ZELK_DUMP_DIR "/x/y", ZELK_DIR_NO_ACCESS, "as before", COPIER,
               "Existence of file \"<in>\" cannot be verified\nzk_test_for_file returned -13\n"
               "Passing same return code to caller\n"},
              {"", "", ZELK_INV_PARAM3, "as before", COPIER,
               "Called with invalid dump file input name\nReturning ZELK_INV_PARAM3(-4) to the caller\n"},
              {"mkfifo -m 666 fifo", "fifo", ZELK_FAILURE, "<in>", COPIER, unread},
              {"", "/proc/self/mem", ZELK_IO_ERROR, "<in>", "zk_copy_file",
               "Error reading input from file - Iteration 0 - Error Code 5\nReturning ZELK_IO_ERROR(-30) to caller\n"},
              {"head -c 200000 /dev/zero >big; mount -t tmpfs -o size=64k none $D", "big", ZELK_NO_SPACE, "<in>",
               "zk_copy_file", "Error copying data - Iteration 64 - Error Code 28\n"},
              {"chmod 0 $D", "big", ZELK_NO_ACCESS, "<in>", name,
               "Unexpected failure testing for the file \"<out>\"\nRetruning -25 to the caller\n"},
              {"rmdir $D; touch $D", "big", ZELK_NOT_A_DIR, "<in>", COPIER,
               "Existence of dump directory \"<in>\" cannot be verified\nzk_test_for_dir returned -17\n"},
              {"", "big", ZELK_INV_ENV, "<in>", name,
               "Cannot obtain command name from envionment value ZELKPNAME\nAssuming corrupted ZELK Environment\n"
               "Returning ZELK_INV_ENV(-31) to the caller",
               "../../etc/x"}};
  for (const auto& row : rows) {
    NEEDS_DUMPS();
    ASSERT_EQ(std::system(filled(row.set_up, "$D", ZELK_DUMP_DIR).c_str()), 0);
    setenv("ZELKPNAME", row.command.c_str(), 1);
    /* The memory of a process is its owner's to open, and that is root. */
    auto in_process = row.result == ZELK_IO_ERROR ? in_child : as_ordinary_user;
    in_process([&] { expect_copy(row.input, row.result, row.gives, row.routine, row.says); });
    umount(ZELK_DUMP_DIR);
  }
  EXPECT_EQ(zk_make_dump_file_copy(1, LOG.c_str(), "big", nullptr), ZELK_INV_PARAM4);
  EXPECT_EQ(trace_entries(LOG).back(), traced(COPIER,
                                              "Called with invalid pointer for dump output file name\n"
                                              "Returingin ZELK_INV_PARAM4(-5) to caller\n"));
  unsetenv("ZELKPNAME");
  EXPECT_EQ(zk_get_dump_file_name(0, nullptr, std::string(ZELK_DUMP_NAME_SIZE, '\0').data()), ZELK_INV_ENV);
}

TEST(path, is_told_apart_by_one_bit) {
  const std::string file = new_file(""),
                    socket_path = "/proc/self/fd/" + std::to_string(socket(AF_UNIX, SOCK_STREAM, 0));
  const std::tuple<std::string, int, int> rows[] = {{file, 0, ZELK_NOT_A_DIR},
                                                    {scratch(), ZELK_IS_A_DIR, 0},
                                                    {socket_path, ZELK_IS_A_DIR, 0}, /* has the bit */
                                                    {file + "/x", ZELK_DIR_MISSING, ZELK_DIR_MISSING},
                                                    {std::string(4096, 'n'), ZELK_FAILURE, ZELK_FAILURE}};
  for (const auto& [path, as_file, as_directory] : rows) {
    EXPECT_EQ(zk_test_for_file(0, nullptr, path.c_str()), as_file) << path;
    EXPECT_EQ(zk_test_for_dir(0, nullptr, path.c_str()), as_directory) << path;
  }
}

TEST(file_info, fills_46_characters_and_touches_none_past_the_full_text) {
  const std::string p34(34, 'p'), long_file(5000, 'f');
  new_trace();
  const std::tuple<int, std::string, std::string, std::string> rows[] = {
      {9, "prod", "/usr/src/a/b.c/", "prod,b.c,1.5,-7"}, /* the first flag that is set; the others are, behind it */
      {9, "", "//", ",/,1.5,-7"},
      {9, "", "", ",.,1.5,-7"},
      {ZELK_FLAG_LINE, "prod", "b.c", "prod,b.c,1.5,0"},
      {ZELK_FLAG_FILE, "prod", "b.c", "pps_product,unknown_file,no_version_num,0"},
      {9, p34, "b.c", p34 + ",b.c,1.5,-7"},
      {9, p34, "b.cc", p34 + ",b.cc,1.5,-7"},
      {9, p34, long_file, p34 + "," + long_file + ",1.5,-7"}};
  for (const auto& [flag, product, file, text] : rows) {
    int flags[ZELK_FLAG_LINE + 1] = {};
    std::fill(flags + flag, std::end(flags), 1);
    const size_t full = std::max(text.size(), size_t{46});
    std::string buffer(6000, '#'), field = text.substr(0, 45);
    field.resize(46, text.size() < 46 ? ' ' : '>');
    zk_make_file_info_msg(1, LOG.c_str(), buffer.data(), product.c_str(), file.c_str(), "1.5", -7, flags);
    EXPECT_TRUE(buffer == field + std::string(full - 46, '\0') + std::string(6000 - full, '#')) << buffer;
  }
  const std::string cut = p34 + ",ffffffffff\" is 5042 chars long, being truncated\nSome information will be lost\n";
  EXPECT_EQ(trace_entries(LOG).back(), traced("zk_make_file_info_msg", "File Identification information \"" + cut));
}

TEST(priority, comes_from_the_event_type) {
  new_trace();
  std::string found;
  for (int type = -1; type <= 7; ++type) {
    int flags[ZELK_FLAG_EVENT_TYPE + 1] = {}, priority = -1;
    zk_determine_bsd_priority(1, LOG.c_str(), type, &priority, 1, flags);
    found += std::to_string(priority) + (flags[ZELK_FLAG_EVENT_TYPE] == 0 ? " " : "! ");
  }
  EXPECT_EQ(found, "7! 0 3 5 4 6 7 7 7! ");
  EXPECT_EQ(trace_entries(LOG).front(),
            traced("zk_determine_bsd_priority", "Invalid ZELK Event Type -1 - mapping to type ZELK_DEBUG(6)\n"));
}

}  // namespace
