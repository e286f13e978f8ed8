/* SPDX-License-Identifier: MIT */
/* zk_debug.cpp - the debug trace file. */
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/uio.h>

#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "zk_io.h"
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

int zk_is_debug_file_set(char* trace_filename) {
  static constexpr zk_errno_result_t STAT_RESULTS[] = {
      {ENOENT, ZELK_TRACE_MISSING}, {EOVERFLOW, ZELK_TRACE_EXISTS}, {ENAMETOOLONG, ZELK_NAME_TOO_LONG},
      {EACCES, ZELK_DIR_NO_ACCESS}, {ELOOP, ZELK_LINK_LOOP},        {ESTALE, ZELK_STALE},
      {ENOTDIR, ZELK_DIR_MISSING}};
  if (trace_filename == nullptr) return ZELK_INV_PARAM1;
  const char* value = secure_getenv("ZELKDEBUG");
  if (value == nullptr) return ZELK_TRACE_UNSET;

  struct stat status;
  const bool is_there = stat(value, &status) == 0;
  if (is_there && S_ISDIR(status.st_mode)) return ZELK_IS_A_DIR;
  const int result = is_there ? int{ZELK_TRACE_EXISTS} : zk_result_of_errno(errno, STAT_RESULTS);
  if (result > 0) std::snprintf(trace_filename, ZELK_PATH_SIZE, "%s", value);
  return result;
}

int zk_create_debug_file(const char* debug_file) {
  return zk_allocate_file(0, nullptr, debug_file, ZK_TRACE_FILE_SIZE, ZK_TRACE_FILE_SIZE_MIN, nullptr);
}

/* ---- Turns ------------------------------------------------------------------------------------------------- *
 * A record lock belongs to the process and goes with the first descriptor of the file that is closed, so the threads
 * of a process take turns. The time is rendered within a turn too: the C library has a lock of its own for the time
 * zone, and a child forked at that moment would find it taken for ever.
 * A turn is taken and kept with the thread's signals blocked: a handler that forks would wait for its own thread's turn
 * to end. It is waited for with the thread's own mask, and nothing is held then: a handler may fork, and what ends the
 * program ends it. No lock of the threads library can be had so, since it is taken within the call that waits. */
enum { FREE, TAKEN, WAITED_FOR };
static std::atomic<int> turn = FREE;

static void begin_turn(sigset_t* signals) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, signals);
  int seen = FREE;
  if (turn.compare_exchange_strong(seen, TAKEN)) return;
  while (turn.exchange(WAITED_FOR) != FREE) {
    pthread_sigmask(SIG_SETMASK, signals, nullptr);
    syscall(SYS_futex, &turn, FUTEX_WAIT_PRIVATE, int{WAITED_FOR}, nullptr, nullptr, 0);
    pthread_sigmask(SIG_SETMASK, &all, nullptr);
  }
}

static void end_turn(const sigset_t& signals) {
  if (turn.exchange(FREE) == WAITED_FOR) syscall(SYS_futex, &turn, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);
  pthread_sigmask(SIG_SETMASK, &signals, nullptr);
}

/* What a thread that traces waits for with its signals open. A handler that forks while it waits for the file's lock
 * leaves the turn alone, which is the thread's. In the child the entry is given up: it is the parent's, and the
 * descriptor's position is shared with it. */
enum { NOTHING, ITS_TURN, THE_LOCK };
static thread_local volatile sig_atomic_t waits_for = NOTHING;
static thread_local volatile sig_atomic_t is_given_up = 0;

/* A thread that forks takes a turn for it: the child would find the turn taken by a thread that it does not have. Within
 * that turn the fork handlers of others are run, which may trace. */
static sigset_t forking_signals; /* of the thread whose turn it is */
static thread_local bool is_forking = false;

static void before_fork() {
  if (waits_for == THE_LOCK) return;
  sigset_t signals;
  begin_turn(&signals);
  forking_signals = signals;
  is_forking = true;
}

static void after_fork_in_parent() {
  if (waits_for == THE_LOCK) return;
  const sigset_t signals = forking_signals;
  is_forking = false;
  end_turn(signals);
}

static void after_fork_in_child() {
  is_given_up = 1;
  after_fork_in_parent();
}

