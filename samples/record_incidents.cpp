/* record_incidents.cpp - records incidents in an Error Stack as a recording library does.
 *
 *   record_incidents [-z SIZE] [-n COUNT] [-j PROCESSES] [-p PAUSE_MS] [-F] STACK
 *
 *   -z  size in bytes of a stack that has to be created, 8192 (also without -z) to 16384
 *   -n  after the built-in story record COUNT generated incidents; 0: until it is ended
 *   -j  so many processes at once, each of which records all this
 *   -p  milliseconds between two records
 *   -F  print the Error ID of each record that has one, a line each
 *
 * STACK is created unless it exists; STACK.dump is written beside it. Exit status: 0 all recorded, 1 not so,
 * 2 misuse. A process that is killed leaves a stack that can be read, without the incident it was recording.
 */
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "qx_cu.h"
#include "qx_zelk.h"
#include "zk_layout.h"

static constexpr char PROGRAM[] = "record_incidents";
static constexpr char PRODUCT[] = "stn.node";

enum {
  MISUSE = 2,
  ANY_ACCESS = 0666, /* the umask decides; who reads a stack opens it for writing, to lock it */
  PROCESSES_MAX = 64,
  PAUSE_MAX = 60000, /* milliseconds */
  COUNT_MAX = 1000000000,

  /* A wrap must not use up the lap it starts to overwrite: its newest record begins behind the new one. */
  AREA_MIN = 3 * ZK_REC_SIZE_MAX,

  NO_FACILITY = -1,
  ARGUMENTS_MAX = 4,
  NO_ARGUMENT = -1,
  DETAILS_SIZE = 512,
  NO_CAUSE = -1,
  ELSEWHERE = -2 /* in a stack that this node does not have */
};

/* ---- Incidents */

struct argument {
  int32_t kind = NO_ARGUMENT;
  int64_t number = 0;
  double real = 0;
  const char* text = nullptr;
};

static constexpr argument of_number(int32_t kind, int64_t number) {
  return {.kind = kind, .number = number};
}
static constexpr argument of_real(double real) {
  return {.kind = CU_ERROR_ARG_DOUBLE, .real = real};
}
static constexpr argument of_text(const char* text) {
  return {.kind = CU_ERROR_ARG_CHAR_STR, .text = text};
}

struct process {
  const char* name;
  int32_t id, parent, thread;
};

struct incident {
  process by;
  int cause; /* index in the story */
  const char* file;
  const char* version;
  int32_t line;
  const char* text;
  std::array<argument, ARGUMENTS_MAX> arguments;
  const char* details;
  const char* catalog = "";
  int32_t message_set = 0;
  int32_t message = 0;
  bool without_id = false;
};

static constexpr process VOLUMES = {"stn_volmgr", 1204, 1, 1};
static constexpr process DISKS = {"stn_diskmon", 1217, 1204, 3};
static constexpr process BACKUP = {"stn_backup", 4410, 1204, 1};
static constexpr process CONSOLE = {"stn_console", 1302, 1, 9};

