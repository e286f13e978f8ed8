/* SPDX-License-Identifier: MIT */
/* Calls that stand in text files, tests/golden/library/NAME.calls: each with its result, what it traces and what it gives,
 * that is, the outputs that it changes and the file "made", if there is one then. "out" stands for the place of an output.
 *
 * Other lines set up the situation of the calls that follow, up to an empty line:
 *   # a comment
 *   NAME=value           an environment variable, which stays
 *   fault CALL ERRNO FILE  that call fails once, with this error number, with this file
 *   space BLOCKS AVAILABLE, ...  answers about a file system with blocks of 1000 bytes
 *   interfaces NAME ADDRESS FLAGS, ...  flags: up, loopback, both, none
 *   directory INODE NAME, ...  all the files that there are
 *   done SHELL COMMAND   before each call, on a /var of its own
 * With RENEW_GOLDEN in the environment the files are written anew. */
#include "node.h"

#include <dirent.h>

#include <cstring>

#include "transcript.h"

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
} out;

static std::string outputs_given() {
  std::ostringstream said;
  auto say = [&](const char* name, auto value, decltype(value) unchanged = {99}) {
    if (value != unchanged) said << " " << name << " " << value;
  };
  say("local", out.local);
  say("version", out.version);
  say("location", out.location);
  say("label", out.label);
  say("facility", out.facility);
  say("priority", out.priority);
  say("seconds", out.seconds);
  say("offset", out.offset);
  say("size", out.size);
  say("wraps", out.wraps);
  say("count", out.count);
  if (out.time.tv_sec != 99) said << " time " << out.time.tv_sec << "." << out.time.tv_usec;
  say("text", std::string(out.text), "");
  say("type", out.type, '\0');
  char address[46];
  if (std::count(out.address, out.address + 16, 0) < 16)
    said << " address " << inet_ntop(AF_INET6, out.address, address, sizeof address);
  say("IPv6", out.ipv6);
  for (const auto& file : out.files) say("file", std::string(file), "");
  for (const auto& slot : out.list) say("listed", std::string(slot), "");
  if (std::filesystem::exists("made"))
    said << " made " << std::filesystem::file_size("made") << " bytes: " << contents("made").substr(0, 35);
  return said.str();
}

static std::vector<std::pair<ino_t, std::string>> only_files;
static size_t files_read;

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

/* A call with the words of its line. */
struct call {
  int active;
  const char* file;
  std::vector<std::string> words;
  const char* text(size_t index) const { return words.at(index) == "NULL" ? nullptr : words[index].c_str(); }
  int number(size_t index) const { return static_cast<int>(std::stoll(words.at(index), nullptr, 0)); }
  template <typename Output>
  Output* at(size_t index, Output* output) const {
    return words.at(index) == "NULL" ? nullptr : output;
  }
};
static const char ADDRESSES[5][46] = {"10.0.0.1", "10.0.0.2", "10.0.0.3", "", "10.0.0.5"};

#define ROUTINE(name, ...)                                                   \
  {                                                                          \
#name, [](const call& c) { return name(c.active, c.file, __VA_ARGS__); } \
  }
#define UNTRACED(name, ...)                                \
  {                                                        \
#name, [](const call& c) { return name(__VA_ARGS__); } \
  }
static const std::map<std::string, int (*)(const call&)> ROUTINES = {
    ROUTINE(zk_get_base_64_hdr, c.number(0), c.number(1), c.at(2, out.text)),
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
    ROUTINE(zk_decode_eid, c.text(0), &out.local, c.at(2, &out.version), c.at(3, &out.location), c.at(4, out.files[0]),
            c.at(5, &out.label), c.at(6, &out.time), c.at(7, out.address), c.at(8, &out.ipv6)),
    ROUTINE(zk_decode_eid_2, c.text(0), &out.local, c.at(2, &out.version), c.at(3, &out.location),
            c.at(4, out.files[0]), c.number(5), c.at(6, &out.label), c.at(7, &out.facility), c.at(8, &out.priority),
            c.at(9, &out.time), c.at(10, out.address), c.at(11, &out.ipv6)),
    ROUTINE(zk_obtain_ipaddrs, out.list[0], c.number(0), c.at(1, &out.count)),
    ROUTINE(zk_determine_max_fsize, c.text(0), c.number(1), c.number(2), c.at(3, &out.size)),
    ROUTINE(zk_allocate_file, c.text(0), c.number(1), c.number(2), c.at(3, &out.size)),
    ROUTINE(zk_make_dump_file_copy, c.text(0), c.at(1, out.text)),
    ROUTINE(zk_get_dump_file_name, c.at(0, out.text)),
    ROUTINE(zk_test_for_file, c.text(0)),
    ROUTINE(zk_test_for_dir, c.text(0)),
    UNTRACED(zk_create_debug_file, c.text(0)),
    UNTRACED(zk_is_debug_file_set, c.at(0, out.text)),
    UNTRACED(zk_get_file_ctrl_info, c.text(0), c.at(1, &out.offset), c.at(2, &out.size), c.at(3, &out.wraps)),
    UNTRACED(zk_is_addr_ipv6_type, c.text(0)),
};

