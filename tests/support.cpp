/* SPDX-License-Identifier: MIT */
#include "support.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

void keep(const void* memory) {
  static auto& kept = *new std::vector<const void*>;
  kept.push_back(memory);
}

std::string line(std::string_view description) {
  return "020309052007 proc             " + std::string(description) + "\n";
}

std::string lines(const std::string& descriptions) {
  std::string all = HEADING;
  for (const std::string& description : words(descriptions)) all += line(description);
  return all;
}

std::ostream& operator<<(std::ostream& stream, const outcome& what) {
  return stream << "status " << what.status << "\n--- stdout\n" << what.out << "--- stderr\n" << what.err;
}

std::vector<std::string> words(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

std::pair<std::string, std::string> split(const std::string& line) {
  const size_t end = std::min(line.find(' '), line.size());
  return {line.substr(0, end), line.substr(std::min(end + 1, line.size()))};
}

std::string unescaped(std::string text) {
  text = replaced(text, "\\n", "\n");
  for (size_t at = 0; (at = text.find("\\x", at)) != text.npos; ++at)
    text.replace(at, 4, 1, static_cast<char>(std::stoi(text.substr(at + 2, 2), nullptr, 16)));
  return text;
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
    for (const char* name : {"zkexport", "zkdecode", "zkrecord"})
      std::filesystem::create_symlink(program(name), folder + name);
  }
  variables["PROGRAM"] = program("zkview");
  variables["PATH"] = folder + ":/usr/sbin:/usr/bin:/sbin:/bin";
  variables["CATALOGS"] = PROGRAM_FOLDER "/../catalogs";
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
  size_t count = 0;
  for (int fildes = 0; fildes < 256; ++fildes)
    if (fcntl(fildes, F_GETFD) != -1) ++count;
  return count;
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

void expect_golden(const std::string& path, const std::string& now) {
  if (getenv("RENEW_GOLDEN") != nullptr) std::ofstream(path) << now;
  if (contents(path) == now) return;
  const std::string shown = new_file("");
  /* Not by run: no emulator has to do with it. */
  EXPECT_NE(std::system(("diff -u '" + path + "' '" + new_file(now) + "' >'" + shown + "'").c_str()), 0);
  ADD_FAILURE() << contents(shown);
}

void await_sleep(pid_t thread) {
  char state = 'R';
  for (int tries = 0, seen = 0; tries < 10000 && seen < 3; ++tries, seen = state == 'S' ? seen + 1 : 0) {
    const std::string status = contents("/proc/self/task/" + std::to_string(thread) + "/stat");
    state = status.at(status.rfind(')') + 2);
    usleep(1000);
  }
  EXPECT_EQ(state, 'S');
}

std::thread once_asleep(const std::function<void()>& action) {
  return std::thread([sleeper = gettid(), action] {
    await_sleep(sleeper);
    action();
  });
}

void in_child(const std::function<void()>& work) {
  pid_t child = fork();
  if (child == 0) {
    sigevent kill = {}; /* what hangs may have its other signals blocked */
    kill.sigev_signo = SIGKILL;
    timer_t timer;
    const itimerspec limit = {{0, 0}, {20, 0}};
    if (timer_create(CLOCK_MONOTONIC, &kill, &timer) == 0) timer_settime(timer, 0, &limit, nullptr);
    work();
    std::exit(testing::Test::HasFailure() ? 1 : 0); /* not _exit: coverage is written at exit */
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
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

bool has(const std::string& ability) {
  if (ability == "stacks-directory") return has_private_var();
  if (ability == "character-sets") return sizeof(void*) == 8; /* the C library's, which are there for one host */
  if (ability.starts_with("zk")) return *EMULATOR == '\0' && std::filesystem::exists(program(ability));
  if (ability == "root") return geteuid() == 0;
  if (ability == "native") return *EMULATOR == '\0';
  if (ability == "faults") return *FAULT_SHIM != '\0';
  if (ability == "loopback") return run({"/bin/sh", "-c", "grep -q '127.0.0.1' /proc/net/fib_trie"}).status == 0;
  return run({"/bin/sh", "-c", "command -v " + ability}, {{"PATH", "/usr/sbin:/usr/bin:/sbin:/bin"}}).status == 0;
}