/* clang-format off */
static constexpr incident STORY[] = {
    {DISKS, NO_CAUSE, "dm_scan.c", "1.14", 412, "Disk %1$s: %2$d unreadable sectors, the first at %3$lld.",
     {of_text("disk07"), of_number(CU_ERROR_ARG_INT, 3), of_number(CU_ERROR_ARG_LONG_LONG, 8589934712)},
     "Scan 2210 of enclosure 1, slot 7\nretries    16\nreplaced   2044 of 2048 spare sectors"},
    {VOLUMES, 0, "/usr/src/stn/vol/vm_state.c", "1.31.1.2", 97,
     "Volume %1$s is degraded: %2$s has been taken out.", {of_text("archive"), of_text("disk07")},
     "state      degraded, 7 of 8 disks\nredundancy none until a disk is replaced"},
    {BACKUP, 1, "bk_run.c", "1.8", 655, "Backup of volume %1$s stopped after %2$.1f of %3$.1f GB.",
     {of_text("archive"), of_real(118.4), of_real(902)},
     "The volume manager asked for a stop.\nThe job starts again with the next window."},
    {CONSOLE, NO_CAUSE, "wc_login.c", "1.22", 230, "User \"%1$s\" has been locked out after %2$d attempts.",
     {of_text("operator2"), of_number(CU_ERROR_ARG_INT, 5)}, "client     192.0.2.17"},
    {DISKS, NO_CAUSE, "dm_env.c", "1.5", 71, "Enclosure %1$s: %2$.1f degrees are above the limit of %3$d.",
     {of_text("1"), of_real(48.5), of_number(CU_ERROR_ARG_INT, 45)},
     "sensor 1   48.5\nsensor 2   47.0\nfan 1      stopped\nfan 2      4100 rpm"},
    {VOLUMES, 4, "/usr/src/stn/vol/vm_rebuild.c", "1.12", 388, "Rebuild of volume %1$s is paused at %2$d%%.",
     {of_text("archive"), of_number(CU_ERROR_ARG_INT, 37)},
     "It goes on when the enclosure is below its limit."},
    {CONSOLE, 4, "wc_alarm.c", "1.3", 54, "Alarm %1$ld has been raised: %2$s.",
     {of_number(CU_ERROR_ARG_LONG, 100417), of_text("enclosure too warm")},
     "mailed to  storage-operators\npager      no answer", "samples.cat", 1, 2},
    {VOLUMES, ELSEWHERE, "/usr/src/stn/vol/vm_mirror.c", "1.19", 1033,
     "Volume %1$s is not mirrored: its partner does not answer.", {of_text("mail")},
     "partner    stn-b\nlast reply 35 s ago\nThe network monitor recorded the cause."},
    {.by = CONSOLE, .cause = NO_CAUSE, .file = "wc_session.c", .version = "1.40", .line = 12,
     .text = "The session table at %1$p was damaged and has been emptied.",
     .arguments = {of_number(CU_ERROR_ARG_VOID_PTR, 0x2007f3a0)},
     .details = "No Error Identifier could be made.\nEvery user has to log in again.", .without_id = true},
    {.by = BACKUP, .cause = NO_CAUSE, .file = "bk_snap.c", .version = "1.8", .line = 140,
     .text = "Volume %2$s: snapshot %1$d is older than %3$d days.",
     .arguments = {of_number(CU_ERROR_ARG_INT, 118), of_text("mail"), of_number(CU_ERROR_ARG_INT, 14)},
     .details = "policy     nightly, kept for 14 days", .catalog = "samples.cat", .message_set = 1,
     .message = 3},
    {DISKS, NO_CAUSE, "dm_sense.c", "1.2", 301, "Disk %1$s answered a write with sense key 0x%3$02x.",
     {of_text("disk03"), of_number(CU_ERROR_ARG_RESERVED, 0x0b47), of_number(CU_ERROR_ARG_INT, 11)},
     "command    0x8a\nblock      77114368"},
    {BACKUP, NO_CAUSE, "bk_main.c", "1.27", 88, "Backup job %1$d was ended by signal %2$d.",
     {of_number(CU_ERROR_ARG_INT, 2211), of_number(CU_ERROR_ARG_INT, 11)},
     "Its last state is in the dump file."},
};
/* clang-format on */
static constexpr int STORY_LENGTH = static_cast<int>(std::size(STORY));

static constexpr char DUMP_TEXT[] =
    "stn_backup: job 2211, signal 11\n"
    "volume     mail\n"
    "snapshot   118\n"
    "written    41337 blocks\n"
    "open files 12\n";

static int fail(const char* name, const char* reason) {
  std::fprintf(stderr, "%s: %s: %s\n", PROGRAM, name, reason);
  return -1;
}

/* ---- A record in memory */

struct record {
  std::array<char, ZK_REC_LENGTH_SIZE + ZK_REC_LISTED_MAX> bytes; /* what every report can show */
  size_t size;
  bool overflows;
};

