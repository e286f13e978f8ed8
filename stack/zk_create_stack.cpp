/* SPDX-License-Identifier: MIT */
/* zk_create_stack.cpp - makes an empty Error Stack, which appears under its name whole or not at all. */
#include <libgen.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "qx_record.h"
#include "zk_io.h"
#include "zk_layout.h"
#include "zk_stack_file.h"

static constexpr mode_t PERMISSIONS = 0660; /* less the umask; who may read a stack can hold up its writers */

/* A file that has no name yet, or one that nobody looks for. */
struct unnamed_file_t {
  int fildes;
  zk_stack_path_t path; /* by which it can be linked */
  bool is_named;        /* the path is a name in its directory, which has to go */
};

/* Makes such a file in `directory`. Returns 0, or the errno. */
static int make_unnamed(const char* directory, unnamed_file_t* file) {
  file->fildes = open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, PERMISSIONS);
  if (file->fildes != -1) {
    std::snprintf(file->path.data(), file->path.size(), "/proc/self/fd/%d", file->fildes);
    if (access(file->path.data(), F_OK) == 0) return 0;
    close(file->fildes);
    file->fildes = -1; /* for whoever cleans up after a failure below */
  } else if (errno != EOPNOTSUPP && errno != EISDIR && errno != EINVAL) {
    return errno;
  }

  /* The file system or the node does not have such files. The name is new, also among nodes that share the directory. */
  uint64_t number;
  if (getentropy(&number, sizeof number) != 0) return errno;
  int length =
      std::snprintf(file->path.data(), file->path.size(), "%s/%s%016" PRIx64, directory, ZK_STACK_IN_MAKING, number);
  if (length < 0 || static_cast<size_t>(length) >= file->path.size()) return ENAMETOOLONG;
  file->fildes = open(file->path.data(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, PERMISSIONS);
  file->is_named = file->fildes != -1;
  return file->is_named ? 0 : errno;
}

/* Writes a stack without records: its header, and zeros for all its space. */
static bool write_empty_stack(int fildes, int32_t size) {
  std::array<char, ZK_STACK_SIZE_MAX> bytes = {}; /* version code 0 */
  const zk_estack_v1_header_t header = {.records_start = ZK_STACK_RECORDS_MIN,
                                        .write_pos = ZK_STACK_RECORDS_MIN,
                                        .earliest_rec = ZK_STACK_RECORDS_MIN,
                                        .file_size = size,
                                        .has_wrapped = 0};
  std::memcpy(bytes.data() + ZK_STACK_HEADER_POS, &header, sizeof header);
  return zk_write(fildes, bytes.data(), static_cast<size_t>(size));
}

int zk_create_stack(int debug_active, const char* debug_file, const char* stack_file, int32_t size) {
  static constexpr zk_errno_result_t RESULTS[] = {
      {EEXIST, ZELK_FILE_EXIST},    {ENOENT, ZELK_DIR_MISSING}, {ENOTDIR, ZELK_DIR_MISSING},
      {EROFS, ZELK_READ_ONLY},      {ENOSPC, ZELK_NO_SPACE},    {EDQUOT, ZELK_TOO_MANY},
      {EACCES, ZELK_DIR_NO_ACCESS}, {ENFILE, ZELK_TOO_MANY},    {EMFILE, ZELK_TOO_MANY}};
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (stack_file == nullptr || *stack_file == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, "Called without a name for the stack\nReturning %s(%d) to caller");
  if (size < ZK_STACK_SIZE_MIN || size > ZK_STACK_SIZE_MAX)
    return zk_failed(trace, ZELK_INV_PARAM4, "Stack size %d is not within %d and %d\nReturning %s(%d) to caller", size,
                     int{ZK_STACK_SIZE_MIN}, int{ZK_STACK_SIZE_MAX});

  const zk_stack_path_t path = zk_stack_path(stack_file);
  struct stat status;
  int error = lstat(path.data(), &status) == 0 ? EEXIST : 0; /* told before anything is made; linking decides */
  unnamed_file_t file = {.fildes = -1, .path = {}, .is_named = false};
  if (error == 0) {
    zk_stack_path_t directory = path;
    error = make_unnamed(dirname(directory.data()), &file);
  }
  if (error == 0 && !write_empty_stack(file.fildes, size)) error = errno;
  if (error == 0 && linkat(AT_FDCWD, file.path.data(), AT_FDCWD, path.data(), AT_SYMLINK_FOLLOW) != 0) error = errno;
  if (file.is_named) unlink(file.path.data());
  if (file.fildes != -1) close(file.fildes);
  if (error != 0)
    return zk_failed(trace, zk_result_of_errno(error, RESULTS),
                     "Cannot create stack %s - error code %d\nReturning %s(%d) to caller", path.data(), error);
  return zk_succeeded(trace, "Stack %s of %d bytes created\nReturning %s(%d) to caller", path.data(), size);
}
