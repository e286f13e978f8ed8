/* SPDX-License-Identifier: MIT */
/* zk_dump.cpp - copies of dump files. */
#include <fcntl.h>
#include <libgen.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "zk_trace.h"

/* Looks up the status of the directory of a path. Returns 0, or -1 with errno set. */
static int stat_directory(const char* file, struct stat* status) {
  std::array<char, ZELK_DUMP_NAME_SIZE> path;
  errno = ENAMETOOLONG;
  if (memccpy(path.data(), file, '\0', path.size()) == nullptr) return -1;
  return stat(dirname(path.data()), status);
}

int zk_test_for_file(int debug_active, const char* debug_file, const char* check_file) {
  static constexpr zk_errno_result_t DIRECTORY_RESULTS[] = {
      {EACCES, ZELK_DIR_NO_ACCESS}, {ENOENT, ZELK_DIR_MISSING}, {ENOTDIR, ZELK_DIR_MISSING}};
  static constexpr zk_errno_result_t FILE_RESULTS[] = {
      {EACCES, ZELK_NO_ACCESS}, {ENOTDIR, ZELK_DIR_MISSING}, {ENOENT, ZELK_FILE_MISSING}};
  if (check_file == nullptr || *check_file == '\0') return ZELK_INV_PARAM1;

  const zk_trace_t trace = {debug_active, debug_file, __func__};
  struct stat status;
  int result = ZELK_SUCCESS;
  if (stat_directory(check_file, &status) != 0)
    result = zk_result_of_errno(errno, DIRECTORY_RESULTS);
  else if (stat(check_file, &status) != 0)
    result = zk_result_of_errno(errno, FILE_RESULTS);
  else if ((status.st_mode & S_IFDIR) != 0) /* one bit of the file type, which block devices and sockets have as well */
    result = ZELK_IS_A_DIR;
  if (result != ZELK_FAILURE) return result;
  return zk_failed(trace, result,
                   "Attemping to check status of file %s\nUnexpected failure on stat() call: %d\nReturning %s(%d)\n",
                   check_file, errno);
}

int zk_test_for_dir(int debug_active, const char* debug_file, const char* check_dir) {
  int result = zk_test_for_file(debug_active, debug_file, check_dir);
  if (result == ZELK_IS_A_DIR) return ZELK_SUCCESS;
  return result == ZELK_SUCCESS ? int{ZELK_NOT_A_DIR} : result;
}

int zk_get_dump_file_name(int debug_active, const char* debug_file, char* dump_file) {
  static constexpr char VARIABLE[] = "ZELKPNAME";
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  const char* command = secure_getenv(VARIABLE);
  /* A "/" would lead the copy out of the directory. */
  if (command == nullptr || *command == '\0' || std::strchr(command, '/') != nullptr)
    return zk_failed(trace, ZELK_INV_ENV,
                     "Cannot obtain command name from envionment value %s\nAssuming corrupted ZELK Environment\n"
                     "Returning %s(%d) to the caller",
                     VARIABLE);

  struct timeval now = {};
  struct tm local = {};
  gettimeofday(&now, nullptr);
  localtime_r(&now.tv_sec, &local);
  const int length = std::snprintf(dump_file, ZELK_DUMP_NAME_SIZE, "%s/%s.%d.%4d%.2d%.2d.%.2d%.2d%.2d", ZELK_DUMP_DIR,
                                   command, static_cast<int>(getpid()), local.tm_year + 1900, local.tm_mon + 1,
                                   local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
  const bool fits = length >= 0 && length < ZELK_DUMP_NAME_SIZE;

  const int result = fits ? zk_test_for_file(debug_active, debug_file, dump_file) : int{ZELK_FAILURE};
  if (result == ZELK_FILE_MISSING) return ZELK_SUCCESS;
  if (result == ZELK_SUCCESS)
    return zk_failed(trace, ZELK_FILE_EXIST,
                     "Dump file \"%s\" already exists, cannot recreated it\nReturning %s(%d) to the caller\n",
                     dump_file);
  return zk_returned(trace, result, "Unexpected failure testing for the file \"%s\"\nRetruning %d to the caller\n",
                     dump_file, result);
}

/* Writes all of `size` bytes, and gives up at the first error, EINTR included. Returns false with errno set. */
static bool write_copy(int fildes, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t count = write(fildes, bytes, size);
    if (count == 0) errno = ENOSPC; /* neither progress nor an error: it would never end */
    if (count <= 0) return false;
    bytes += count;
    size -= static_cast<size_t>(count);
  }
  return true;
}

