/* SPDX-License-Identifier: MIT */
#include "support.h"

#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

static std::string eid_field(std::string_view id) {
  std::string field(id);
  field.resize(43);
  return field;
}

std::string eid(std::string_view name) {
  std::string id(name);
  id.resize(42, '.');
  return id;
}

std::string incident::body() const {
  return image(version) + eid_field(id) + eid_field(related) + image(time) + text(process) + image(pid) +
         image(parent) + image(thread) + text(file) + text(file_version) + text(product) + image(line) + text(catalog) +
         image(set) + image(number) + text(description) + image(arg_count) + args + text(details);
}

static constexpr int32_t AREA_START = 24;

void keep(const void* memory) {
  static auto& kept = *new std::vector<const void*>;
  kept.push_back(memory);
}

stack::stack(int32_t size)
    : header{AREA_START, AREA_START, AREA_START, size, 0}, area(static_cast<size_t>(size - AREA_START), '\0') {}

stack& stack::add_raw(int32_t length, std::string_view body) {
  std::string record = image(length) + std::string(body);
  size_t at = static_cast<size_t>(header.write_pos - AREA_START);
  if (at + record.size() > area.size()) area.resize(at + record.size());
  area.replace(at, record.size(), record);
  header.write_pos += static_cast<int32_t>(record.size());
  return *this;
}

stack& stack::wrap() {
  /* The older lap stays where it is; what is added from here on overwrites its beginning. */
  size_t used = static_cast<size_t>(header.write_pos - AREA_START);
  std::string older = area.substr(0, used);
  area.assign(area.size(), '\0');
  header.earliest_rec = static_cast<int32_t>(AREA_START + area.size() - used - 4);
  area.replace(area.size() - used - 4, used, older);
  header.write_pos = header.records_start;
  header.has_wrapped = 1;
  return *this;
}

std::string line(std::string_view description, std::string_view process) {
  std::string name(process.substr(0, 16));
  name.resize(16, ' ');
  return "020309052007 " + name + " " + std::string(description) + "\n";
}

std::string lines(const std::string& descriptions) {
  std::string all = HEADING;
  for (const std::string& description : words(descriptions)) all += line(description);
  return all;
}

std::string unexpected(const std::string& routine, int code) {
  return "2615-713 zkview Error: The command experienced an unexpected\n\t failure in the " + routine +
         " routine.  Failure code from this\n\t routine was " + std::to_string(code) +
         ".  Note the conditions present when this command\n\t was executed, and contact the system administrator.  "
         "System\n\t administrators should contact the KVO Customer Support Center\n\t to report this failure.\n";
}

std::ostream& operator<<(std::ostream& stream, const outcome& what) {
  return stream << "status " << what.status << "\n--- stdout\n" << what.out << "--- stderr\n" << what.err;
}

std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
  for (size_t at = 0; (at = text.find(what, at)) != text.npos; at += by.size()) text.replace(at, what.size(), by);
  return text;
}

outcome run(const std::vector<std::string>& command, const environment& variables) {
  std::string out = new_file(""), err = new_file("");
  pid_t child = fork();
  if (child == 0) {
    /* The command leaves the release of its lists to its end, and dumps are not copied. */
    environment all = variables;
    all.insert({{"ASAN_OPTIONS", "detect_leaks=0"}, {"TZ", "UTC"}, {"ZELKPNAME", ""}});
    std::vector<std::string> arguments = words(EMULATOR), settings;
    arguments.insert(arguments.end(), command.begin(), command.end());
    for (const auto& [name, value] : all) settings.push_back(name + "=" + value);
    auto pointers = [](std::vector<std::string>& texts) {
      std::vector<char*> made;
      for (std::string& each : texts) made.push_back(each.data());
      made.push_back(nullptr);
      return made;
    };
    const rlimit a_minute = {60, 60};
    setrlimit(RLIMIT_CPU, &a_minute); /* what runs for ever must not outlive the test */
    dup2(open("/dev/null", O_RDONLY), STDIN_FILENO);
    dup2(open(out.c_str(), O_WRONLY), STDOUT_FILENO);
    dup2(open(err.c_str(), O_WRONLY), STDERR_FILENO);
    execve(arguments[0].c_str(), pointers(arguments).data(), pointers(settings).data());
    _exit(127);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return {contents(out), contents(err), WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status)};
}

