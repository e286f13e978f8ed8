/* zk_debug.cpp - the debug trace file. */
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "qx_zelk.h"
#include "zk_trace.h"
#include "zk_trace_file.h"

static constexpr char ENTRY_START = '\x01';
static constexpr char END_MARKER[] = "[END OF FINAL ENTRY]\n";
static constexpr char RECYCLE_MARKER[] = "[FILE RECYCLES HERE]\n";

enum {
  ENTRY_SIZE = 1024,
  MESSAGE_SIZE = 256,
  LINE_WIDTH = 72,
  FOLDED_SIZE = 2 * MESSAGE_SIZE,             /* a message of newlines alone doubles */
  LOOK_AHEAD = 1024,                          /* how far the remains of an older entry are looked through */
  END_MARKER_SIZE = sizeof END_MARKER - 1,    /* without its NUL */
  RECYCLE_MARKER_SIZE = sizeof RECYCLE_MARKER /* with it, so that a text search ends there */
};

/* Bytes kept free behind an entry: the recycle marker must fit in the place of the end marker. */
static constexpr off_t ENTRY_RESERVE = RECYCLE_MARKER_SIZE + 1;

/* A record lock belongs to the process and goes with the first descriptor that is closed, so the threads of a
 * process take turns. They render the time in their turn too: the C library has a lock of its own for the
 * time zone, which a child forked at that moment would find taken for ever. */
static pthread_mutex_t trace_mutex = PTHREAD_MUTEX_INITIALIZER;
static pthread_once_t fork_handlers_once = PTHREAD_ONCE_INIT;

static void lock_trace() {
  pthread_mutex_lock(&trace_mutex);
}

static void unlock_trace() {
  pthread_mutex_unlock(&trace_mutex);
}

/* A child forked while another thread is tracing would find the mutex taken by a thread that it does not
 * have. */
static void register_fork_handlers() {
  pthread_atfork(lock_trace, unlock_trace, unlock_trace);
}

static bool write_whole(int fildes, const char* text, size_t length) {
  return write(fildes, text, length) == static_cast<ssize_t>(length);
}

int zk_is_debug_file_set(char* trace_filename) {
  static constexpr zk_errno_result STAT_RESULTS[] = {{ENAMETOOLONG, ZELK_NAME_TOO_LONG},
                                                     {EACCES, ZELK_DIR_NO_ACCESS},
                                                     {ELOOP, ZELK_LINK_LOOP},
                                                     {ESTALE, ZELK_STALE},
                                                     {ENOTDIR, ZELK_DIR_MISSING}};
  if (trace_filename == nullptr) return ZELK_INV_PARAM1;
  const char* value = std::getenv("ZELKDEBUG");
  if (value == nullptr) return ZELK_TRACE_UNSET;

  int result = ZELK_TRACE_EXISTS;
  struct stat status;
  if (stat(value, &status) == 0) {
    if (S_ISDIR(status.st_mode)) return ZELK_IS_A_DIR;
  } else if (errno == ENOENT) {
    result = ZELK_TRACE_MISSING;
  } else if (errno != EOVERFLOW) {
    return zk_result_of_errno(errno, STAT_RESULTS);
  }
  std::snprintf(trace_filename, ZELK_PATH_SIZE, "%s", value);
  return result;
}

int zk_create_debug_file(const char* debug_file) {
  return zk_allocate_file(0, nullptr, debug_file, ZK_TRACE_FILE_SIZE, ZK_TRACE_FILE_SIZE_MIN, nullptr);
}

/* Prints what stands before the message of an entry and returns its length. */
static size_t format_entry_header(std::array<char, ENTRY_SIZE>* entry, const char* interface_name) {
  std::array<char, 32> time_text = {};
  struct timeval now = {};
  gettimeofday(&now, nullptr);
  ctime_r(&now.tv_sec, time_text.data());
  int thread_id = static_cast<int>(static_cast<uint32_t>(pthread_self()));
  std::snprintf(entry->data(), entry->size(), "%c%s\t%s%s\n\t%s%d %s%d\n", ENTRY_START, time_text.data(),
                "ZELK Routine: ", interface_name, "Called by PID ", static_cast<int>(getpid()), "Thread ", thread_id);
  return std::strlen(entry->data());
}