/* Brings about what the lines of a situation say. */
static void set_up(const std::vector<std::string>& situation) {
  refuse("nothing", 0);
  only_files.clear();
  files_read = 0;
  for (const std::string& line : situation) {
    const std::string verb = line.substr(0, line.find(' '));
    if (verb == "done") {
      EXPECT_TRUE(has_private_var() && std::system(line.substr(5).c_str()) == 0) << line;
      continue;
    }
    if (verb == "space") space.clear();
    if (verb == "interfaces") node->clear();
    std::istringstream items(line.substr(verb.size()));
    for (std::string item; std::getline(items, item, ',');) {
      const std::vector<std::string> word = words(item);
      if (verb == "fault") refuse(word.at(0), std::stoi(word.at(1)), 1, 0, word.size() > 2 ? word[2] : "");
      if (verb == "space") space.push_back(blocks(std::stoul(word.at(0)), std::stoul(word.at(1))));
      if (verb == "directory") only_files.emplace_back(std::stoull(word.at(0)), word.at(1));
      if (verb != "interfaces" || word.size() < 2) continue;
      const bool is_up = item.ends_with(" up") || item.ends_with(" both"),
                 is_loopback = item.ends_with(" loopback") || item.ends_with(" both");
      node->push_back({word[0], word[1], static_cast<short>((is_up ? IFF_UP : 0) | (is_loopback ? IFF_LOOPBACK : 0))});
    }
  }
}

/* Makes the call of a line; what there is to say of it. */
static std::string made(const std::string& line, const std::vector<std::string>& situation) {
  call it = {};
  for (size_t at = 0; (at = line.find_first_not_of("(,) ", at)) != line.npos;) {
    const bool is_quoted = line[at] == '"';
    const size_t end = is_quoted ? line.find('"', at + 1) : line.find_first_of("(,) ", at);
    it.words.push_back(line.substr(at + is_quoted, end - at - is_quoted));
    at = end + is_quoted;
  }
  const std::string routine = it.words.at(0);
  it.words.erase(it.words.begin());
  transcript said{.name = "", .brief = !line.starts_with("zk_make_dump_file_copy")}; /* which traces by another name */
  said.note(line, [&](int active, const char* file) {
    out = {};
    unlink("made");
    set_up(situation);
    it.active = active;
    it.file = file;
    return ROUTINES.at(routine)(it);
  });
  const std::string given = outputs_given();
  return said.text + (given.empty() ? "" : "    gives" + given + "\n");
}

struct library_calls : testing::TestWithParam<std::filesystem::path> {};

TEST_P(library_calls, say_what_stands_in) {
  if (GetParam().stem() == "dump_copy") NEEDS_PRIVATE_VAR();
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"eth0", "192.168.1.9", UP}};
  pid_is = 4711;
  every_inode = 4097;
  setenv("TZ", "UTC", 1);
  ASSERT_EQ(chdir(scratch().c_str()), 0);
  ASSERT_EQ(std::system("echo any bytes >file; mkdir -p folder; ln -sfn loop loop; mkfifo fifo 2>/dev/null; head -c "
                        "3000 /dev/zero >big"),
            0);
  const std::string expected = contents(GetParam());
  std::istringstream lines(expected);
  std::string text;
  std::vector<std::string> situation;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("zk_")) {
      text += made(line.substr(0, line.find(" = ")), situation);
    } else if (line.empty() || std::isspace(line[0]) == 0) {
      text += line + "\n";
      if (line.empty()) situation.clear();
      if (!line.empty() && std::islower(line[0]) != 0) situation.push_back(line);
      if (!line.empty() && std::isupper(line[0]) != 0)
        setenv(line.substr(0, line.find('=')).c_str(), line.substr(line.find('=') + 1).c_str(), 1);
      tzset();
    }
  }
  pid_is = 0;
  if (std::getenv("RENEW_GOLDEN") != nullptr) std::ofstream(GetParam()) << text;
  EXPECT_EQ(text, expected);
}

static auto files() {
  const auto folder = std::filesystem::path(__FILE__).parent_path() / "golden" / "library";
  return std::vector<std::filesystem::path>(std::filesystem::directory_iterator(folder), {});
}
INSTANTIATE_TEST_SUITE_P(files, library_calls, testing::ValuesIn(files()),
                         [](auto& each) { return each.param.stem().string(); });
