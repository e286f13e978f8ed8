/* SPDX-License-Identifier: MIT */
/* zk_files.cpp - files whose space is reserved when they are made, within what the file system can spare. */
#include <libgen.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstring>

#include "zk_io.h"
#include "zk_trace.h"
#include "zk_trace_file.h"

static int fail_with(int error) {
  errno = error;
  return -1;
}

off_t fclear(int fildes, off_t offset) {
  off_t end = 0;
  if (fildes < 0) return fail_with(EBADF);
  const off_t position = lseek(fildes, 0, SEEK_CUR);
  if (position < 0) return fail_with(errno == ESPIPE ? EINVAL : errno);
  if (__builtin_add_overflow(position, offset, &end) || end < 0) return fail_with(EFBIG);

  static constexpr std::array<char, 1024> ZEROS = {};
  for (off_t left = offset; left > 0;) {
    const off_t piece = std::min(left, static_cast<off_t>(ZEROS.size()));
    if (!zk_write(fildes, ZEROS.data(), static_cast<size_t>(piece))) return -1;
    left -= piece;
  }
  return offset;
}

/* Part of the blocks of a file system that a reservation leaves available. */
static constexpr double KEPT_AVAILABLE = 0.05;

struct space_figures_t {
  uint64_t block_size; /* bytes */
  uint64_t used;       /* blocks */
  uint64_t limit;      /* most blocks that may be in use */
};

/* Asks for the space of the file system of `path`. Returns -1 with errno set on failure, also for a block size of 0. */
static int query_space(const char* path, space_figures_t* space) {
  struct statvfs figures = {};
  if (statvfs(path, &figures) != 0) return -1;
  if (figures.f_bsize == 0) return fail_with(EINVAL);
  uint64_t blocks = figures.f_blocks;
  uint64_t floor = static_cast<uint64_t>(static_cast<double>(blocks) * KEPT_AVAILABLE);
  *space = {.block_size = figures.f_bsize, .used = blocks - figures.f_bavail, .limit = blocks - floor};
  return 0;
}

/* The largest size that fits of `requested`, 2 blocks less, 4 blocks less and so on; -1 when none does. A size needs its
 * whole blocks and one more, and fits when the blocks in use then stay below the limit. The number of steps is
 * calculated, not tried out: a request may be far larger than the file system. */
static off_t largest_fit(const space_figures_t& space, off_t requested) {
  if (requested < 0) return -1;
  const uint64_t whole = static_cast<uint64_t>(requested) / space.block_size;
  const uint64_t room = space.limit - space.used;
  if (whole + 1 < room) return requested;
  const uint64_t steps = (whole + 2 - room + 1) / 2;
  if (2 * steps > whole) return -1;
  return requested - static_cast<off_t>(2 * steps * space.block_size);
}

int zk_determine_max_fsize(int debug_active, const char* debug_file, const char* filename, off_t requested_size,
                           off_t min_size, off_t* file_size) {
  static constexpr zk_errno_result_t STATVFS_RESULTS[] = {
      {ENOENT, ZELK_DIR_MISSING}, {EACCES, ZELK_DIR_NO_ACCESS}, {ESTALE, ZELK_STALE}};
  if (filename == nullptr) return ZELK_INV_PARAM3;
  if (file_size == nullptr) return ZELK_INV_PARAM4;
  const zk_trace_t trace = {debug_active, debug_file, __func__};

  std::array<char, ZELK_PATH_SIZE> path;
  const size_t size = std::strlen(filename) + 1;
  if (size > path.size()) return ZELK_FAILURE;
  std::memcpy(path.data(), filename, size);
  const char* directory = dirname(path.data());
  space_figures_t space = {};
  if (query_space(directory, &space) != 0)
    return zk_returned(trace, zk_result_of_errno(errno, STATVFS_RESULTS), "statvfs(%s) failed, error code %d\n",
                       directory, errno);
  if (space.used > space.limit)
    return zk_failed(trace, ZELK_NO_SPACE, "5%% space in %s not available, returning %s(%d)\n", directory);

  const off_t fit = largest_fit(space, requested_size);
  if (fit < 0 || (fit != requested_size && fit <= min_size))
    return zk_failed(trace, ZELK_NO_SPACE, "Cannot reserve %lld bytes, returning %s(%d)\n",
                     static_cast<long long>(min_size));
  *file_size = fit;
  return zk_returned(trace, ZELK_SUCCESS, "Requested %lld bytes, able to get %lld bytes\n",
                     static_cast<long long>(requested_size), static_cast<long long>(fit));
}