int zk_copy_file(int debug_active, const char* debug_file, int input_file, int output_file) {
  static constexpr zk_errno_result_t WRITE_RESULTS[] = {
      {ENOSPC, ZELK_NO_SPACE}, {EFBIG, ZELK_NO_SPACE}, {EDQUOT, ZELK_NO_SPACE}};
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  for (unsigned int iteration = 0;; ++iteration) {
    std::array<char, 1024> buffer;
    const ssize_t count = read(input_file, buffer.data(), buffer.size());
    if (count < 0)
      return zk_failed(trace, ZELK_IO_ERROR,
                       "Error reading input from file - Iteration %u - Error Code %d\nReturning %s(%d) to caller\n",
                       iteration, errno);
    if (count == 0) break;
    if (!write_copy(output_file, buffer.data(), static_cast<size_t>(count)))
      return zk_returned(trace, zk_result_of_errno(errno, WRITE_RESULTS),
                         "Error copying data - Iteration %u - Error Code %d\n", iteration, errno);
  }
  close(input_file);
  close(output_file);
  return zk_succeeded(trace, "Successfully copied files\nReturning %s(%d) to caller\n");
}

/* Opens a dump file for reading. Returns the descriptor, or -1 with errno set, also for anything but a regular file: a
 * FIFO or a device may never end. */
static int open_dump(const char* dump_input_file) {
  const int fildes = open(dump_input_file, O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY);
  struct stat status;
  if (fildes < 0 || (fstat(fildes, &status) == 0 && S_ISREG(status.st_mode))) return fildes;
  close(fildes);
  errno = EINVAL;
  return -1;
}

/* Copies `dump_input_file` into the new file `dump_file`, of which nothing is left on failure. */
static int copy_dump(const zk_trace_t& trace, const char* dump_input_file, const char* dump_file) {
  static constexpr zk_errno_result_t OUTPUT_RESULTS[] = {{ENOSPC, ZELK_NO_SPACE},
                                                         {EROFS, ZELK_READ_ONLY},
                                                         {ENFILE, ZELK_TOO_MANY},
                                                         {EMFILE, ZELK_TOO_MANY},
                                                         {EDQUOT, ZELK_TOO_MANY}};
  static constexpr zk_errno_result_t INPUT_RESULTS[] = {
      {ENOSPC, ZELK_NO_SPACE}, {ENFILE, ZELK_TOO_MANY}, {EMFILE, ZELK_TOO_MANY}, {EDQUOT, ZELK_TOO_MANY}};
  int output_file = open(dump_file, O_WRONLY | O_CREAT | O_EXCL | O_APPEND | O_CLOEXEC, 0644);
  if (output_file < 0)
    return zk_returned(trace, zk_result_of_errno(errno, OUTPUT_RESULTS),
                       "Cannot open output file \"%s\"\nError code %d\n", dump_file, errno);

  int result = ZELK_FAILURE;
  int input_file = open_dump(dump_input_file);
  if (input_file < 0) {
    result = zk_returned(trace, zk_result_of_errno(errno, INPUT_RESULTS),
                         "Cannot open input file \"%s\"\nError code %d\n", dump_input_file, errno);
  } else {
    zk_trace(trace, "Copying File \"%s\" to file \"%s\"\n", dump_input_file, dump_file);
    result = zk_copy_file(trace.active, trace.file, input_file, output_file);
    if (result == ZELK_SUCCESS) return result; /* both are closed */
    close(input_file);
  }
  close(output_file);
  unlink(dump_file);
  return result;
}

int zk_make_dump_file_copy(int debug_active, const char* debug_file, const char* dump_input_file,
                           char* dump_output_file) {
  const zk_trace_t trace = {debug_active, debug_file, "zk_copy_dump_file"}; /* the name that its traces have */
  if (dump_input_file == nullptr || *dump_input_file == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3,
                     "Called with invalid dump file input name\nReturning %s(%d) to the caller\n");
  if (dump_output_file == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "Called with invalid pointer for dump output file name\nReturingin %s(%d) to caller\n");

  int result = zk_test_for_file(debug_active, debug_file, dump_input_file);
  if (result != ZELK_SUCCESS)
    return zk_returned(trace, result,
                       "Existence of file \"%s\" cannot be verified\nzk_test_for_file returned %d\n"
                       "Passing same return code to caller\n",
                       dump_input_file, result);

  std::array<char, ZELK_DUMP_NAME_SIZE> dump_file;
  result = zk_test_for_dir(debug_active, debug_file, ZELK_DUMP_DIR);
  if (result != ZELK_SUCCESS)
    zk_trace(trace, "Existence of dump directory \"%s\" cannot be verified\nzk_test_for_dir returned %d\n",
             dump_input_file, result);
  else
    result = zk_get_dump_file_name(debug_active, debug_file, dump_file.data());
  if (result == ZELK_SUCCESS) result = copy_dump(trace, dump_input_file, dump_file.data());
  if (result == ZELK_SUCCESS)
    zk_succeeded(trace, "File \"%s\" successfully copied to \"%s\"\nReturning %s(%d) to the caller\n", dump_input_file,
                 dump_file.data());
  const char* name = result == ZELK_SUCCESS ? dump_file.data() : dump_input_file;
  std::memmove(dump_output_file, name, std::strlen(name) + 1); /* it may be the output buffer's own text */
  return result;
}
