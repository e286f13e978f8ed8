/* SPDX-License-Identifier: MIT */
/* lock_wait.cpp - waits for the lock of a stack, and finds out who holds it. */
#include "lock_wait.h"

#include <dirent.h>
#include <sys/sysmacros.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "command.h"

static constexpr unsigned int PATIENCE = 1; /* seconds */

/* Whether one of the open files of a process has a lock on the file, which /proc writes as "MAJOR:MINOR:INODE". */
static bool holds_lock(const std::string& process, const std::string& file) {
  const std::string folder = "/proc/" + process + "/fdinfo";
  DIR* const directory = opendir(folder.c_str());
  bool is_found = false;
  while (directory != nullptr && !is_found) {
    const dirent* const entry = readdir(directory);
    if (entry == nullptr) break;
    std::string text(4096, '\0');
    const int fildes = open((folder + "/" + entry->d_name).c_str(), O_RDONLY | O_CLOEXEC);
    text.resize(zk_read(fildes, text.data(), text.size()));
    if (fildes != -1) close(fildes);
    is_found = text.find("lock:") != text.npos && text.find(" " + file + " ") != text.npos;
  }
  if (directory != nullptr) closedir(directory);
  return is_found;
}

/* The number of a process that holds a lock on the file, empty where it cannot be known. */
static std::string find_holder(int fildes) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  struct stat status;
  if (fcntl(fildes, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK && lock.l_pid > 0) return std::to_string(lock.l_pid);
  if (fstat(fildes, &status) != 0) return "";
  char file[64]; /* the lock belongs to an open file, not to a process */
  std::snprintf(file, sizeof file, "%02x:%02x:%llu", major(status.st_dev), minor(status.st_dev),
                static_cast<unsigned long long>(status.st_ino));
  std::string holder;
  DIR* const processes = opendir("/proc");
  while (processes != nullptr && holder.empty()) {
    const dirent* const entry = readdir(processes);
    if (entry == nullptr) break;
    const std::string name = entry->d_name;
    if (name.find_first_not_of("0123456789") == name.npos && holds_lock(name, file)) holder = name;
  }
  if (processes != nullptr) closedir(processes);
  return holder;
}

std::string waiting_text(int fildes) {
  const std::string holder = find_holder(fildes);
  return holder.empty() ? message_text(TOOL_MSG_WAITING) : message_text(TOOL_MSG_WAITING_FOR_PROCESS, {holder});
}

static volatile std::sig_atomic_t is_over; /* the patience */
static void lose_patience(int) {
  is_over = 1;
}

void wait_for_lock(const std::string& name, const std::string& stack, int fildes, int command) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  if (fcntl(fildes, command == F_SETLKW ? F_SETLK : F_OFD_SETLK, &lock) == 0) return;
  struct sigaction action = {}, before = {};
  action.sa_handler = lose_patience; /* which interrupts the call that waits */
  sigaction(SIGALRM, &action, &before);
  is_over = 0;
  alarm(PATIENCE);
  bool is_told = false;
  while (fcntl(fildes, command, &lock) != 0 && errno == EINTR) {
    if (is_over == 0 || is_told) continue;
    is_told = true;
    report_failure(name, stack, waiting_text(fildes));
  }
  alarm(0);
  sigaction(SIGALRM, &before, nullptr);
}