static void put_bytes(record* made, const void* bytes, size_t size) {
  if (size > made->bytes.size() - made->size) {
    made->overflows = true;
    return;
  }
  std::memcpy(made->bytes.data() + made->size, bytes, size);
  made->size += size;
}

static void put_int(record* made, int32_t number) {
  put_bytes(made, &number, sizeof number);
}

static void put_text(record* made, const char* text) {
  put_bytes(made, text, std::strlen(text) + 1);
}

/* The 8 bytes of a value are those of the host's union: narrower values stand at its start. */
static void put_argument(record* made, const argument& given) {
  const int32_t word = static_cast<int32_t>(given.number);
  const uintptr_t pointer = static_cast<uintptr_t>(given.number);
  std::array<char, ZK_REC_ARG_SIZE> value = {};

  put_int(made, given.kind);
  switch (given.kind) {
    case CU_ERROR_ARG_CHAR_STR:
      put_text(made, given.text);
      return;
    case CU_ERROR_ARG_INT:
    case CU_ERROR_ARG_LONG:
      std::memcpy(value.data(), &word, sizeof word);
      break;
    case CU_ERROR_ARG_DOUBLE:
      std::memcpy(value.data(), &given.real, sizeof given.real);
      break;
    case CU_ERROR_ARG_VOID_PTR:
      std::memcpy(value.data(), &pointer, sizeof pointer);
      break;
    default:
      std::memcpy(value.data(), &given.number, sizeof given.number);
  }
  put_bytes(made, value.data(), value.size());
}

static void make_record(const incident& told, const char* details, const char* eid, const char* cause, int32_t seconds,
                        record* made) {
  *made = {};
  std::memcpy(made->bytes.data() + ZK_REC_EID_POS, eid, std::strlen(eid));
  std::memcpy(made->bytes.data() + ZK_REC_RELATED_POS, cause, std::strlen(cause));
  std::memcpy(made->bytes.data() + ZK_REC_TIME_POS, &seconds, sizeof seconds);
  made->size = ZK_REC_NAME_POS;

  put_text(made, told.by.name);
  for (const int32_t number : {told.by.id, told.by.parent, told.by.thread}) put_int(made, number);
  for (const char* text : {told.file, told.version, PRODUCT}) put_text(made, text);
  put_int(made, told.line);
  put_text(made, told.catalog);
  put_int(made, told.message_set);
  put_int(made, told.message);
  put_text(made, told.text);
  int32_t count = 0;
  for (const argument& given : told.arguments) count += given.kind != NO_ARGUMENT;
  put_int(made, count);
  for (const argument& given : told.arguments)
    if (given.kind != NO_ARGUMENT) put_argument(made, given);
  put_text(made, details);

  const int32_t length = static_cast<int32_t>(made->size - ZK_REC_LENGTH_SIZE);
  std::memcpy(made->bytes.data(), &length, sizeof length);
}

/* ---- The stack; every routine but open_stack is called under the lock */

/* The descriptor stays at position 0, from where locks reach. */
struct stack {
  int fildes;
  const char* name;
  int32_t size_if_new;
  zk_estack_v1_header_t header;
};

static int write_at(const stack& open, int32_t position, const void* bytes, size_t size) {
  const char* next = static_cast<const char*>(bytes);
  while (size > 0) {
    const ssize_t written = pwrite(open.fildes, next, size, position);
    if (written == 0) errno = ENOSPC; /* no progress and no error: it would never end */
    if (written <= 0) return fail(open.name, std::strerror(errno));
    next += written;
    position += static_cast<int32_t>(written);
    size -= static_cast<size_t>(written);
  }
  return 0;
}

static int read_at(const stack& open, int32_t position, void* bytes, size_t size) {
  const ssize_t taken = pread(open.fildes, bytes, size, position);
  if (taken < 0) return fail(open.name, std::strerror(errno));
  return static_cast<size_t>(taken) == size ? 0 : fail(open.name, "the file is too short");
}

static int write_header(const stack& open) {
  return write_at(open, ZK_STACK_HEADER_POS, &open.header, sizeof open.header);
}

