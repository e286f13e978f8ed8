/* SPDX-License-Identifier: MIT */
/* library_calls_test.cpp - what the routines of the libraries say, in golden/library: the calls, their results, what they
 * trace and what they give, that is, the outputs that they change and the file "made". "out" stands for the place of an
 * output, and a file's name for its descriptor. What can be set up:
 *
 *   fault CALL ERRNO FILE          that call fails once, with this error number, with this file (or with any)
 *   unwritable from OFFSET         a file cannot be written there
 *   space BLOCKS AVAILABLE, ...    answers about a file system with blocks of 1000 bytes
 *   interfaces NAME ADDRESS FLAGS, ...  flags: up, loopback, both, none; a family other than IPv4 has no address
 *   directory INODE NAME, ...      all the files that there are
 *   flags NUMBER ...               these of the error flags are set
 *   stack  LINE, ...               the file "stack", of such lines as described_stack() takes
 *   incident associated ID         what is recorded names that ID
 *   incident arguments TYPE        it has an argument of that type without a value, or, by NULL, none where there should be one
 *   done SHELL COMMAND             before each call */
#include "node.h"

#include <dirent.h>

#include <cstring>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "calls.h"
#include "qx_cu.h"
#include "qx_record.h"
#include "zk_msg.h"

static struct outputs {
  int local = 99, version = 99, location = 99, ipv6 = 99, facility = 99, priority = 99;
  unsigned int label = 99;
  long seconds = 99;
  off_t size = 99, offset = 99;
  int wraps = 99, count = 99;
  timeval time = {99, 99};
  char text[4096] = "", type = 0;
  unsigned char address[16] = {};
  char files[4][256] = {}, list[65][46] = {};
  int error_flags[11] = {};
} out;

static std::vector<std::pair<ino_t, std::string>> only_files;
static size_t files_read;
static zk_recorder_t* recorder;
static zk_incident_t incident;
static cu_error_arg_t argument;
static int opened = -1; /* "made", for the call that takes a descriptor */

extern "C" dirent* readdir(DIR* directory) {
  static dirent entry;
  if (only_files.empty()) {
    dirent* next = nullptr;
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    readdir_r(directory, &entry, &next);
    return next;
  }
  if (files_read == only_files.size()) return nullptr;
  entry.d_ino = only_files[files_read].first;
  std::strcpy(entry.d_name, only_files[files_read++].second.c_str());
  return &entry;
}