outcome shell(const std::string& line, environment variables) {
  const std::string folder = scratch() + "/bin/", script = folder + "zkview";
  std::filesystem::create_directory(folder);
  if (!std::filesystem::exists(script)) {
    std::ofstream(script) << "#!/bin/sh\n[ -z \"$FAULT\" ] || LD_PRELOAD=" FAULT_SHIM " exec "
                          << program("zkview_dynamic") << " \"$@\"\nexec " EMULATOR " " << program("zkview")
                          << " \"$@\"\n";
    std::filesystem::permissions(script, std::filesystem::perms::all);
  }
  variables["PROGRAM"] = program("zkview");
  variables["PATH"] = folder + ":/usr/sbin:/usr/bin:/sbin:/bin";
  outcome result = run({"/bin/sh", "-c", "cd " + scratch() + "; " + line}, variables);
  for (const char* name : {"zkview_dynamic", "zkview"}) result.err = replaced(result.err, program(name), "zkview");
  return result;
}

outcome zkview(std::vector<std::string> arguments, const environment& variables) {
  arguments.insert(arguments.begin(), program("zkview"));
  outcome result = run(arguments, variables);
  if (variables.contains("ZELKDEBUG")) return result;
  environment traced = variables;
  traced["ZELKDEBUG"] = scratch() + "/unread-trace";
  EXPECT_EQ(run(arguments, traced), result);
  return result;
}

outcome view(const stack& what, std::vector<std::string> options, const environment& variables) {
  options.insert(options.end(), {"-s", what.file()});
  return zkview(options, variables);
}

const std::string& scratch() {
  static struct folder {
    char name[24] = "/tmp/zkview-test-XXXXXX";
    std::string path = mkdtemp(name);
    pid_t owner = getpid();
    std::error_code ignored = {};
    ~folder() {
      if (owner == getpid()) std::filesystem::remove_all(path, ignored);
    }
  } own;
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

size_t open_descriptors() {
  const std::filesystem::directory_iterator all("/proc/self/fd");
  return static_cast<size_t>(std::distance(begin(all), end(all)));
}

std::vector<std::string> trace_entries(const std::string& path) {
  const std::string bytes = contents(path), routine = "\tZELK Routine: ", caller = "\tCalled by PID ";
  const std::string end_mark = "[END OF FINAL ENTRY]\n", recycle_mark = "[FILE RECYCLES HERE]\n";
  std::vector<std::string> entries;
  std::ptrdiff_t oldest = 0;
  for (size_t at = bytes.find('\1'), next; at != bytes.npos; at = next) {
    next = bytes.find('\1', at + 1);
    std::string entry = bytes.substr(at, next - at);
    const bool is_last = entry.find(end_mark) != entry.npos;
    for (const std::string& mark : {end_mark, recycle_mark}) entry = entry.substr(0, entry.find(mark));
    const size_t start = entry.find(routine), end = entry.find(caller);
    if (start != entry.npos && end != entry.npos)
      entries.push_back(entry.substr(start, end - start).substr(routine.size()) +
                        entry.substr(entry.find('\n', end) + 1));
    if (is_last) oldest = std::ssize(entries);
  }
  std::rotate(entries.begin(), entries.begin() + oldest, entries.end());
  return entries;
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

void expect_golden(const std::string& name, const std::string& text) {
  const std::string path = GOLDEN_FOLDER "/" + name + ".golden", now = replaced(text, scratch(), "FOLDER");
  if (getenv("RENEW_GOLDEN") != nullptr) std::ofstream(path) << now;
  EXPECT_EQ(run({"/usr/bin/diff", "-u", path, new_file(now)}).out, "") << "script/golden renews the golden files";
}

void in_child(const std::function<void()>& work) {
  pid_t child = fork();
  if (child == 0) {
    work();
    std::exit(testing::Test::HasFailure() ? 1 : 0); /* not _exit: coverage is written at exit */
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
    if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0)
      return false;
    std::error_code error;
    std::filesystem::create_directories("/var/adm/zelk/stacks", error);
    std::filesystem::create_directories("/var/adm/zelk/dumps", error);
    return !error;
  }();
  return made;
}
