#include "support.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "zk_msg.h"

std::string eid_field(std::string_view id) {
  std::string field(id.substr(0, ZELK_EID_SIZE));
  field.resize(ZELK_EID_SIZE);
  return field;
}

std::string eid(std::string_view name) {
  std::string id(name);
  id.resize(ZELK_EID_LENGTH, '.');
  return id;
}

std::string int_arg(int32_t value, int32_t type) {
  return image(type) + image(value) + std::string(4, '\0');
}
std::string string_arg(std::string_view value) {
  return image(int32_t{CU_ERROR_ARG_CHAR_STR}) + text(value);
}

std::string incident::body() const {
  return image(version) + eid_field(id) + eid_field(related) + image(time) + text(process) + image(pid) +
         image(parent) + image(thread) + text(file) + text(file_version) + text(product) + image(line) + text(catalog) +
         image(set) + image(number) + text(description) + image(arg_count) + args + text(details);
}

stack::stack(int32_t size)
    : header{ZK_STACK_RECORDS_MIN, ZK_STACK_RECORDS_MIN, ZK_STACK_RECORDS_MIN, size, 0},
      area(static_cast<size_t>(size) - ZK_STACK_RECORDS_MIN, '\0') {}

stack& stack::add(std::string_view name) {
  incident what;
  what.id = eid(name);
  what.description = name;
  return add(what);
}

stack& stack::add_raw(int32_t length, std::string_view body) {
  std::string record = image(length) + std::string(body);
  size_t at = static_cast<size_t>(header.write_pos - ZK_STACK_RECORDS_MIN);
  if (at + record.size() > area.size()) area.resize(at + record.size());
  area.replace(at, record.size(), record);
  header.write_pos += static_cast<int32_t>(record.size());
  return *this;
}

stack& stack::wrap() {
  /* The older lap stays where it is; what is added from here on overwrites its beginning. */
  size_t used = static_cast<size_t>(header.write_pos - ZK_STACK_RECORDS_MIN);
  std::string older = area.substr(0, used);
  area.assign(area.size(), '\0');
  header.earliest_rec = static_cast<int32_t>(ZK_STACK_RECORDS_MIN + area.size() - used - 4);
  area.replace(area.size() - used - 4, used, older);
  header.write_pos = header.records_start;
  header.has_wrapped = 1;
  return *this;
}

std::string stack::bytes() const {
  return image(version) + image(header) + area;
}
std::string stack::file() const {
  return new_file(bytes());
}

std::string message(int number) {
  return zk_mesgtbl_zkview_cmd[number];
}
std::string told(int number, const std::string& first, const std::string& second) {
  std::string text = message(number);
  for (auto [start, value] : {std::pair{"%1$", first}, {"%2$", second}})
    for (size_t at; (at = text.find(start)) != text.npos;) text.replace(at, 4, value);
  return text;
}
std::string unexpected(const std::string& routine, int code) {
  return told(ZK_MSG_UNEXPECTED, routine, std::to_string(code));
}
const std::string HEADING = message(ZK_MSG_HEADING);
const std::string SEPARATOR = message(ZK_MSG_SEPARATOR);
const std::string CORRUPT = message(ZK_MSG_REC_CORRUPT);

std::string line(std::string_view description, std::string_view process) {
  std::string name(process.substr(0, 16));
  name.resize(16, ' ');
  return "020309052007 " + name + " " + std::string(description) + "\n";
}

bool operator==(const outcome& a, const outcome& b) {
  return a.out == b.out && a.err == b.err && a.status == b.status;
}

std::ostream& operator<<(std::ostream& stream, const outcome& what) {
  return stream << "status " << what.status << "\n--- stdout\n" << what.out << "--- stderr\n" << what.err;
}

std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