/* Fills the stack with zeros from `position` on. */
static int clear_from(const stack& open, int32_t position) {
  static constexpr std::array<char, ZK_STACK_SIZE_MAX> ZEROS = {};
  return write_at(open, position, ZEROS.data(), static_cast<size_t>(open.header.file_size - position));
}

/* Makes the empty file a stack without records. What cannot be written whole is taken back. */
static int create_stack(stack* open) {
  std::array<char, ZK_STACK_SIZE_MAX> image = {};
  open->header = {.records_start = ZK_STACK_RECORDS_MIN,
                  .write_pos = ZK_STACK_RECORDS_MIN,
                  .earliest_rec = ZK_STACK_RECORDS_MIN,
                  .file_size = open->size_if_new,
                  .has_wrapped = 0};
  std::memcpy(image.data() + ZK_STACK_HEADER_POS, &open->header, sizeof open->header);
  if (write_at(*open, 0, image.data(), static_cast<size_t>(open->size_if_new)) == 0) return 0;
  if (ftruncate(open->fildes, 0) != 0) fail(open->name, std::strerror(errno));
  return -1;
}

static bool is_header_sound(const zk_estack_v1_header_t& header, off_t size) {
  if (header.file_size < ZK_STACK_SIZE_MIN || header.file_size > ZK_STACK_SIZE_MAX) return false;
  if (header.file_size != size || header.has_wrapped > 1) return false;
  if (header.records_start < ZK_STACK_RECORDS_MIN) return false;
  if (header.records_start > header.file_size - AREA_MIN) return false;
  /* In a stack that has wrapped, the older lap lies behind the newest record; else there is one lap. */
  const int32_t first = header.has_wrapped == 1 ? header.write_pos : header.earliest_rec;
  const int32_t second = header.has_wrapped == 1 ? header.earliest_rec : header.write_pos;
  return header.records_start <= first && first <= second && second <= header.file_size;
}

/* Takes the header from the file. An empty file is one that has just been created, by whomever. */
static int load_header(stack* open) {
  int32_t version = 0;
  struct stat status;
  if (fstat(open->fildes, &status) != 0) return fail(open->name, std::strerror(errno));
  if (status.st_size == 0) return create_stack(open);
  if (read_at(*open, 0, &version, sizeof version) != 0) return -1;
  if (read_at(*open, ZK_STACK_HEADER_POS, &open->header, sizeof open->header) != 0) return -1;
  if (version != 0) return fail(open->name, "not an Error Stack of version one");
  if (!is_header_sound(open->header, status.st_size)) return fail(open->name, "the control header is damaged");
  return 0;
}

/* From here on the newest lap is the only one. */
static void drop_older_lap(stack* open) {
  open->header.earliest_rec = open->header.records_start;
  open->header.has_wrapped = 0;
}

/* Moves earliest_rec past what ends up overwritten up to `end`, to a whole record or the end of its lap. */
static int pass_overwritten(stack* open, int32_t end, bool* used_up) {
  zk_estack_v1_header_t* header = &open->header;
  for (;;) {
    int32_t length = 0;
    const int32_t room = header->file_size - header->earliest_rec - ZK_REC_LENGTH_SIZE;
    if (room >= 0 && read_at(*open, header->earliest_rec, &length, sizeof length) != 0) return -1;
    *used_up = length == 0;
    if (*used_up || header->earliest_rec >= end) return 0;
    if (length < 0 || length > ZK_REC_BODY_MAX || length > room) return fail(open->name, "a record is damaged");
    header->earliest_rec += ZK_REC_LENGTH_SIZE + length;
  }
}

/* A reader goes from earliest_rec to the end of that lap, a length of 0 or the end of the file, then once
 * more from records_start if has_wrapped is 1, and ends where it meets write_pos. So the rest of a lap is
 * cleared when the next record does not fit there any more, and a stack whose older lap is used up has not
 * wrapped: otherwise the lap would be read twice. The header is written before and after the record, so that
 * it is never about bytes that are half overwritten. */
