/* fault_shim.cpp - preloaded into the command: logs what it asks of the system and lets one call fail.
 *
 *   ZK_FAULT_LOG  file that gets a line for each call: its name, a number that tells such calls apart (a position, a
 *                 request, a number of bytes), the file that it is about
 *   ZK_FAULT      "N ERROR": the N-th of these calls fails with errno ERROR; for 0 it transfers one byte at most
 *
 * What libraries call for themselves does not count. A run that takes too long is ended by a signal. */
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

static struct {
  void* command; /* where it is loaded; null while nothing counts */
  int log, error;
  long number;
  size_t limit; /* of the transfer that is let through */
} fault;

__attribute__((constructor)) static void start() {
  Dl_info command = {};
  fault.log = open(getenv("ZK_FAULT_LOG"), O_WRONLY | O_CLOEXEC);
  sscanf(getenv("ZK_FAULT"), "%ld %d", &fault.number, &fault.error);
  alarm(10);
  dladdr(reinterpret_cast<void*>(getauxval(AT_ENTRY)), &command);
  fault.command = command.dli_fbase;
}

/* Logs a call of the command; returns whether it is to fail, with errno set. */
static bool fails(void* caller, const char* call, long detail, const char* file) {
  Dl_info place = {};
  fault.limit = SIZE_MAX;
  if (fault.command == nullptr || dladdr(caller, &place) == 0 || place.dli_fbase != fault.command) return false;
  const int caller_errno = errno;
  /* Registered within main, so that it comes before what writes coverage. */
  static const int registered = atexit([] { fault.command = nullptr; });
  static_cast<void>(registered);
  dprintf(fault.log, "%s %ld %s\n", call, detail, file);
  errno = caller_errno;
  if (--fault.number != 0) return false;
  fault.limit = 1;
  errno = fault.error;
  return fault.error != 0;
}

static bool fails(void* caller, const char* call, long detail, int fildes) {
  const int caller_errno = errno;
  char link[32], name[PATH_MAX] = "";
  snprintf(link, sizeof link, "/proc/self/fd/%d", fildes);
  if (readlink(link, name, sizeof name - 1) == -1) errno = caller_errno;
  return fails(caller, call, detail, name);
}

/* A routine that logs and then fails, or goes on to the real one. The headers' own declarations are left aside: a third
 * argument that may be missing is passed on in any case. */
#define CALL(type, name, failed, parameters, detail, file, arguments)                              \
  extern "C" type shim_##name parameters __asm__(#name);                                           \
  type shim_##name parameters {                                                                    \
    if (fails(__builtin_return_address(0), #name, static_cast<long>(detail), file)) return failed; \
    return reinterpret_cast<decltype(&shim_##name)>(dlsym(RTLD_NEXT, #name)) arguments;            \
  }
#define WITHIN_LIMIT std::min(size, fault.limit)
CALL(int, open, -1, (const char* path, int flags, int mode), flags, path, (path, flags, mode))
CALL(int, fcntl, -1, (int fd, int request, void* more), request, fd, (fd, request, more))
CALL(int, ioctl, -1, (int fd, unsigned long request, void* more), 0, fd, (fd, request, more))
CALL(ssize_t, read, -1, (int fd, void* to, size_t size), 0, fd, (fd, to, WITHIN_LIMIT))
CALL(ssize_t, pread, -1, (int fd, void* to, size_t size, off_t at), at, fd, (fd, to, WITHIN_LIMIT, at))
CALL(ssize_t, write, -1, (int fd, const void* from, size_t size), 0, fd, (fd, from, WITHIN_LIMIT))
CALL(off_t, lseek, -1, (int fd, off_t to, int whence), to, fd, (fd, to, whence))
CALL(int, lockf, -1, (int fd, int request, off_t size), request, fd, (fd, request, size))
CALL(int, fchmod, -1, (int fd, mode_t mode), 0, fd, (fd, mode))
CALL(int, fstat, -1, (int fd, void* status), 0, fd, (fd, status))
CALL(int, stat, -1, (const char* path, void* status), 0, path, (path, status))
CALL(int, statvfs, -1, (const char* path, void* space), 0, path, (path, space))
CALL(int, socket, -1, (int domain, int type, int protocol), 0, "", (domain, type, protocol))
CALL(void*, opendir, nullptr, (const char* path), 0, path, (path))
CALL(void*, readdir, nullptr, (void* entries), 0, "", (entries))
CALL(intptr_t, catopen, -1, (const char* name, int flag), flag, name, (name, flag))
CALL(void*, setlocale, nullptr, (int category, const char* name), 0, "", (category, name))
CALL(void*, malloc, nullptr, (size_t size), size, "", (size))
CALL(void*, calloc, nullptr, (size_t count, size_t size), (count * size), "", (count, size))
CALL(void*, realloc, nullptr, (void* memory, size_t size), size, "", (memory, size))
