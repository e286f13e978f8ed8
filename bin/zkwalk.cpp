/* zkwalk.cpp - reads an Error Stack under its lock, from the oldest record to the newest. */
#include "zkwalk.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "zk_msg.h"
#include "zk_trace.h"

/* Reads up to `size` bytes until they are there, the file ends or an error comes; returns how many, -1 when
 * an error comes before `size`. */
static ssize_t read_whole(int fildes, void* bytes, size_t size) {
  size_t taken = 0;
  while (taken < size) {
    ssize_t count = read(fildes, static_cast<char*>(bytes) + taken, size - taken);
    if (count == 0) break;
    if (count < 0 && errno != EINTR) return -1;
    if (count > 0) taken += static_cast<size_t>(count);
  }
  return static_cast<ssize_t>(taken);
}

static bool is_in_range(int32_t offset) {
  /* An offset below zero passes: the lower bound is taken unsigned. */
  return offset <= ZK_STACK_SIZE_MAX && static_cast<uint32_t>(offset) >= ZK_STACK_RECORDS_MIN;
}

/* Moves the window over the walk's position. Bytes that an error keeps away are missed when a record needs
 * them. */
static bool fill_window(zk_walk* walk) {
  bool is_first = walk->window_size == 0 && !walk->window_at_end;
  off_t start = is_first && walk->position < static_cast<off_t>(walk->window.size()) ? 0 : walk->position;
  size_t taken = 0;
  bool at_end = false;
  while (taken < walk->window.size()) {
    ssize_t count = pread(walk->fildes, walk->window.data() + taken, walk->window.size() - taken,
                          start + static_cast<off_t>(taken));
    at_end = count == 0;
    if (at_end || (count < 0 && errno != EINTR)) break;
    if (count > 0) taken += static_cast<size_t>(count);
  }
  if (taken == 0) return false;
  walk->window_start = start;
  walk->window_size = taken;
  walk->window_at_end = at_end;
  return true;
}

/* Takes up to `size` bytes at the walk's position and moves it on; returns how many there were. */
static size_t take_bytes(zk_walk* walk, void* bytes, size_t size) {
  size_t taken = 0;
  while (taken < size) {
    off_t window_end = walk->window_start + static_cast<off_t>(walk->window_size);
    if (walk->position < walk->window_start || walk->position >= window_end) {
      if (walk->window_at_end && walk->position >= window_end) break;
      if (!fill_window(walk)) break;
      continue;
    }
    size_t count = std::min(size - taken, static_cast<size_t>(window_end - walk->position));
    std::memcpy(static_cast<char*>(bytes) + taken, walk->window.data() + (walk->position - walk->window_start), count);
    taken += count;
    walk->position += static_cast<off_t>(count);
  }
  return taken;
}

/* Trace of a failed file operation at a position; seeks of the walk's own use the same text. */
static constexpr char SEEK_FAILED[] = "Cannot lseek to position %d in stack - error code %d\nReturning %s(%d)\n";
static constexpr char READ_FAILED[] = "Cannot read from position %d in stack - error code %d\nReturning %s(%d)\n";