extern "C" DIR* opendir(const char* path) {
  const int fildes = is_refused("opendir", path) ? -1 : openat(AT_FDCWD, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  return fildes == -1 ? nullptr : fdopendir(fildes);
}

/* ---- What a call gives ----------------------------------------------------------------------------------------- */

/* The lines of a text file, each behind the offset at which it starts; zeros are left out. */
static std::string lines_with_offsets(const std::string& bytes) {
  if (bytes.size() >= 8192 && bytes[0] == '\0') return ""; /* a stack */
  std::ostringstream said;
  for (size_t at = 0, end; (at = bytes.find_first_not_of('\0', at)) != bytes.npos; at = end) {
    end = std::min(bytes.find_first_of(text("\n"), at), bytes.size());
    said << "    " << std::setw(6) << at << " " << replaced(bytes.substr(at, end - at), "\1", "\\1") << "\n";
    if (bytes[end] == '\n') ++end;
  }
  return said.str();
}

static std::string given() {
  std::ostringstream said;
  auto quote = [&](const char* name, const std::string& value) {
    if (!value.empty()) said << " " << name << " \"" << replaced(replaced(value, "\n", "\\n"), "\t", "\\t") << "\"";
  };
  const std::pair<const char*, long long> numbers[] = {
      {"local", out.local},       {"version", out.version},   {"location", out.location}, {"label", out.label},
      {"facility", out.facility}, {"priority", out.priority}, {"seconds", out.seconds},   {"offset", out.offset},
      {"size", out.size},         {"wraps", out.wraps},       {"count", out.count},       {"IPv6", out.ipv6}};
  for (const auto& [name, value] : numbers)
    if (value != 99) said << " " << name << " " << value;
  if (out.time.tv_sec != 99) said << " time " << out.time.tv_sec << "." << out.time.tv_usec;
  quote("text", out.text);
  quote("type", std::string(&out.type, out.type == '\0' ? 0 : 1));
  char address[46];
  if (std::count(out.address, out.address + 16, 0) < 16)
    said << " address " << inet_ntop(AF_INET6, out.address, address, sizeof address);
  for (const auto& file : out.files) quote("file", file);
  for (const auto& slot : out.list) quote("listed", slot);
  if (out.error_flags[10] != 0) said << " an error flag";
  const off_t position = opened == -1 ? 0 : lseek(opened, 0, SEEK_CUR);
  if (position != 0) said << " position " << position;
  if (opened != -1) close(opened);
  opened = -1;
  if (recorder != nullptr) said << " a recorder";
  zk_close_recorder(recorder);
  recorder = nullptr;
  if (std::filesystem::exists("made")) said << " made " << std::filesystem::file_size("made") << " bytes";
  return (said.str().empty() ? "" : "    gives" + said.str() + "\n") + lines_with_offsets(contents("made"));
}

/* ---- Situations ------------------------------------------------------------------------------------------------ */

static void begin() {
  out = {};
  incident = {};
  incident.process_name = "recorder";
  fault = {};
  bad_place = -1;
  only_files.clear();
  files_read = 0;
  unlink("made");
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"eth0", "192.168.1.9", UP}};
}

static adapter described_adapter(const std::vector<std::string>& word) {
  static const std::map<std::string, short> FLAGS = {
      {"up", UP}, {"loopback", IFF_LOOPBACK}, {"both", LOOPBACK}, {"none", DOWN}};
  return {word.at(0), word.at(1), FLAGS.at(word.at(2)), word[1] == "-" ? sa_family_t{AF_AX25} : sa_family_t{AF_INET}};
}

static void set_up_space(const std::string& details) {
  space.clear();
  for (const auto& word : items(details)) space.push_back(blocks(std::stoul(word.at(0)), std::stoul(word.at(1))));
}
static void set_up_interfaces(const std::string& details) {
  node->clear();
  for (const auto& word : items(details)) node->push_back(described_adapter(word));
}
static void set_up_directory(const std::string& details) {
  for (const auto& word : items(details)) only_files.emplace_back(std::stoull(word.at(0)), word.at(1));
}
static void set_up_fault(const std::string& details) {
  const std::vector<std::string> word = words(details);
  refuse(word.at(0), std::stoi(word.at(1)), 1, 0, word.size() > 2 ? word[2] : "");
}
static void set_up_flags(const std::string& details) {
  for (const std::string& flag : words(details)) out.error_flags[std::stoul(flag)] = 1;
}

static void set_up_incident(const std::string& details) {
  static std::string associated;
  const auto [field, value] = split(details);
  if (field == "arguments") incident.argument_count = 1;
  if (value != "NULL" && field == "arguments")
    argument = {std::stoi(value), {.cu_arg_char_str = nullptr}}, incident.arguments = &argument;
  if (field == "associated") associated = value, incident.associated_eid = associated.c_str();
}
static void set_up_stack(const std::string& lines) {
  std::ofstream("stack") << described_stack(replaced(lines.substr(1), ", ", "\n"));
}

/* ---- The routines ---------------------------------------------------------------------------------------------- */

/* Routines whose formats are not checked here. */
static int (*const debug)(const char*, const char*, const char*, ...) = zk_debug;
static int format(char* output, const char* text, ...) {
  va_list arguments;
  va_start(arguments, text);
  int (*const fold)(char*, const char*, va_list) = zk_format_debug_info;
  const int result = fold(output, text, arguments);
  va_end(arguments);
  return result;
}

