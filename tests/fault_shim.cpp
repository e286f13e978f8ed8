/* fault_shim.cpp - preloaded into the command: logs what it asks of the system and lets one call fail.
 *
 *   ZK_FAULT_LOG  file that gets a line for each call: its name, a number that tells such calls apart (a position, a
 *                 request, the bytes that the command itself asks for), the file that it is about
 *   ZK_FAULT      "N ERROR PART": the N-th of these calls fails with errno ERROR when PART is negative. Else it
 *                 transfers PART bytes at most, and unless ERROR is 0 the next calls of its name fail.
 *
 * What runs before and after main does not count. A run that takes too long is ended by a signal. */
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

enum { SECONDS = 10 };

static struct {
  int (*main)(int, char**, char**);
  bool counts; /* between start and end of main */
  int log, error;
  long number, part;
  size_t limit = SIZE_MAX; /* of the transfer that has just been let through */
  char broken[16];         /* the call that fails from here on */
} fault;

/* Logs a call; returns whether it is to fail, with errno set. */
static bool fails(const char* call, long detail, const char* file) {
  fault.limit = SIZE_MAX;
  if (!fault.counts) return false;
  const int caller_errno = errno;
  char line[PATH_MAX + 64];
  syscall(SYS_write, fault.log, line, snprintf(line, sizeof line, "%s %ld %s\n", call, detail, file));
  errno = caller_errno;

  const bool is_reached = --fault.number == 0;
  if (is_reached && fault.part >= 0) {
    fault.limit = static_cast<size_t>(fault.part);
    if (fault.error != 0) snprintf(fault.broken, sizeof fault.broken, "%s", call);
    return false;
  }
  if (!is_reached && strcmp(call, fault.broken) != 0) return false;
  errno = fault.error;
  return true;
}

static bool fails(const char* call, long detail, int fildes) {
  const int caller_errno = errno;
  char link[32], name[PATH_MAX];
  snprintf(link, sizeof link, "/proc/self/fd/%d", fildes);
  const long length = syscall(SYS_readlinkat, AT_FDCWD, link, name, sizeof name - 1);
  name[std::max(length, 0L)] = '\0';
  errno = caller_errno;
  return fails(call, detail, name);
}

/* A routine that logs and then fails, or goes on to the real one. The headers' own declarations are left aside: a third
 * argument that may be missing is passed on in any case. */
#define CALL(type, name, failed, parameters, detail, file, arguments)                   \
  extern "C" type shim_##name parameters __asm__(#name);                                \
  type shim_##name parameters {                                                         \
    if (fails(#name, detail, file)) return failed;                                      \
    return reinterpret_cast<decltype(&shim_##name)>(dlsym(RTLD_NEXT, #name)) arguments; \
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

static bool is_command(void* caller) {
  Dl_info own = {}, place = {};
  return dladdr(reinterpret_cast<void*>(fault.main), &own) != 0 && dladdr(caller, &place) != 0 &&
         own.dli_fbase == place.dli_fbase;
}

/* Looking a routine up may itself ask for memory. */
#define MEMORY(name, parameters, bytes, arguments)                                                                \
  extern "C" void* __libc_##name parameters;                                                                      \
  extern "C" void* shim_##name parameters __asm__(#name);                                                         \
  void* shim_##name parameters {                                                                                  \
    if (fails(#name, is_command(__builtin_return_address(0)) ? static_cast<long>(bytes) : 0, "")) return nullptr; \
    return __libc_##name arguments;                                                                               \
  }
MEMORY(malloc, (size_t size), size, (size))
MEMORY(calloc, (size_t count, size_t size), (count * size), (count, size))
MEMORY(realloc, (void* memory, size_t size), size, (memory, size))

static int counted_main(int argc, char** argv, char** variables) {
  const long log = syscall(SYS_openat, AT_FDCWD, getenv("ZK_FAULT_LOG"), O_WRONLY | O_APPEND | O_CLOEXEC);
  fault.log = static_cast<int>(log);
  sscanf(getenv("ZK_FAULT"), "%ld %d %ld", &fault.number, &fault.error, &fault.part);
  alarm(SECONDS);
  fault.counts = true;
  const int status = fault.main(argc, argv, variables);
  fault.counts = false;
  return status;
}

using start_main = int(decltype(fault.main), int, char**, void (*)(), void (*)(), void (*)(), void*);
extern "C" start_main __libc_start_main;
int __libc_start_main(decltype(fault.main) main, int argc, char** argv, void (*init)(), void (*fini)(), void (*end)(),
                      void* stack) {
  fault.main = main;
  start_main* real = reinterpret_cast<start_main*>(dlsym(RTLD_NEXT, "__libc_start_main"));
  return real(counted_main, argc, argv, init, fini, end, stack);
}
