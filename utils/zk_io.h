/* SPDX-License-Identifier: MIT */
/* zk_io.h - reading, writing and opening that carry on: after a short or interrupted call, and past a lease; and what
 * keeps them off the standard streams. */
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

/* Makes a system call again while a signal interrupts it. Returns what it does, -1 with errno set. */
template <typename Call>
int zk_retry(Call call) {
  int result;
  do result = call();
  while (result == -1 && errno == EINTR);
  return result;
}

/* Reads `size` bytes at `offset` or, when that is below 0, at the file's position; up to `more` bytes behind them may come
 * along. Returns how many there are before the end of the file or an error; errno is then that error, else 0. */
inline size_t zk_read(int fildes, void* bytes, size_t size, off_t offset = -1, size_t more = 0) {
  size_t taken = 0;
  errno = 0;
  while (taken < size) {
    char* at = static_cast<char*>(bytes) + taken;
    const size_t wanted = size + more - taken;
    const ssize_t count =
        offset < 0 ? read(fildes, at, wanted) : pread(fildes, at, wanted, offset + static_cast<off_t>(taken));
    if (count == 0 || (count < 0 && errno != EINTR)) break;
    if (count > 0) taken += static_cast<size_t>(count);
    errno = 0;
  }
  return taken;
}

/* Writes all of `size` bytes at `offset` or, when that is below 0, at the file's position. Returns false, with errno set,
 * when that fails; what was written before stays written. */
inline bool zk_write(int fildes, const void* bytes, size_t size, off_t offset = -1) {
  const char* at = static_cast<const char*>(bytes);
  for (size_t written = 0; written < size;) {
    const ssize_t count = offset < 0
                              ? write(fildes, at + written, size - written)
                              : pwrite(fildes, at + written, size - written, offset + static_cast<off_t>(written));
    if (count < 0 && errno == EINTR) continue;
    if (count == 0) errno = ENOSPC; /* neither progress nor an error: it would never end */
    if (count <= 0) return false;
    written += static_cast<size_t>(count);
  }
  return true;
}

/* Opens what exists without waiting for whatever the name stands for, be it a FIFO or a modem; only a lease that
 * another process holds on a regular file is waited for. Returns the descriptor, or -1 with errno set. */
inline int zk_open_regular(const char* path, int flags) {
  int fildes = open(path, flags | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  if (fildes != -1 || errno != EAGAIN) return fildes;
  struct stat status;
  bool is_leased = stat(path, &status) == 0 && S_ISREG(status.st_mode);
  errno = EAGAIN;
  return is_leased ? open(path, flags | O_NOCTTY | O_CLOEXEC) : -1;
}

/* Keeps a stack or a trace file from becoming a standard stream where one is closed. What is written to such a stream
 * fails. Returns false, with errno set, when that cannot be done. */
inline bool zk_fill_standard_streams() {
  for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
    if (fcntl(stream, F_GETFD) == -1 && errno == EBADF && open("/dev/null", O_RDONLY) != stream) return false;
  return true;
}