/* The descriptor of a file, or a number. */
static int descriptor(const call& c, size_t index) {
  if (c.words.at(index)[0] == '-') return c.number(index);
  return opened = open(c.text(index), O_RDWR | O_NONBLOCK);
}

/* The text of a message without arguments. */
static int describe(const char* catalog, int set, int number, const char* recorded, char* output) {
  const cu_error_t error = {1, "", catalog, set, number, recorded, 0, nullptr};
  char* text = nullptr;
  const int result = cu_get_errmsg_1(&error, &text);
  std::strcpy(output, text);
  free(text);
  return result;
}

/* Records into the file "stack", and shows what a stack holds then, or says that it is as it was. */
static long long record(const call& c) {
  const std::string before = contents("stack");
  incident.default_message = c.text(1);
  int result = zk_open_recorder(0, nullptr, (scratch() + "/stack").c_str(), &recorder);
  if (result == 0)
    result = zk_record_incident(c.active, c.file, c.at(0, recorder), c.at(1, &incident), c.at(2, out.text));
  const int fildes = open("stack", O_RDWR);
  if (result == 0) zk_dump_stack(0, nullptr, 0, 0, nullptr, 0, fildes, ZK_NO_CATALOG);
  if (result != 0) puts(contents("stack") == before ? "as it was" : "changed");
  close(fildes);
  return result;
}

static const char ADDRESSES[5][46] = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "", "10.0.0.5"};