outcome run(const std::vector<std::string>& command, const environment& variables) {
  std::string out = new_file(""), err = new_file("");
  pid_t child = fork();
  if (child == 0) {
    std::vector<char*> arguments;
    std::vector<std::string> emulator = words(EMULATOR);
    for (std::string& word : emulator) arguments.push_back(word.data());
    for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
    arguments.push_back(nullptr);
    /* The command leaves the release of its lists to its end. */
    environment all = {{"ASAN_OPTIONS", "detect_leaks=0"}, {"TZ", "UTC"}, {"ZELKPNAME", ""}}; /* no copies of dumps */
    for (const auto& [name, value] : variables) all[name] = value;
    std::vector<std::string> settings;
    for (const auto& [name, value] : all) settings.push_back(name + "=" + value);
    std::vector<char*> pointers;
    for (std::string& setting : settings) pointers.push_back(setting.data());
    pointers.push_back(nullptr);
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(open(out.c_str(), O_WRONLY), STDOUT_FILENO);
    dup2(open(err.c_str(), O_WRONLY), STDERR_FILENO);
    execve(arguments[0], arguments.data(), pointers.data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return {contents(out), contents(err), WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status)};
}

std::string program(const std::string& name) {
  return std::string(PROGRAM_FOLDER "/") + name;
}

outcome zkview(std::vector<std::string> arguments, const environment& variables) {
  arguments.insert(arguments.begin(), program("zkview"));
  return run(arguments, variables);
}

std::string report(const stack& what, std::vector<std::string> options) {
  options.push_back("-s");
  options.push_back(what.file());
  outcome result = zkview(options);
  EXPECT_EQ(result.status, 0) << result.err;
  return result.out;
}

namespace {
struct folder {
  folder() {
    char name[] = "/tmp/zkview-test-XXXXXX";
    path = mkdtemp(name);
    owner = getpid();
  }
  ~folder() {
    std::error_code ignored;
    if (owner == getpid()) std::filesystem::remove_all(path, ignored);
  }
  std::string path;
  pid_t owner;
};
}  // namespace

const std::string& scratch() {
  static folder own;
  return own.path;
}

std::string new_file(const std::string& contents) {
  static int count = 0;
  std::string path = scratch() + "/" + std::to_string(getpid()) + "-" + std::to_string(++count);
  std::ofstream(path, std::ios::binary) << contents;
  return path;
}

std::string contents(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> trace_entries(const std::string& path) {
  std::string bytes = contents(path);
  std::vector<std::string> newest, older;
  bool past_end = false;
  for (size_t at = bytes.find('\1'); at != bytes.npos;) {
    size_t next = bytes.find('\1', at + 1);
    std::string entry = bytes.substr(at, next == bytes.npos ? next : next - at);
    bool is_last = entry.find("[END OF FINAL ENTRY]\n") != entry.npos;
    for (const char* mark : {"[END OF FINAL ENTRY]\n", "[FILE RECYCLES HERE]\n"})
      entry = entry.substr(0, entry.find(mark));
    size_t routine = entry.find("\tZELK Routine: ");
    size_t caller = entry.find("\tCalled by PID ");
    if (routine != entry.npos && caller != entry.npos) {
      routine += std::strlen("\tZELK Routine: ");
      (past_end ? older : newest)
          .push_back(entry.substr(routine, caller - routine) + entry.substr(entry.find('\n', caller) + 1));
    }
    past_end = past_end || is_last;
    at = next;
  }
  older.insert(older.end(), newest.begin(), newest.end());
  return older;
}

std::string folded(std::string message) {
  std::string lines;
  for (message = message.substr(0, 254); !message.empty();) {
    size_t end = std::min({message.find('\n'), message.size(), size_t{72}});
    lines += '\t' + message.substr(0, end) + '\n';
    message.erase(0, message[end] == '\n' ? end + 1 : end);
  }
  return lines;
}

void in_child(const std::function<void()>& work) {
  pid_t child = fork();
  if (child == 0) {
    work();
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}

void as_ordinary_user(const std::function<void()>& work) {
  in_child([&] {
    constexpr unsigned int NOBODY = 65534;
    EXPECT_TRUE(geteuid() != 0 || (setgroups(0, nullptr) == 0 && setgid(NOBODY) == 0 && setuid(NOBODY) == 0));
    work();
  });
}

bool has_private_var() {
  static const bool made = [] {
    scratch();
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    if (mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0) return false;
    std::error_code error;
    std::filesystem::create_directories(ZELK_STACK_DIR, error);
    std::filesystem::create_directories(ZELK_DUMP_DIR, error);
    return !error;
  }();
  return made;
}
