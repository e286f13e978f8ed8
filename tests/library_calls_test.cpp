/* Calls that stand in text files, tests/golden/library/NAME.calls: each with its result, what it traces and the outputs
 * that it changes from 99 or from nothing. "out" stands for the place of an output. A line with a "#" is a comment, one
 * like NAME=value sets an environment variable. With RENEW_GOLDEN in the environment the files are written anew. */
#include "node.h"

#include <cstring>
#include <regex>

#include "transcript.h"

static struct outputs {
  int local = 99, version = 99, location = 99, ipv6 = 99, facility = 99, priority = 99;
  unsigned int label = 99;
  long seconds = 99;
  timeval time = {99, 99};
  char text[46] = "", type = 0;
  unsigned char address[16] = {};
  char files[4][256] = {};
} out;

static std::string changed_outputs() {
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
  if (out.time.tv_sec != 99) said << " time " << out.time.tv_sec << "." << out.time.tv_usec;
  say("text", std::string(out.text), "");
  say("type", out.type, '\0');
  char address[46];
  if (std::count(out.address, out.address + 16, 0) < 16)
    said << " address " << inet_ntop(AF_INET6, out.address, address, sizeof address);
  say("IPv6", out.ipv6);
  return said.str();
}

/* A call with the words of its line. */
struct call {
  int active;
  const char* file;
  std::vector<std::string> words;
  const char* text(size_t index) const { return words.at(index) == "NULL" ? nullptr : words[index].c_str(); }
  int number(size_t index) const { return static_cast<int>(std::stol(words.at(index), nullptr, 0)); }
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
    ROUTINE(zk_test_for_file, c.text(0)),
    ROUTINE(zk_test_for_dir, c.text(0)),
};

/* Makes the call of a line; what there is to say of it. */
static std::string made(const std::string& line) {
  static const std::regex WORD("\"([^\"]*)\"|[^\",() ]+");
  call it = {};
  for (std::sregex_iterator word(line.begin(), line.end(), WORD), end; word != end; ++word)
    it.words.push_back((*word)[1].matched ? (*word)[1].str() : word->str());
  const std::string routine = it.words.at(0);
  it.words.erase(it.words.begin());
  transcript said{.name = "", .brief = true};
  said.note(line, [&](int active, const char* file) {
    out = {};
    it.active = active;
    it.file = file;
    return ROUTINES.at(routine)(it);
  });
  const std::string changes = changed_outputs();
  return said.text + (changes.empty() ? "" : "    gives" + changes + "\n");
}

struct library_calls : testing::TestWithParam<std::filesystem::path> {};

TEST_P(library_calls, say_what_stands_in) {
  node = {{"lo", "127.0.0.1", LOOPBACK}, {"eth0", "192.168.1.9", UP}};
  setenv("TZ", "UTC", 1);
  ASSERT_EQ(chdir(scratch().c_str()), 0);
  every_inode = 4097;
  std::ofstream("file") << "any bytes";
  std::filesystem::create_directory("folder");
  static const int linked = symlink("loop", "loop");
  ASSERT_EQ(linked, 0);
  const std::string expected = contents(GetParam());
  std::istringstream lines(expected);
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    if (line.empty() || line[0] == '#') text += line + "\n";
    if (std::isupper(line[0]) != 0)
      text += line + "\n", setenv(line.substr(0, line.find('=')).c_str(), line.substr(line.find('=') + 1).c_str(), 1);
    if (std::islower(line[0]) != 0) text += made(line.substr(0, line.find(" = ")));
  }
  if (std::getenv("RENEW_GOLDEN") != nullptr) std::ofstream(GetParam()) << text;
  EXPECT_EQ(text, expected);
}

static auto files() {
  const auto folder = std::filesystem::path(__FILE__).parent_path() / "golden" / "library";
  return std::vector<std::filesystem::path>(std::filesystem::directory_iterator(folder), {});
}
INSTANTIATE_TEST_SUITE_P(files, library_calls, testing::ValuesIn(files()),
                         [](auto& each) { return each.param.stem().string(); });
