/* SPDX-License-Identifier: MIT */
/* library_calls_test.cpp - what the routines of the libraries say. The files of golden/library read like documentation: a
 * call with its result, then what it traces (of other routines only the names), what it prints (behind "|"), and what it
 * gives to its caller, that is, the outputs that it changes and the file "made".
 *
 *   # a comment
 *   needs ABILITY                  what the machine must have, or nothing of the file is tried
 *   NAME=value                     an environment variable, which stays
 *   a line that begins with a small letter  sets up something for the calls that follow up to an empty line, or for all
 *                                  calls when there is none up to the first empty line: see below
 *   zk_routine(WORDS)              a call, without the trace pair; FOLDER is a folder of the test's own, "out" stands for
 *                                  the place of an output, and a file's name for its descriptor
 *
 * With RENEW_GOLDEN in the environment the files are written anew. What can be set up:
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
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <sstream>

#include "support.h"
#include "zk_msg.h"
#include "zk_record.h"

/* A call with the words of its line. */
struct call {
  int active;
  const char* file;
  std::vector<std::string> words;

  const char* text(size_t index) const { return words.at(index) == "NULL" ? nullptr : words[index].c_str(); }
  long long large(size_t index) const { return std::stoll(words.at(index), nullptr, 0); }
  int number(size_t index) const { return static_cast<int>(large(index)); }
  template <typename Output>
  Output* at(size_t index, Output* output) const {
    return words.at(index) == "NULL" ? nullptr : output;
  }
};

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

/* The words of each of the items that commas separate. */
static std::vector<std::vector<std::string>> items(const std::string& details) {
  std::vector<std::vector<std::string>> all;
  std::istringstream stream(details);
  for (std::string item; std::getline(stream, item, ',');) all.push_back(words(item));
  return all;
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
  refuse(word.at(0), std::stoi(word.at(1)), 1, word.size() > 3 ? std::stoi(word[3]) : 0,
         word.size() > 2 ? word[2] : "");
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

#define ROUTINE(name, ...)                                                                           \
  {                                                                                                  \
#name, [](const call& c) { return static_cast<long long>(name(c.active, c.file, __VA_ARGS__)); } \
  }
#define UNTRACED(name, ...)                                                        \
  {                                                                                \
#name, [](const call& c) { return static_cast<long long>(name(__VA_ARGS__)); } \
  }

static const std::map<std::string, long long (*)(const call&)> ROUTINES =
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
         UNTRACED(zk_obtain_strlen, const_cast<char*>(c.text(0)), static_cast<size_t>(c.large(1))),
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
         UNTRACED(zk_clear_record_remnant, descriptor(c, 0))};

/* By the first word of their line. */
static const std::map<std::string, void (*)(const std::string& details)> SITUATIONS = {
    {"fault", set_up_fault},
    {"unwritable", [](const std::string& details) { bad_place = std::stoi(split(details).second); }},
    {"space", set_up_space},
    {"interfaces", set_up_interfaces},
    {"directory", set_up_directory},
    {"flags", set_up_flags},
    {"stack", set_up_stack},
    {"incident", set_up_incident},
    {"done", [](const std::string& command) { EXPECT_EQ(std::system(command.c_str()), 0) << command; }}};

/* ---- Their files ----------------------------------------------------------------------------------------------- */

/* The words of a call: its routine, and its arguments. */
static std::vector<std::string> parsed(const std::string& line) {
  std::vector<std::string> all;
  for (size_t at = 0; (at = line.find_first_not_of("(,) ", at)) != line.npos;) {
    const bool is_quoted = line[at] == '"';
    const size_t end = is_quoted ? line.find('"', at + 1) : line.find_first_of("(,) ", at);
    all.push_back(unescaped(line.substr(at + is_quoted, end - at - is_quoted)));
    at = end + is_quoted;
  }
  return all;
}

/* Trace entries of a routine, and the names of others. */
static std::string traced_lines(const std::string& trace, const std::string& routine) {
  std::string text;
  for (const std::string& entry : trace_entries(trace)) {
    const std::string other = entry.substr(0, entry.find('\n')), name = "    " + other + "\n";
    const bool is_copy = routine == "zk_make_dump_file_copy"; /* which traces by another name */
    if (other != routine && !text.ends_with(name)) text += name;
    if (other == routine || is_copy) text += entry.substr(other.size() + 1);
  }
  return text;
}

/* What is printed, behind a margin. */
static std::string quoted(const std::string& printed_lines) {
  std::istringstream lines(printed_lines);
  std::string text;
  for (std::string line; std::getline(lines, line);) text += line.empty() ? "    |\n" : "    | " + line + "\n";
  return text;
}

/* Makes a call, first without tracing and then with it, which must make no difference; says what comes of it. */
static std::string made(const std::string& line, const std::vector<std::string>& situation) {
  const std::string trace = new_file(EMPTY_TRACE);
  std::vector<std::string> words = parsed(replaced(line, "FOLDER", scratch()));
  const std::string routine = words.at(0);
  words.erase(words.begin());
  std::string said[2];
  for (const bool is_traced : {false, true}) {
    begin();
    for (const std::string& each : situation) {
      const auto [verb, details] = split(each);
      SITUATIONS.at(verb)(details);
    }
    const size_t open_files = open_descriptors();
    long long result = 0;
    const std::string shown = printed([&] {
      result = ROUTINES.at(routine)({is_traced ? 1 : 2, trace.c_str(), words});
    });
    said[is_traced] = quoted(shown) + given();
    EXPECT_EQ(open_descriptors(), open_files) << line;
    words.push_back(std::to_string(result));
  }
  EXPECT_EQ(words.back(), words.end()[-2]) << line;
  EXPECT_EQ(said[0], said[1]) << line;
  return line + " = " + words.back() + "\n" + traced_lines(trace, routine) + said[1];
}

static void expect_calls(const std::filesystem::path& file) {
  const std::string expected = contents(file);
  std::istringstream lines(expected);
  std::string text;
  std::vector<std::string> general, situation;
  bool has_calls = false;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with(" ") || line.starts_with("\t")) continue; /* what came of a call */
    if (line.find(") = ") != line.npos && line[0] != '#') {
      text += made(line.substr(0, line.find(") = ") + 1), situation);
      has_calls = true;
      continue;
    }
    text += line + "\n";
    const auto [first, rest] = split(line);
    const size_t assignment = first.find('=');
    if (first == "needs" && !has(rest)) GTEST_SKIP() << rest << " cannot be had";
    if (line.empty()) {
      if (!has_calls) general = situation;
      situation = general;
    } else if (std::isupper(line[0]) != 0) {
      setenv(line.substr(0, assignment).c_str(), line.substr(assignment + 1).c_str(), 1);
      tzset();
    } else if (line[0] != '#' && first != "needs") {
      situation.push_back(line);
    }
  }
  begin(); /* the system is itself again */
  text = replaced(text, scratch(), "FOLDER");
  expect_golden(file, text);
}

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
  expect_calls(GetParam());
  pid_is = 0;
}
INSTANTIATE_TEST_SUITE_P(files, library_calls,
                         testing::ValuesIn(std::vector<std::filesystem::path>{
                             std::filesystem::directory_iterator(GOLDEN_FOLDER "/library"), {}}),
                         [](const auto& file) { return file.param.stem().string(); });