int zk_open_stack_path(int debug_active, const char* debug_file, const char* routine, const char* name,
                       std::array<char, ZELK_PATH_SIZE>& path, int* fildes) {
  static constexpr zk_errno_result OPEN_RESULTS[] = {{ENOENT, ZELK_FILE_MISSING},
                                                     {EACCES, ZELK_NO_ACCESS},
                                                     {ENOTDIR, ZELK_NO_ACCESS},
                                                     {ENFILE, ZELK_TOO_MANY},
                                                     {EMFILE, ZELK_TOO_MANY}};
  constexpr int RELATIVE_PATH_MAX = 4095;
  constexpr char PREFIX[] = ZELK_STACK_DIR "/";
  if (*name == '/')
    std::snprintf(path.data(), path.size(), "%s", name);
  else
    std::snprintf(path.data(), path.size(), "%s%.*s", PREFIX, RELATIVE_PATH_MAX - static_cast<int>(sizeof PREFIX - 1),
                  name);

  ZK_TRACE_AS(routine, "Attempting to open ZELK Error Stack file %s", path.data());
  int opened = open(path.data(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0);
  if (opened == -1) {
    int error = errno;
    ZK_TRACE_AS(routine, "Unable to open ZELK Error Stack file %s - error code is %d", path.data(), error);
    return zk_result_of_errno(error, OPEN_RESULTS);
  }
  *fildes = opened;
  return ZELK_SUCCESS;
}

int zk_read_header(int debug_active, const char* debug_file, int fildes, int* stack_version,
                   zk_estack_v1_header_t* hbuf) {
  int32_t version = 0;
  zk_estack_v1_header_t header = {};

  if (fildes == -1) ZK_RETURN(ZELK_INV_PARAM3, "fildes value %d seems invalid\nReturning %s(%d)", fildes);
  if (hbuf == nullptr) ZK_RETURN(ZELK_INV_PARAM4, "hbuf ptr value seems invalid\nReturning %s(%d)");

  if (lseek(fildes, 0, SEEK_SET) == -1) ZK_RETURN(ZELK_FILE_CORRUPT, SEEK_FAILED, 0, errno);
  if (read_whole(fildes, &version, sizeof version) == -1) ZK_RETURN(ZELK_FILE_CORRUPT, READ_FAILED, 0, errno);
  if (read_whole(fildes, &header, sizeof header) == -1)
    ZK_RETURN(ZELK_FILE_CORRUPT, READ_FAILED, static_cast<int>(ZK_STACK_HEADER_POS), errno);

  if (!zk_is_known_version(version))
    ZK_RETURN(ZELK_FILE_CORRUPT,
              "Version code from record (0x%x) is not supported\nAssuming file is corrupted\nReturning %s(%d)\n",
              static_cast<unsigned int>(version));
  if (version == 0) {
    /* The lower bound named for the offsets is that of the file size; the one that counts is below it. */
    constexpr int LOW = ZK_STACK_SIZE_MIN;
    constexpr int HIGH = ZK_STACK_SIZE_MAX;
    if (header.file_size < LOW || header.file_size > HIGH)
      ZK_RETURN(ZELK_FILE_CORRUPT,
                "File size %d is beyond accpetable range of %d and %d\nAssuming file is corrupted\n"
                "Returning %s(%d)\n",
                header.file_size, LOW, HIGH);
    if (!is_in_range(header.write_pos))
      ZK_RETURN(ZELK_FILE_CORRUPT,
                "Current recording position %d is beyond accpetable range of %d and %d\n"
                "Assuming file is corrupted\nReturning %s(%d)\n",
                header.write_pos, LOW, HIGH);
    if (!is_in_range(header.earliest_rec))
      ZK_RETURN(ZELK_FILE_CORRUPT,
                "Earliest record location %d is beyond accpetable range of %d and %d\n"
                "Assuming file is corrupted\nReturning %s(%d)\n",
                header.earliest_rec, LOW, HIGH);
    if (!is_in_range(header.records_start))
      ZK_RETURN(ZELK_FILE_CORRUPT,
                "Initial record offset %d is beyond accpetable range of %d and %d\n"
                "Assuming file is corrupted\nReturning %s(%d)\n",
                header.records_start, LOW, HIGH);
    if (header.has_wrapped > 1)
      ZK_RETURN(ZELK_FILE_CORRUPT,
                "File wrap indicator 0x%x is not one of 0x%x or 0x%x\nAssuming file is corrupted\n"
                "Returning %s(%d)\n",
                static_cast<unsigned int>(header.has_wrapped), 1U, 0U);
  }

  if (lseek(fildes, header.earliest_rec, SEEK_SET) == -1)
    ZK_RETURN(ZELK_FILE_CORRUPT, SEEK_FAILED, header.earliest_rec, errno);
  ZK_TRACE("Positioning file pointer to offset %d", header.earliest_rec);
  *hbuf = header;
  *stack_version = version;
  return ZELK_SUCCESS;
}

int zk_walk_begin(zk_walk* walk) {
  int debug_active = walk->debug_active;
  const char* debug_file = walk->debug_file;

  /* Locks reach from the position they are taken at. */
  bool at_start = lseek(walk->fildes, 0, SEEK_SET) == 0;
  if (lockf(walk->fildes, F_LOCK, 0) == -1) {
    ZK_RETURN_AS(walk->routine, ZELK_LOCK, "Failure to lock stack - error code %d\nReturning %s(%d)", errno);
  }
  int result = zk_read_header(debug_active, debug_file, walk->fildes, &walk->stack_version, &walk->header);
  if (result == ZELK_SUCCESS && !at_start) result = ZELK_FILE_CORRUPT;
  walk->may_wrap = walk->header.has_wrapped == 1;
  walk->position = walk->header.earliest_rec;
  return result;
}

int zk_walk_next(zk_walk* walk) {
  int debug_active = walk->debug_active;
  const char* debug_file = walk->debug_file;

  int32_t length = 0;
  /* A length word that cannot be had whole ends the lap, as a length of 0 does. */
  while (take_bytes(walk, &length, sizeof length) < sizeof length || length == 0) {
    if (!walk->may_wrap) {
      ZK_TRACE_AS(walk->routine, "Saw zero-length ZELK Error Stack entry");
      return ZK_WALK_END;
    }
    ZK_TRACE_AS(walk->routine, "Wrapping back to start of Error Stack");
    walk->may_wrap = false;
    walk->position = lseek(walk->fildes, walk->header.records_start, SEEK_SET);
    if (walk->position == -1) {
      ZK_RETURN_AS(walk->routine, ZELK_FILE_CORRUPT, SEEK_FAILED, walk->header.records_start, errno);
    }
  }

  walk->record.fill('\0');
  std::memcpy(walk->record.data(), &length, sizeof length);
  size_t size = static_cast<size_t>(length);
  if (length < 0 || length > ZK_REC_BODY_MAX ||
      take_bytes(walk, walk->record.data() + ZK_REC_LENGTH_SIZE, size) < size) {
    zk_print_message(stdout, walk->catfd, ZK_MSG_REC_CORRUPT);
    return ZELK_FILE_CORRUPT;
  }
  return ZELK_SUCCESS;
}

bool zk_walk_at_write_pos(zk_walk* walk) {
  int debug_active = walk->debug_active;
  const char* debug_file = walk->debug_file;

  if (walk->position != walk->header.write_pos) return false;
  ZK_TRACE_AS(walk->routine, "Read up to current write position.");
  return true;
}

void zk_walk_end(zk_walk* walk) {
  if (lseek(walk->fildes, 0, SEEK_SET) == 0) {
    static_cast<void>(lockf(walk->fildes, F_ULOCK, 0)); /* it goes with the descriptor at the latest */
  } else {
    struct flock whole = {};
    whole.l_type = F_UNLCK;
    whole.l_whence = SEEK_SET;
    fcntl(walk->fildes, F_SETLK, &whole);
  }
}