static const subject LIBRARY = {
    .routines =
        {ROUTINE(zk_get_base_64_hdr, c.number(0), c.number(1), c.at(2, out.text)),
         ROUTINE(zk_conv_base_64_hdr, c.text(0), c.at(1, &out.version), c.at(2, &out.location)),
         ROUTINE(zk_get_base_64_inode, c.text(0), c.at(1, out.text)),
         ROUTINE(zk_conv_base_64_inode, c.text(0), c.text(1), c.at(2, out.files[0]), c.number(3)),
         ROUTINE(zk_get_base_64_templ, static_cast<unsigned int>(c.number(0)), c.at(1, out.text)),
         ROUTINE(zk_conv_base_64_templ, c.text(0), c.at(1, &out.label)),
         ROUTINE(zk_get_base_64_selector, c.number(0), c.number(1), c.at(2, out.text)),
         ROUTINE(zk_conv_base_64_selector, c.text(0), c.at(1, &out.facility), c.at(2, &out.priority)),
         ROUTINE(zk_get_base_64_time, c.at(0, out.text), c.at(1, &out.seconds)),
         ROUTINE(zk_conv_base_64_time, c.text(0), c.at(1, &out.time)),
         ROUTINE(zk_get_ipaddr, c.at(0, out.text), c.at(1, &out.type)),
         ROUTINE(zk_conv_ipaddr, c.text(0), *c.text(1), c.at(2, out.address)),
         ROUTINE(zk_test_ipaddr, c.text(0), c.at(1, c.words[1] == "empty" ? ADDRESSES[3] : ADDRESSES[0])),
         ROUTINE(zk_generate_eid, c.text(0), static_cast<unsigned int>(c.number(1)), &out.seconds, out.text),
         ROUTINE(zk_generate_eid_2, c.text(0), static_cast<unsigned int>(c.number(1)), c.number(2), c.number(3),
                 &out.seconds, out.text),
         ROUTINE(zk_decode_eid, c.text(0), &out.local, c.at(2, &out.version), c.at(3, &out.location),
                 c.at(4, out.files[0]), c.at(5, &out.label), c.at(6, &out.time), c.at(7, out.address),
                 c.at(8, &out.ipv6)),
         ROUTINE(zk_decode_eid_2, c.text(0), &out.local, c.at(2, &out.version), c.at(3, &out.location),
                 c.at(4, out.files[0]), c.number(5), c.at(6, &out.label), c.at(7, &out.facility),
                 c.at(8, &out.priority), c.at(9, &out.time), c.at(10, out.address), c.at(11, &out.ipv6)),
         ROUTINE(zk_obtain_ipaddrs, c.at(0, out.list[0]), c.number(1), c.at(2, &out.count)),
         ROUTINE(zk_determine_max_fsize, c.text(0), c.large(1), c.large(2), c.at(3, &out.size)),
         ROUTINE(zk_allocate_file, c.text(0), c.number(1), c.number(2), c.at(3, &out.size)),
         ROUTINE(zk_make_dump_file_copy, c.text(0), c.at(1, out.text)),
         ROUTINE(zk_get_dump_file_name, c.at(0, out.text)),
         ROUTINE(zk_test_for_file, c.text(0)),
         ROUTINE(zk_test_for_dir, c.text(0)),
         ROUTINE(zk_make_file_info_msg, out.text, c.text(1), c.text(2), c.text(3), c.number(4), out.error_flags),
         ROUTINE(zk_create_stack, c.text(0), c.number(1)),
         ROUTINE(zk_open_recorder, c.text(0), c.at(1, &recorder)),
         {"zk_record_incident", record},
         UNTRACED(zk_create_debug_file, c.text(0)),
         UNTRACED(zk_is_debug_file_set, c.at(0, out.text)),
         UNTRACED(zk_get_file_ctrl_info, c.text(0), c.at(1, &out.offset), c.at(2, &out.size), c.at(3, &out.wraps)),
         UNTRACED(zk_is_addr_ipv6_type, c.text(0)),
         UNTRACED(zk_l64a_r, static_cast<uint64_t>(c.large(0)), c.at(1, out.text), c.number(2)),
         UNTRACED(zk_a64l, c.text(0)),
         {"zk_selector_substr", [](const call& c) { return zk_selector_substr(c.text(0), c.at(1, out.text)), 0LL; }},
         {"zk_debug", [](const call& c) { return 0LL + debug(c.text(0), c.text(1), c.at(2, "%s"), c.text(2)); }},
         {"zk_format_debug_info", [](const call& c) { return 0LL + format(c.at(0, out.text), c.at(1, "%s"), c.text(1)); }},
         {"zk_determine_bsd_priority",
          [](const call& c) {
            zk_determine_bsd_priority(c.active, c.file, c.number(0), &out.priority, c.number(2), out.error_flags);
            return 0LL;
          }},
         {"cu_get_errmsg_1",
          [](const call& c) { return 0LL + describe(c.text(0), c.number(1), c.number(2), c.text(3), out.text); }},
         UNTRACED(fclear, descriptor(c, 0), c.large(1)),
         UNTRACED(zk_record_debug_info, descriptor(c, 0), c.text(1)),
         UNTRACED(zk_clear_record_remnant, descriptor(c, 0))},
    .situations = {{"fault", set_up_fault},
                   {"unwritable", [](const std::string& details) { bad_place = std::stoi(split(details).second); }},
                   {"space", set_up_space},
                   {"interfaces", set_up_interfaces},
                   {"directory", set_up_directory},
                   {"flags", set_up_flags},
                   {"stack", set_up_stack},
                   {"incident", set_up_incident},
                   {"done", [](const std::string& command) { EXPECT_EQ(std::system(command.c_str()), 0) << command; }}},
    .begin = begin,
    .given = given};

struct library_calls : testing::TestWithParam<std::filesystem::path> {};

TEST_P(library_calls, say_what_stands_in) {
  pid_is = 4711;
  every_inode = 4097;
  setenv("TZ", "UTC", 1);
  tzset();
  ASSERT_EQ(chdir(scratch().c_str()), 0);
  ASSERT_EQ(std::system("echo any bytes >file; mkdir -p folder; ln -sfn loop loop; mkfifo fifo 2>/dev/null; head -c "
                        "3000 /dev/zero >big"),
            0);
  std::ofstream("stack") << stack().add("one").bytes();
  expect_calls(GetParam(), LIBRARY);
  pid_is = 0;
}
INSTANTIATE_TEST_SUITE_P(files, library_calls, testing::ValuesIn(files_of_calls("library")), name_of_calls);
