/* SPDX-License-Identifier: MIT */
/* fault_shim.cpp - preloaded into the command: one thing that it does with a file, or with memory, fails.
 *
 *   FAULT      "EFFECT FILE NUMBER ERROR", for example "reading disk 2 EIO": the second time that a file of that name
 *              is read there is an input/output error. "short" in place of an error lets one byte through.
 *   FAULT_HIT  a file that is made when it comes to that
 *
 * Effects: opening, reading, writing, locking and unlocking a file ("stdout" is the report); listing a directory;
 * asking for node addresses, taking memory (FILE is "-", and what libraries take for themselves does not count). */
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/auxv.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

static struct {
  char effect[16], file[64], error[16];
  int number;
  void* command; /* where it is loaded */
} fault;

__attribute__((constructor)) static void start() {
  Dl_info command = {};
  if (sscanf(getenv("FAULT"), "%15s %63s %d %15s", fault.effect, fault.file, &fault.number, fault.error) != 4) abort();
  dladdr(reinterpret_cast<void*>(getauxval(AT_ENTRY)), &command);
  fault.command = command.dli_fbase;
  alarm(20);
}

/* Whether it comes to the fault: 0, or the error; "short" is -1. */
static int fault_at(const char* effect, const char* file) {
  const char* name = strrchr(file, '/');
  if (strcmp(effect, fault.effect) != 0 || strcmp(name != nullptr ? name + 1 : file, fault.file) != 0) return 0;
  if (--fault.number != 0) return 0;
  if (const char* hit = getenv("FAULT_HIT")) syscall(SYS_close, syscall(SYS_openat, AT_FDCWD, hit, O_CREAT, 0600));
  for (int error = 1; error < 140; ++error)
    if (strerrorname_np(error) != nullptr && strcmp(strerrorname_np(error), fault.error) == 0) return errno = error;
  return -1;
}

static int fault_at(const char* effect, int fildes) {
  char link[32], name[PATH_MAX] = "stdout";
  const int caller_errno = errno;
  snprintf(link, sizeof link, "/proc/self/fd/%d", fildes);
  if (fildes != STDOUT_FILENO && readlink(link, name, sizeof name - 1) == -1) name[0] = '\0';
  errno = caller_errno;
  return fault_at(effect, name);
}

static int memory_fault(void* caller) {
  Dl_info place = {};
  if (strcmp(fault.effect, "memory") != 0 || dladdr(caller, &place) == 0 || place.dli_fbase != fault.command) return 0;
  return fault_at("memory", "-");
}

/* A routine that fails at the fault, or goes on to the real one; `size` is cut to 1 by a short transfer. The headers'
 * own declarations are left aside: a third argument that may be missing is passed on in any case. */
#define CALL(type, name, failed, parameters, which, arguments)                          \
  extern "C" type shim_##name parameters __asm__(#name);                                \
  type shim_##name parameters {                                                         \
    const int error = which;                                                            \
    if (error > 0) return failed;                                                       \
    [[maybe_unused]] const size_t limit = error < 0 ? 1 : SIZE_MAX;                     \
    return reinterpret_cast<decltype(&shim_##name)>(dlsym(RTLD_NEXT, #name)) arguments; \
  }
#define LIMITED std::min(size, limit)
#define CALLER __builtin_return_address(0)
CALL(int, open, -1, (const char* path, int flags, int mode), fault_at("opening", path), (path, flags, mode))
CALL(int, openat, -1, (int folder, const char* path, int flags, int mode), fault_at("opening", path),
     (folder, path, flags, mode))
CALL(ssize_t, read, -1, (int fd, void* to, size_t size), fault_at("reading", fd), (fd, to, LIMITED))
CALL(ssize_t, pread, -1, (int fd, void* to, size_t size, off_t at), fault_at("reading", fd), (fd, to, LIMITED, at))
CALL(ssize_t, write, -1, (int fd, const void* from, size_t size), fault_at("writing", fd), (fd, from, LIMITED))
CALL(ssize_t, pwrite, -1, (int fd, const void* from, size_t size, off_t at), fault_at("writing", fd),
     (fd, from, LIMITED, at))
static const char* lock_effect(bool is_unlock) {
  return is_unlock ? "unlocking" : "locking";
}
CALL(int, lockf, -1, (int fd, int request, off_t size), fault_at(lock_effect(request == F_ULOCK), fd),
     (fd, request, size))
static int fcntl_fault(int fd, int request, void* more) {
  const bool is_lock = request == F_SETLK || request == F_SETLKW || request == F_OFD_SETLK || request == F_OFD_SETLKW;
  return is_lock ? fault_at(lock_effect(static_cast<struct flock*>(more)->l_type == F_UNLCK), fd) : 0;
}
CALL(int, fcntl, -1, (int fd, int request, void* more), fcntl_fault(fd, request, more), (fd, request, more))
CALL(int, socket, -1, (int domain, int type, int protocol), fault_at("asking", "-"), (domain, type, protocol))
CALL(int, ioctl, -1, (int fd, unsigned long request, void* more), fault_at("asking", "-"), (fd, request, more))
CALL(void*, opendir, nullptr, (const char* path), fault_at("listing", path), (path))
CALL(void*, malloc, nullptr, (size_t size), memory_fault(CALLER), (size))
CALL(void*, calloc, nullptr, (size_t count, size_t size), memory_fault(CALLER), (count, size))
CALL(void*, realloc, nullptr, (void* memory, size_t size), memory_fault(CALLER), (memory, size))