static int append_record(stack* open, const record& made) {
  zk_estack_v1_header_t* header = &open->header;
  const int32_t size = static_cast<int32_t>(made.size);
  const bool wraps = header->write_pos > header->file_size - size;
  int32_t position = header->write_pos;
  bool used_up = false;

  if (wraps) {
    if (header->has_wrapped == 1) drop_older_lap(open); /* it lies in what is cleared */
    if (write_header(*open) != 0 || clear_from(*open, position) != 0) return -1;
    position = header->records_start;
  }
  if (wraps || header->has_wrapped == 1) {
    if (pass_overwritten(open, position + size, &used_up) != 0) return -1;
    if (used_up) drop_older_lap(open);
    if (write_header(*open) != 0) return -1;
    if (used_up && clear_from(*open, position) != 0) return -1;
  }

  if (write_at(*open, position, made.bytes.data(), made.size) != 0) return -1;
  header->write_pos = position + size;
  if (wraps && !used_up) header->has_wrapped = 1;
  return write_header(*open);
}

/* Opens the stack, or creates it as an empty file. What is not a regular file is refused without waiting. */
static int open_stack(stack* opened) {
  constexpr int FLAGS = O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
  int fildes = open(opened->name, FLAGS);
  if (fildes < 0 && errno == ENOENT) {
    fildes = open(opened->name, FLAGS | O_CREAT | O_EXCL, ANY_ACCESS);
    if (fildes < 0 && errno == EEXIST) fildes = open(opened->name, FLAGS);
  }
  if (fildes < 0) return fail(opened->name, std::strerror(errno));
  /* Where a standard stream is closed, its place is not for the stack: a message would go there. */
  opened->fildes = fcntl(fildes, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  close(fildes);
  struct stat status;
  if (opened->fildes < 0 || fstat(opened->fildes, &status) != 0) return fail(opened->name, std::strerror(errno));
  if (!S_ISREG(status.st_mode)) return fail(opened->name, "not a regular file");
  return 0;
}

/* ---- Recording */

struct recorder {
  stack into;
  long count; /* generated incidents; -1 none, 0 no limit */
  long processes;
  long pause; /* milliseconds */
  bool prints_ids;
  long recorded;
  uint32_t seed;
};

/* Makes an Error ID for `stack_name`. The next one, whoever makes it under the same lock, comes out
 * different: the clock has moved on by then. */
static int make_eid(const char* stack_name, zk_eid_t eid, long* seconds) {
  const int result = zk_generate_eid_2(0, nullptr, stack_name, 0, NO_FACILITY, 0, seconds, eid);
  if (result != ZELK_SUCCESS) return fail(stack_name, "no Error ID can be made");
  struct timeval made, now;
  gettimeofday(&made, nullptr);
  do {
    gettimeofday(&now, nullptr);
  } while (now.tv_usec == made.tv_usec && now.tv_sec == made.tv_sec);
  return 0;
}

/* Records an incident; `eid` receives its Error ID, or is null for an incident without one. The ID is made
 * under the lock, so that records stand in the order of their times. */
static int record_incident(recorder* run, const incident& told, const char* details, const char* cause, char* eid) {
  if (run->recorded > 0 && run->pause > 0) {
    const struct timespec pause = {.tv_sec = static_cast<time_t>(run->pause / 1000),
                                   .tv_nsec = run->pause % 1000 * 1000000};
    nanosleep(&pause, nullptr);
  }
  if (lockf(run->into.fildes, F_LOCK, 0) != 0) return fail(run->into.name, std::strerror(errno));

  record made = {};
  long seconds = static_cast<long>(std::time(nullptr));
  int result = load_header(&run->into);
  if (result == 0 && eid != nullptr) result = make_eid(run->into.name, eid, &seconds);
  if (result == 0) {
    make_record(told, details, eid != nullptr ? eid : "", cause, static_cast<int32_t>(seconds), &made);
    result = made.overflows ? fail(run->into.name, "the incident is too long for a record")
                            : append_record(&run->into, made);
  }

  if (lockf(run->into.fildes, F_ULOCK, 0) != 0) result = fail(run->into.name, std::strerror(errno));
  if (result != 0) return result;
  ++run->recorded;
  if (!run->prints_ids || eid == nullptr) return 0;
  if (std::puts(eid) < 0 || std::fflush(stdout) != 0) return fail("standard output", std::strerror(errno));
  return 0;
}

/* Writes the dump file beside the stack. Several processes may do so at once: it is never cut short. */
static int write_dump(const char* name) {
  constexpr size_t SIZE = sizeof DUMP_TEXT - 1;
  const int fildes = open(name, O_WRONLY | O_CREAT | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY | O_CLOEXEC, ANY_ACCESS);
  if (fildes < 0) return fail(name, std::strerror(errno));
  errno = ENOSPC; /* for a short write */
  const bool written = write(fildes, DUMP_TEXT, SIZE) == SIZE && ftruncate(fildes, SIZE) == 0;
  const int result = written ? 0 : fail(name, std::strerror(errno));
  close(fildes);
  return result;
}

/* Preserves the dump file and adds to the details where it is. */
static int preserve_dump(const char* stack_name, const char* told, char* details) {
  char dump[ZELK_DUMP_NAME_SIZE] = "";
  char kept[ZELK_DUMP_NAME_SIZE] = "";
  if (std::snprintf(dump, sizeof dump, "%s.dump", stack_name) >= ZELK_DUMP_NAME_SIZE)
    return fail(stack_name, std::strerror(ENAMETOOLONG));
  if (write_dump(dump) != 0) return -1;
  zk_make_dump_file_copy(0, nullptr, dump, kept);
  const char* name = kept[0] != '\0' ? kept : dump; /* where no copy can be had, the dump stays where it is */
  if (std::snprintf(details, DETAILS_SIZE, "%s\ndump file  %s", told, name) >= DETAILS_SIZE)
    std::snprintf(details, DETAILS_SIZE, "%s\ndump file  (the name is too long)", told);
  return 0;
}

static int record_story(recorder* run) {
  zk_eid_t eids[STORY_LENGTH] = {};
  for (int index = 0; index < STORY_LENGTH; ++index) {
    const incident& told = STORY[index];
    zk_eid_t cause = "";
    char details[DETAILS_SIZE] = "";
    long seconds = 0;
    /* No stack has the i-node of the root directory. */
    if (told.cause == ELSEWHERE && make_eid("/", cause, &seconds) != 0) return -1;
    if (told.cause >= 0) std::memcpy(cause, eids[told.cause], sizeof cause);
    if (index == STORY_LENGTH - 1) {
      if (preserve_dump(run->into.name, told.details, details) != 0) return -1;
    } else {
      std::snprintf(details, sizeof details, "%s", told.details);
    }
    if (record_incident(run, told, details, cause, told.without_id ? nullptr : eids[index]) != 0) return -1;
  }
  return 0;
}

static uint32_t draw(recorder* run, uint32_t below) {
  run->seed = run->seed * 1664525U + 1013904223U;
  return (run->seed >> 16) % below;
}

static int record_generated(recorder* run) {
  constexpr int RECENT = 8; /* incidents that can still be a cause */
  zk_eid_t eids[RECENT] = {};
  const unsigned long count = static_cast<unsigned long>(run->count);
  for (unsigned long number = 1; count == 0 || number <= count; ++number) {
    char details[DETAILS_SIZE] = "";
    const size_t enough = draw(run, DETAILS_SIZE);
    int length = std::snprintf(details, sizeof details, "generated  %lu", number);
    for (size_t end = static_cast<size_t>(length); end < enough; end += static_cast<size_t>(length))
      length = std::snprintf(details + end, sizeof details - end, "\nretry      after %u ms", draw(run, 5000));

    char* eid = eids[number % RECENT];
    zk_eid_t cause = "";
    if (draw(run, 2) == 0) std::memcpy(cause, eids[draw(run, RECENT)], sizeof cause);
    if (record_incident(run, STORY[draw(run, STORY_LENGTH)], details, cause, eid) != 0) return -1;
  }
  return 0;
}

static int run_recorder(recorder* run) {
  run->seed = static_cast<uint32_t>(getpid());
  if (open_stack(&run->into) != 0) return EXIT_FAILURE;
  if (record_story(run) != 0) return EXIT_FAILURE;
  if (run->count >= 0 && record_generated(run) != 0) return EXIT_FAILURE;
  return EXIT_SUCCESS;
}

/* Runs the recorders at once, each in a process that ends with this one, and waits for all. */
static int run_recorders(recorder* run) {
  const pid_t parent = getpid();
  int status = EXIT_SUCCESS;
  for (long started = 0; started < run->processes; ++started) {
    const pid_t child = fork();
    if (child == 0) {
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      _exit(getppid() == parent ? run_recorder(run) : EXIT_FAILURE);
    }
    if (child < 0) {
      fail("fork", std::strerror(errno));
      status = EXIT_FAILURE;
      break;
    }
  }
  int ended = 0;
  while (wait(&ended) > 0)
    if (!WIFEXITED(ended) || WEXITSTATUS(ended) != EXIT_SUCCESS) status = EXIT_FAILURE;
  return status;
}

/* What making Error IDs and preserving dump files take from the environment. */
static int set_environment() {
  char code[ZELK_ADDR_CODE_SIZE + 1] = "";
  char type = '\0';
  if (std::getenv("ZELKADDR") == nullptr) {
    if (zk_get_ipaddr(0, nullptr, code, &type) != ZELK_SUCCESS)
      return fail("ZELKADDR", "the node's address cannot be had");
    code[ZELK_ADDR_CODE_SIZE - 1] = type;
    if (setenv("ZELKADDR", code, 1) != 0) return fail("ZELKADDR", std::strerror(errno));
  }
  return setenv("ZELKPNAME", PROGRAM, 0) == 0 ? 0 : fail("ZELKPNAME", std::strerror(errno));
}

static bool take_number(const char* text, long low, long high, long* number) {
  char* end = nullptr;
  errno = 0;
  *number = std::strtol(text, &end, 10);
  return errno == 0 && end != text && *end == '\0' && *number >= low && *number <= high;
}

static int usage() {
  std::fprintf(stderr,
               "Usage: %s [-z SIZE] [-n COUNT] [-j PROCESSES] [-p PAUSE_MS] [-F] STACK\n"
               "  SIZE %d to %d, COUNT 0 (no end) to %d, PROCESSES 1 to %d, PAUSE_MS 0 to %d\n",
               PROGRAM, ZK_STACK_SIZE_MIN, ZK_STACK_SIZE_MAX, COUNT_MAX, PROCESSES_MAX, PAUSE_MAX);
  return MISUSE;
}

int main(int argc, char** argv) {
  recorder run = {};
  long size = ZK_STACK_SIZE_MIN;
  run.count = -1;
  run.processes = 1;
  bool good = true;
  for (int option; (option = getopt(argc, argv, "z:n:j:p:F")) != -1;) {
    if (option == 'z')
      good = good && take_number(optarg, ZK_STACK_SIZE_MIN, ZK_STACK_SIZE_MAX, &size);
    else if (option == 'n')
      good = good && take_number(optarg, 0, COUNT_MAX, &run.count);
    else if (option == 'j')
      good = good && take_number(optarg, 1, PROCESSES_MAX, &run.processes);
    else if (option == 'p')
      good = good && take_number(optarg, 0, PAUSE_MAX, &run.pause);
    else if (option == 'F')
      run.prints_ids = true;
    else
      good = false;
  }
  if (!good || optind != argc - 1 || *argv[optind] == '\0') return usage();
  run.into.name = argv[optind];
  run.into.size_if_new = static_cast<int32_t>(size);

  if (set_environment() != 0) return EXIT_FAILURE;
  return run.processes == 1 ? run_recorder(&run) : run_recorders(&run);
}