/* Writes an entry into the trace file, under its lock. */
static int append_entry(const char* trace_filename, const char* entry) {
  static constexpr zk_errno_result OPEN_RESULTS[] = {
      {ENOENT, ZELK_FILE_MISSING}, {EACCES, ZELK_NO_ACCESS},    {ENFILE, ZELK_TOO_MANY}, {EMFILE, ZELK_TOO_MANY},
      {EROFS, ZELK_READ_ONLY},     {ENOTDIR, ZELK_DIR_MISSING}, {ELOOP, ZELK_LINK_LOOP}};
  int fildes = -1;
  do {
    fildes = open(trace_filename, O_RDWR | O_CLOEXEC | O_NOCTTY | O_NONBLOCK); /* it may name a FIFO */
  } while (fildes < 0 && errno == EINTR);
  if (fildes < 0) return zk_result_of_errno(errno, OPEN_RESULTS);

  int result = ZELK_LOCK;
  if (lseek(fildes, 0, SEEK_SET) == 0 && lockf(fildes, F_LOCK, 0) == 0) {
    result = zk_record_debug_info(fildes, entry);
    if (result != ZELK_SUCCESS && result != ZELK_FILE_CORRUPT) result = ZELK_FAILURE;
    if (lockf(fildes, F_ULOCK, 0) != 0) result = ZELK_UNLOCK;
  }
  close(fildes);
  return result;
}

int zk_debug(const char* trace_filename, const char* interface_name, const char* debug_info_fmt, ...) {
  if (trace_filename == nullptr) return ZELK_INV_PARAM1;
  if (interface_name == nullptr) return ZELK_INV_PARAM2;
  if (debug_info_fmt == nullptr) return ZELK_INV_PARAM3;
  const int caller_errno = errno;

  std::array<char, FOLDED_SIZE> message = {};
  va_list varargs;
  va_start(varargs, debug_info_fmt);
  zk_format_debug_info(message.data(), debug_info_fmt, varargs);
  va_end(varargs);

  pthread_once(&fork_handlers_once, register_fork_handlers);
  lock_trace();
  std::array<char, ENTRY_SIZE> entry = {};
  size_t header_length = format_entry_header(&entry, interface_name);
  size_t room = entry.size() - 1 - header_length;
  std::memcpy(entry.data() + header_length, message.data(), std::min(std::strlen(message.data()), room));
  int result = append_entry(trace_filename, entry.data());
  unlock_trace();
  errno = caller_errno;
  return result;
}

int zk_format_debug_info(char* output_buffer, const char* debug_info_fmt, va_list varargs) {
  if (output_buffer == nullptr) return ZELK_INV_PARAM1;
  if (debug_info_fmt == nullptr) return ZELK_INV_PARAM2;

  std::array<char, MESSAGE_SIZE> message = {};
  std::vsnprintf(message.data(), message.size() - 1, debug_info_fmt, varargs);

  char* end = output_buffer + std::strlen(output_buffer);
  for (const char* text = message.data(); *text != '\0';) {
    size_t width = std::min(std::strlen(text), size_t{LINE_WIDTH});
    const void* newline = std::memchr(text, '\n', width + 1);
    if (newline != nullptr) width = static_cast<size_t>(static_cast<const char*>(newline) - text);
    *end++ = '\t';
    std::memcpy(end, text, width);
    end += width;
    *end++ = '\n';
    text += width;
    if (newline != nullptr) ++text;
  }
  *end = '\0';
  return ZELK_SUCCESS;
}

/* Closes the lap at `next_write`: the marker, then zeros up to the end of the file. */
static int recycle_file(int fildes, off_t next_write, off_t file_size) {
  if (lseek(fildes, next_write, SEEK_SET) < 0) return ZELK_FILE_CORRUPT;
  /* A marker that cannot be written is no reason to stop: the zeros behind it and the entry decide. */
  [[maybe_unused]] bool marked = write_whole(fildes, RECYCLE_MARKER, RECYCLE_MARKER_SIZE);
  off_t rest = file_size - next_write - ENTRY_RESERVE;
  if (rest > 0 && fclear(fildes, rest) < 0) return ZELK_FILE_CORRUPT;
  return ZELK_SUCCESS;
}