__attribute__((constructor)) static void register_fork_handlers() {
  pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

/* Locks the whole file, however long that takes. It waits with the thread's own mask, `signals`: a signal may end the
 * wait, or the program. */
static bool lock_file(int fildes, const sigset_t& signals) {
  if (lseek(fildes, 0, SEEK_SET) != 0) return false;
  if (lockf(fildes, F_TLOCK, 0) == 0) return true;
  if (errno != EACCES && errno != EAGAIN) return false;

  sigset_t all;
  waits_for = THE_LOCK;
  pthread_sigmask(SIG_SETMASK, &signals, &all);
  const bool is_locked = lockf(fildes, F_LOCK, 0) == 0;
  pthread_sigmask(SIG_SETMASK, &all, nullptr);
  waits_for = NOTHING;
  return is_locked;
}

/* ---- Entries ----------------------------------------------------------------------------------------------- */

/* The text of a time as ctime_r has it, to be called within a turn. It is kept for as long as it is the same time of the
 * same day, whatever the zone: printing it costs a third of a write, asking the zone a twentieth. */
static const char* render_time(time_t seconds) {
  static std::array<char, 32> text;
  static struct tm kept = {};
  struct tm local = {};
  localtime_r(&seconds, &local);
  const auto shown = [](const struct tm& time) {
    return std::array{time.tm_sec, time.tm_min, time.tm_hour, time.tm_mday, time.tm_mon, time.tm_year, time.tm_wday};
  };
  if (text[0] == '\0' || shown(local) != shown(kept)) {
    asctime_r(&local, text.data());
    kept = local;
  }
  return text.data();
}

/* Prints an entry with the folded message `lines`; what does not fit is cut off. */
static void format_entry(std::array<char, ENTRY_SIZE>* entry, const char* interface_name, const char* lines) {
  struct timeval now = {};
  gettimeofday(&now, nullptr);
  const int thread_id = static_cast<int>(static_cast<uint32_t>(pthread_self()));
  std::snprintf(entry->data(), entry->size(), "%c%s\tZELK Routine: %s\n\tCalled by PID %d Thread %d\n%s", ENTRY_START,
                render_time(now.tv_sec), interface_name, static_cast<int>(getpid()), thread_id, lines);
}

/* Writes an entry into the trace file, under its lock. */
static int append_entry(const char* trace_filename, const char* interface_name, const char* lines) {
  static constexpr zk_errno_result_t OPEN_RESULTS[] = {
      {ENOENT, ZELK_FILE_MISSING}, {EACCES, ZELK_NO_ACCESS},    {ENFILE, ZELK_TOO_MANY}, {EMFILE, ZELK_TOO_MANY},
      {EROFS, ZELK_READ_ONLY},     {ENOTDIR, ZELK_DIR_MISSING}, {ELOOP, ZELK_LINK_LOOP}};
  /* From here on there is a descriptor that a handler's child would share. */
  is_given_up = 0;
  waits_for = ITS_TURN;
  const int fildes = zk_retry([&] { return zk_open_regular(trace_filename, O_RDWR); });
  if (fildes == -1) {
    waits_for = NOTHING;
    return zk_result_of_errno(errno, OPEN_RESULTS);
  }

  const bool has_turn = is_forking;
  sigset_t signals;
  if (has_turn)
    signals = forking_signals;
  else
    begin_turn(&signals);
  waits_for = NOTHING;
  std::array<char, ENTRY_SIZE> entry;
  format_entry(&entry, interface_name, lines);
  int result = ZELK_LOCK;
  if (is_given_up == 0 && lock_file(fildes, signals)) {
    if (is_given_up == 0) result = zk_record_debug_info(fildes, entry.data());
    if (lockf(fildes, F_ULOCK, 0) != 0) result = ZELK_UNLOCK;
  }
  close(fildes);
  if (!has_turn) end_turn(signals);
  return result;
}

int zk_debug(const char* trace_filename, const char* interface_name, const char* debug_info_fmt, ...) {
  if (trace_filename == nullptr) return ZELK_INV_PARAM1;
  if (interface_name == nullptr) return ZELK_INV_PARAM2;
  if (debug_info_fmt == nullptr) return ZELK_INV_PARAM3;
  if (waits_for != NOTHING) return ZELK_LOCK; /* a signal handler: its own thread is at it */
  const int caller_errno = errno;
  int cancel_state = PTHREAD_CANCEL_ENABLE;
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);

  std::array<char, FOLDED_SIZE> lines;
  lines[0] = '\0';
  va_list varargs;
  va_start(varargs, debug_info_fmt);
  zk_format_debug_info(lines.data(), debug_info_fmt, varargs);
  va_end(varargs);
  const int result = append_entry(trace_filename, interface_name, lines.data());

  pthread_setcancelstate(cancel_state, nullptr);
  errno = caller_errno;
  return result;
}

