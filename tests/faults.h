/* faults.h - the system as a test wants it: a call that fails, reads and writes that take less, a clock that stands. The
 * calls of the libraries come here, since they are linked into the test program. To be included before anything else, by
 * one source of a program. */
#ifndef FAULTS_H
#define FAULTS_H

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
#include <string_view>
#include <utility>
#include <vector>

static struct {
  std::string_view call; /* the one that fails */
  int error;             /* with this errno */
  int times;             /* so often, */
  int spared;            /* after as many that did not */
} fault;
static size_t most_at_once = SIZE_MAX; /* bytes that one read or write takes */
static timeval now_is = {1700000000, 123456};
static std::function<void()> after_open; /* called once, when a file has been opened */
/* What the file systems say of their space, one answer after another and the last one for good. */
static std::vector<struct statvfs> space(1);
static ino_t every_inode = 0;  /* every file has this one, unless it is 0 */
static int closed_in_vain = 0; /* descriptors that were closed twice */

inline void refuse(std::string_view call, int error, int times = 1, int spared = 0) {
  fault = {call, error, times, spared};
}

static bool is_refused(std::string_view call) {
  if (call != fault.call || fault.times == 0 || fault.spared-- > 0) return false;
  fault.spared = 0;
  --fault.times;
  errno = fault.error;
  return true;
}

extern "C" int open(const char* path, int flags, ...) {
  va_list more;
  va_start(more, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
  va_end(more);
  if (is_refused("open")) return -1;
  const int fildes = openat(AT_FDCWD, path, flags, mode);
  if (fildes >= 0 && after_open) std::exchange(after_open, nullptr)();
  return fildes;
}
extern "C" int close(int fildes) {
  const long result = syscall(SYS_close, fildes);
  closed_in_vain += result != 0;
  return static_cast<int>(result);
}
extern "C" ssize_t read(int fildes, void* bytes, size_t size) {
  const iovec piece = {bytes, std::min(size, most_at_once)};
  return is_refused("read") ? -1 : readv(fildes, &piece, 1);
}
extern "C" ssize_t pread(int fildes, void* bytes, size_t size, off_t offset) {
  const iovec piece = {bytes, std::min(size, most_at_once)};
  return is_refused("read") ? -1 : preadv(fildes, &piece, 1, offset);
}
extern "C" ssize_t write(int fildes, const void* bytes, size_t size) {
  const iovec piece = {const_cast<void*>(bytes), std::min(size, most_at_once)};
  return is_refused("write") ? -1 : writev(fildes, &piece, 1);
}
extern "C" int lockf(int fildes, int request, off_t size) {
  struct flock range = {};
  range.l_type = request == F_ULOCK ? F_UNLCK : F_WRLCK;
  range.l_whence = SEEK_CUR;
  range.l_len = size;
  return is_refused(request == F_ULOCK ? "unlock" : "lock")
             ? -1
             : fcntl(fildes, request == F_LOCK ? F_SETLKW : F_SETLK, &range);
}
extern "C" int fchmod(int fildes, mode_t mode) noexcept {
  return is_refused("fchmod") ? -1 : static_cast<int>(syscall(SYS_fchmod, fildes, mode));
}
extern "C" int stat(const char* path, struct stat* status) noexcept {
  const int result = is_refused("stat") ? -1 : fstatat(AT_FDCWD, path, status, 0);
  if (every_inode != 0) status->st_ino = every_inode;
  return result;
}
extern "C" int statvfs(const char*, struct statvfs* figures) noexcept {
  *figures = space.front();
  if (space.size() > 1) space.erase(space.begin());
  return is_refused("statvfs") ? -1 : 0;
}
extern "C" int gettimeofday(timeval* time, void*) noexcept {
  *time = now_is;
  return is_refused("gettimeofday") ? -1 : 0;
}

#endif