int zk_record_debug_info(int fildes, const char* output_buffer) {
  if (fildes < 0) return ZELK_INV_PARAM1;
  if (output_buffer == nullptr) return ZELK_INV_PARAM2;

  zk_control_line_t line = {};
  if (read(fildes, line.data(), ZK_TRACE_CONTROL_SIZE) != ZK_TRACE_CONTROL_SIZE) return ZELK_FILE_CORRUPT;
  off_t next_write = 0;
  off_t file_size = 0;
  int wraps = 0;
  int result = zk_get_file_ctrl_info(line.data(), &next_write, &file_size, &wraps);
  if (result == ZELK_FILE_CORRUPT) return result;
  if (result != ZELK_SUCCESS) return ZELK_FAILURE;
  if (next_write < ZK_TRACE_CONTROL_SIZE) return ZELK_FILE_CORRUPT; /* the entry would overwrite the line */

  const size_t length = std::strlen(output_buffer);
  if (file_size <= next_write + static_cast<off_t>(length) + ENTRY_RESERVE) {
    if (recycle_file(fildes, next_write, file_size) != ZELK_SUCCESS) return ZELK_FILE_CORRUPT;
    next_write = ZK_TRACE_CONTROL_SIZE;
    ++wraps;
  }

  if (lseek(fildes, next_write, SEEK_SET) < 0) return ZELK_FILE_CORRUPT;
  if (!write_whole(fildes, output_buffer, length)) return ZELK_FILE_CORRUPT;
  next_write += static_cast<off_t>(length);
  if (!write_whole(fildes, END_MARKER, END_MARKER_SIZE)) return ZELK_FILE_CORRUPT;
  if (wraps != 0) {
    result = zk_clear_record_remnant(fildes);
    if (result == ZELK_FILE_CORRUPT) return result;
    if (result != ZELK_SUCCESS) return ZELK_FAILURE;
  }

  int line_length = zk_format_control_line(&line, next_write, wraps, file_size);
  if (lseek(fildes, 0, SEEK_SET) < 0) return ZELK_FILE_CORRUPT;
  if (write(fildes, line.data(), ZK_TRACE_CONTROL_SIZE) != line_length) return ZELK_FILE_CORRUPT;
  if (lseek(fildes, 0, SEEK_SET) < 0) return ZELK_FILE_CORRUPT;
  return ZELK_SUCCESS;
}

/* The number at `text`, which the next field may follow without a blank. */
static int control_number(const char* text) {
  std::array<char, 16> digits = {};
  std::memcpy(digits.data(), text, strnlen(text, ZK_TRACE_NUMBER_WIDTH));
  return std::atoi(digits.data());
}

int zk_get_file_ctrl_info(const char* buf, off_t* record_pos, off_t* end_pos, int* wrapped) {
  if (buf == nullptr) return ZELK_INV_PARAM1;
  if (record_pos == nullptr) return ZELK_INV_PARAM2;
  if (end_pos == nullptr) return ZELK_INV_PARAM3;
  if (wrapped == nullptr) return ZELK_INV_PARAM4;

  if (std::strstr(buf, ZK_TRACE_OFFSET_KEY) == nullptr) return ZELK_FILE_CORRUPT;
  *record_pos = control_number(std::strchr(buf, '=') + 1);
  const char* wraps = std::strstr(buf, ZK_TRACE_WRAPS_KEY);
  if (wraps == nullptr) return ZELK_FILE_CORRUPT;
  *wrapped = control_number(std::strchr(wraps, '=') + 1);
  const char* size = std::strstr(buf, ZK_TRACE_SIZE_KEY);
  if (size == nullptr) return ZELK_FILE_CORRUPT;
  *end_pos = control_number(std::strchr(size, '=') + 1);
  return ZELK_SUCCESS;
}

int zk_clear_record_remnant(int fildes) {
  if (fildes < 0) return ZELK_INV_PARAM1;

  off_t remnant = lseek(fildes, 0, SEEK_CUR);
  if (remnant < 0) return ZELK_FILE_CORRUPT;
  std::array<char, LOOK_AHEAD> ahead = {};
  ssize_t count = read(fildes, ahead.data(), ahead.size());
  if (count < 0) return ZELK_FILE_CORRUPT;
  size_t length = strnlen(ahead.data(), static_cast<size_t>(count));
  const void* entry = std::memchr(ahead.data(), ENTRY_START, length);
  if (entry == nullptr) return ZELK_SUCCESS;

  if (lseek(fildes, remnant, SEEK_SET) < 0) return ZELK_FILE_CORRUPT;
  if (fclear(fildes, static_cast<const char*>(entry) - ahead.data()) < 0) return ZELK_FILE_CORRUPT;
  return ZELK_SUCCESS;
}