int zk_format_debug_info(char* output_buffer, const char* debug_info_fmt, va_list varargs) {
  if (output_buffer == nullptr) return ZELK_INV_PARAM1;
  if (debug_info_fmt == nullptr) return ZELK_INV_PARAM2;

  std::array<char, MESSAGE_SIZE> message;
  message[0] = '\0';
  std::vsnprintf(message.data(), message.size() - 1, debug_info_fmt, varargs);

  char* end = output_buffer + std::strlen(output_buffer);
  for (const char* text = message.data(); *text != '\0';) {
    size_t width = strnlen(text, LINE_WIDTH);
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
static bool recycle_file(int fildes, off_t next_write, off_t file_size) {
  if (lseek(fildes, next_write, SEEK_SET) < 0) return false;
  /* A marker that cannot be written is no reason to stop: the zeros behind it and the entry decide. */
  [[maybe_unused]] const ssize_t written = write(fildes, RECYCLE_MARKER, RECYCLE_MARKER_SIZE);
  const off_t rest = file_size - next_write - ENTRY_RESERVE;
  return rest <= 0 || fclear(fildes, rest) == rest;
}

/* Writes the entry and, behind it, the end marker. */
static bool write_entry(int fildes, const char* entry, size_t length, off_t offset) {
  const std::array<struct iovec, 2> pieces = {
      {{const_cast<char*>(entry), length}, {const_cast<char*>(END_MARKER), END_MARKER_SIZE}}};
  return pwritev(fildes, pieces.data(), pieces.size(), offset) == static_cast<ssize_t>(length + END_MARKER_SIZE);
}

int zk_record_debug_info(int fildes, const char* output_buffer) {
  if (fildes < 0) return ZELK_INV_PARAM1;
  if (output_buffer == nullptr) return ZELK_INV_PARAM2;

  zk_control_line_t line = {};
  off_t next_write = 0;
  off_t file_size = 0;
  int wraps = 0;
  if (read(fildes, line.data(), ZK_TRACE_CONTROL_SIZE) != ZK_TRACE_CONTROL_SIZE) return ZELK_FILE_CORRUPT;
  if (zk_get_file_ctrl_info(line.data(), &next_write, &file_size, &wraps) != ZELK_SUCCESS) return ZELK_FILE_CORRUPT;
  if (next_write < ZK_TRACE_CONTROL_SIZE) return ZELK_FILE_CORRUPT; /* the entry would overwrite the line */

  const size_t length = std::strlen(output_buffer);
  if (file_size <= next_write + static_cast<off_t>(length) + ENTRY_RESERVE) {
    if (!recycle_file(fildes, next_write, file_size)) return ZELK_FILE_CORRUPT;
    next_write = ZK_TRACE_CONTROL_SIZE;
    ++wraps;
  }
  if (!write_entry(fildes, output_buffer, length, next_write)) return ZELK_FILE_CORRUPT;
  next_write += static_cast<off_t>(length);
  if (wraps != 0 &&
      (lseek(fildes, next_write + END_MARKER_SIZE, SEEK_SET) < 0 || zk_clear_record_remnant(fildes) != ZELK_SUCCESS))
    return ZELK_FILE_CORRUPT;

  const int line_length = zk_format_control_line(&line, next_write, wraps, file_size);
  if (pwrite(fildes, line.data(), ZK_TRACE_CONTROL_SIZE, 0) != line_length) return ZELK_FILE_CORRUPT;
  return lseek(fildes, 0, SEEK_SET) == 0 ? ZELK_SUCCESS : ZELK_FILE_CORRUPT;
}

/* The number behind the first "=" of `text`, which the next field may follow without a blank. */
static int control_number(const char* text) {
  std::array<char, ZK_TRACE_NUMBER_WIDTH + 1> digits = {};
  const char* number = std::strchr(text, '=') + 1;
  std::memcpy(digits.data(), number, strnlen(number, ZK_TRACE_NUMBER_WIDTH));
  return std::atoi(digits.data());
}

int zk_get_file_ctrl_info(const char* buf, off_t* record_pos, off_t* end_pos, int* wrapped) {
  if (buf == nullptr) return ZELK_INV_PARAM1;
  if (record_pos == nullptr) return ZELK_INV_PARAM2;
  if (end_pos == nullptr) return ZELK_INV_PARAM3;
  if (wrapped == nullptr) return ZELK_INV_PARAM4;

  if (std::strstr(buf, ZK_TRACE_OFFSET_KEY) == nullptr) return ZELK_FILE_CORRUPT;
  *record_pos = control_number(buf); /* not from its key on: the same place in a well-formed line */
  const char* wraps = std::strstr(buf, ZK_TRACE_WRAPS_KEY);
  if (wraps == nullptr) return ZELK_FILE_CORRUPT;
  *wrapped = control_number(wraps);
  const char* size = std::strstr(buf, ZK_TRACE_SIZE_KEY);
  if (size == nullptr) return ZELK_FILE_CORRUPT;
  *end_pos = control_number(size);
  return ZELK_SUCCESS;
}

int zk_clear_record_remnant(int fildes) {
  if (fildes < 0) return ZELK_INV_PARAM1;

  const off_t remnant = lseek(fildes, 0, SEEK_CUR);
  if (remnant < 0) return ZELK_FILE_CORRUPT;
  std::array<char, LOOK_AHEAD> ahead;
  const ssize_t count = read(fildes, ahead.data(), ahead.size());
  if (count < 0) return ZELK_FILE_CORRUPT;
  const size_t length = strnlen(ahead.data(), static_cast<size_t>(count));
  const void* entry = std::memchr(ahead.data(), ENTRY_START, length);
  if (entry == nullptr) return ZELK_SUCCESS;

  if (lseek(fildes, remnant, SEEK_SET) < 0) return ZELK_FILE_CORRUPT;
  return fclear(fildes, static_cast<const char*>(entry) - ahead.data()) < 0 ? ZELK_FILE_CORRUPT : ZELK_SUCCESS;
}
