/* SPDX-License-Identifier: MIT */
/* faults.h - the system as a test wants it: a call that fails, reads and writes that take less, a clock that stands. The
 * calls of the libraries come here, since they are linked into the test program. To be included before anything else, by
 * one source of a program. */
#pragma once

#undef _FORTIFY_SOURCE /* its inline variants cannot be replaced */
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <utility>
#include <vector>

static struct {
  std::string call; /* the one that fails */
  int error;        /* with this errno */
  int times;        /* so often, */
  int spared;       /* after as many that did not */
  std::string file; /* and only with a file whose path ends so */
} fault;
static size_t most_read = SIZE_MAX, most_written = SIZE_MAX; /* bytes that one call takes */
static off_t bad_place = -1; /* writing ends before this byte of a file; starting there is EIO */
static timeval now_is = {1700000000, 123456};
/* What happens once, when the libraries come to a call. */
static struct {
  std::string call;
  std::function<void()> work;
} meanwhile;
/* What the file systems say of their space, one answer after another and the last one for good. */
static std::vector<struct statvfs> space(1);
static pid_t pid_is = 0;      /* the process's number, unless it is 0 */
static ino_t every_inode = 0; /* every file has this one, unless it is 0 */

/* A file system of blocks of 1000 bytes, of which some can be had by everybody, and all by root. */
inline struct statvfs blocks(uint64_t number, uint64_t available) {
  struct statvfs figures = {};
  figures.f_bsize = 1000;
  figures.f_frsize = 512;
  figures.f_blocks = figures.f_bfree = number;
  figures.f_bavail = available;
  return figures;
}

inline void refuse(const std::string& call, int error, int times = 1, int spared = 0, const std::string& file = "") {
  fault = {call, error, times, spared, file};
}

static bool is_refused(const char* call, const std::string& path = "") {
  if (call == meanwhile.call) {
    meanwhile.call.clear();
    meanwhile.work();
  }
  if (call != fault.call || fault.times == 0 || !path.ends_with(fault.file) || fault.spared-- > 0) return false;
  fault.spared = 0;
  --fault.times;
  errno = fault.error;
  return true;
}
static bool is_refused(const char* call, int fildes) {
  char path[4096] = "";
  const int error = errno;
  if (!fault.file.empty() && readlink(("/proc/self/fd/" + std::to_string(fildes)).c_str(), path, sizeof path - 1) < 0)
    errno = error;
  return is_refused(call, std::string(path));
}

extern "C" int open(const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const bool makes = (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE;
  const mode_t mode = makes ? va_arg(more, mode_t) : 0;
  va_end(more);
  if (is_refused("open", path)) return -1;
  return openat(AT_FDCWD, path, flags, mode);
}
static ssize_t read_some(int fildes, void* bytes, size_t size) {
  return is_refused("read", fildes) ? -1 : syscall(SYS_read, fildes, bytes, std::min(size, most_read));
}
static ssize_t write_some(int fildes, const void* bytes, size_t size) {
  size = std::min(size, most_written);
  const off_t left = bad_place - lseek(fildes, 0, SEEK_CUR);
  if (bad_place >= 0 && left >= 0) size = std::min(size, static_cast<size_t>(left));
  if (is_refused("write", fildes)) return -1;
  if (bad_place < 0 || left != 0) return syscall(SYS_write, fildes, bytes, size);
  errno = EIO;
  return -1;
}
/* Moves to an offset for as long as `work` takes. */
template <typename Work>
static ssize_t at_offset(int fildes, off_t offset, Work&& work) {
  const off_t before = lseek(fildes, 0, SEEK_CUR);
  lseek(fildes, offset, SEEK_SET);
  const ssize_t result = work();
  const int error = errno;
  lseek(fildes, before, SEEK_SET);
  errno = error;
  return result;
}

extern "C" ssize_t read(int fildes, void* bytes, size_t size) {
  return read_some(fildes, bytes, size);
}
extern "C" ssize_t pread(int fildes, void* bytes, size_t size, off_t offset) {
  return is_refused("pread", fildes) ? -1 : at_offset(fildes, offset, [&] { return read_some(fildes, bytes, size); });
}
extern "C" ssize_t write(int fildes, const void* bytes, size_t size) {
  return write_some(fildes, bytes, size);
}
extern "C" ssize_t pwrite(int fildes, const void* bytes, size_t size, off_t offset) {
  return at_offset(fildes, offset, [&] { return write_some(fildes, bytes, size); });
}
extern "C" ssize_t pwritev(int fildes, const iovec* pieces, int count, off_t offset) {
  std::string bytes;
  for (const iovec& piece : std::span(pieces, static_cast<size_t>(count)))
    bytes.append(static_cast<const char*>(piece.iov_base), piece.iov_len);
  return pwrite(fildes, bytes.data(), bytes.size(), offset);
}
extern "C" int lockf(int fildes, int request, off_t size) {
  struct flock range = {};
  range.l_type = request == F_ULOCK ? F_UNLCK : F_WRLCK;
  range.l_whence = SEEK_CUR;
  range.l_len = size;
  return is_refused(request == F_ULOCK ? "unlock" : "lock", fildes)
             ? -1
             : fcntl(fildes, request == F_LOCK ? F_SETLKW : F_SETLK, &range);
}
extern "C" int fchmod(int fildes, mode_t mode) noexcept {
  return is_refused("fchmod", fildes) ? -1 : static_cast<int>(syscall(SYS_fchmod, fildes, mode));
}
extern "C" int stat(const char* path, struct stat* status) noexcept {
  const int result = is_refused("stat", path) ? -1 : fstatat(AT_FDCWD, path, status, 0);
  if (every_inode != 0) status->st_ino = every_inode;
  return result;
}
extern "C" int fstat(int fildes, struct stat* status) noexcept {
  const int result = fstatat(fildes, "", status, AT_EMPTY_PATH);
  if (every_inode != 0) status->st_ino = every_inode;
  return result;
}
extern "C" int statvfs(const char* path, struct statvfs* figures) noexcept {
  *figures = space.front();
  if (space.size() > 1) space.erase(space.begin());
  return is_refused("statvfs", path) ? -1 : 0;
}
extern "C" pid_t getpid() noexcept {
  return pid_is != 0 ? pid_is : static_cast<pid_t>(syscall(SYS_getpid));
}
extern "C" int gettimeofday(timeval* time, void*) noexcept {
  *time = now_is;
  return is_refused("gettimeofday") ? -1 : 0;
}