static constexpr mode_t PERMISSIONS = 0666; /* of a new file, whatever the umask */

/* Locks the new file, fills it and asks for the space that this leaves. */
static int fill_file(const zk_trace_t& trace, const char* filename, int fildes, off_t size, space_figures_t* space) {
  if (lockf(fildes, F_LOCK, 0) != 0)
    return zk_returned(trace, ZELK_LOCK, "Cannot lock file %s - error %d\n", filename, errno);
  if (fchmod(fildes, PERMISSIONS) != 0)
    return zk_returned(trace, ZELK_READ_ONLY, "Cannot force permissions on file %s - error %d\n", filename, errno);
  if (fclear(fildes, size) != size)
    return zk_returned(trace, ZELK_NO_SPACE, "Not enough space for fclear(%s,%lld) - error %d\n", filename,
                       static_cast<long long>(size), errno);

  zk_control_line_t line;
  zk_format_control_line(&line, ZK_TRACE_CONTROL_SIZE, 0, size);
  /* The space is there; to those who trace, a file without its line is a corrupt one. */
  [[maybe_unused]] const ssize_t written = pwrite(fildes, line.data(), ZK_TRACE_CONTROL_SIZE, 0);

  if (query_space(filename, space) != 0)
    return zk_returned(trace, ZELK_FAILURE, "statvfs(%s) failed - error %d\n", filename, errno);
  return ZELK_SUCCESS;
}

int zk_allocate_file(int debug_active, const char* debug_file, const char* filename, off_t requested_size,
                     off_t min_size, off_t* actual_size) {
  static constexpr zk_errno_result_t OPEN_RESULTS[] = {
      {EEXIST, ZELK_SUCCESS},  {ENOSPC, ZELK_NO_SPACE}, {EACCES, ZELK_READ_ONLY}, {EROFS, ZELK_READ_ONLY},
      {ENFILE, ZELK_TOO_MANY}, {EMFILE, ZELK_TOO_MANY}, {EFBIG, ZELK_TOO_MANY},   {EDQUOT, ZELK_TOO_MANY}};
  static constexpr int FLAGS = O_RDWR | O_CREAT | O_EXCL | O_TRUNC;
  static constexpr unsigned int TRACED_PERMISSIONS = 0x9f6; /* what readers of traces know, not what is used */
  if (filename == nullptr) return ZELK_INV_PARAM3;
  const zk_trace_t trace = {debug_active, debug_file, __func__};

  for (;;) {
    off_t size = 0;
    int result = zk_determine_max_fsize(debug_active, debug_file, filename, requested_size, min_size, &size);
    if (result != ZELK_SUCCESS) return result;

    const int fildes = open(filename, FLAGS | O_CLOEXEC, PERMISSIONS);
    if (fildes < 0) {
      zk_trace(trace, "Can't open %s mode 0x%x perm 0x%x- error %d\n", filename, unsigned{FLAGS}, TRACED_PERMISSIONS,
               errno);
      if (errno == EINTR) continue;
      return zk_result_of_errno(errno, OPEN_RESULTS);
    }

    space_figures_t space = {};
    result = fill_file(trace, filename, fildes, size, &space);
    if (result == ZELK_SUCCESS && space.used > space.limit)
      zk_trace(trace, "%s", "Didn't leave 5% space - trying again\n");
    close(fildes); /* and with it the lock */
    if (result == ZELK_SUCCESS && space.used <= space.limit) {
      if (actual_size != nullptr) *actual_size = size;
      return zk_succeeded(trace, "%s reserved (%lld bytes) - returning %s(%d)\n", filename,
                          static_cast<long long>(size));
    }

    unlink(filename);
    if (result != ZELK_SUCCESS) return result;
    /* Two blocks may be more than the whole file. */
    const uint64_t whole_blocks = static_cast<uint64_t>(size) / space.block_size;
    requested_size = whole_blocks < 2 ? 0 : size - static_cast<off_t>(2 * space.block_size);
    if (requested_size <= ZK_TRACE_FILE_SIZE_MIN)
      return zk_returned(trace, ZELK_NO_SPACE, "Minimum space not available\n");
  }
}
