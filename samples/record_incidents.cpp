/* SPDX-License-Identifier: MIT */
/* record_incidents.cpp - records incidents in an Error Stack.
 *
 *   record_incidents [-z SIZE] [-n COUNT] [-j PROCESSES] [-p PAUSE_MS] [-F] STACK
 *
 *   -z  size in bytes of a stack that has to be created, 8192 (also without -z) to 16384
 *   -n  after the built-in story record COUNT generated incidents; 0: until it is ended
 *   -j  so many processes at once, each of which records all this
 *   -p  milliseconds between two records
 *   -F  print the Error ID of each record, a line each
 *
 * STACK is created unless it exists; STACK.dump is written beside it. Exit status: 0 all recorded, 1 not so,
 * 2 misuse.
 */
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>
#include <vector>

#include "qx_record.h"
#include "zk_layout.h"

static constexpr char PROGRAM[] = "record_incidents";
static constexpr char PRODUCT[] = "stn.node";

enum {
  MISUSE = 2,
  ANY_ACCESS = 0666, /* the umask decides */
  PROCESSES_MAX = 64,
  PAUSE_MAX = 60000, /* milliseconds */
  COUNT_MAX = 1000000000,
  DETAILS_SIZE = 512,
  NO_CAUSE = -1,
  ELSEWHERE = -2 /* on the partner, stn-b */
};

/* An incident that was recorded on the partner, 192.0.2.18. */
static constexpr zk_eid_t PARTNER_EID = "7M4k0..eFc/f/6kv.G6...1...................";

/* ---- Incidents */

static cu_error_arg_t of_int(int32_t number) {
  return {CU_ERROR_ARG_INT, {.cu_arg_int = number}};
}
static cu_error_arg_t of_long(int32_t number) {
  return {CU_ERROR_ARG_LONG, {.cu_arg_long = number}};
}
static cu_error_arg_t of_wide(int32_t kind, int64_t number) {
  return {kind, {.cu_arg_long_long = number}};
}
static cu_error_arg_t of_real(double real) {
  return {CU_ERROR_ARG_DOUBLE, {.cu_arg_double = real}};
}
static cu_error_arg_t of_text(const char* text) {
  return {CU_ERROR_ARG_CHAR_STR, {.cu_arg_char_str = const_cast<char*>(text)}}; /* it is only read */
}
static cu_error_arg_t of_address(uintptr_t address) {
  return {CU_ERROR_ARG_VOID_PTR, {.cu_arg_void_ptr = reinterpret_cast<void*>(address)}};
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
  std::vector<cu_error_arg_t> arguments;
  const char* details;
  const char* catalog = "";
  int32_t message_set = 0;
  int32_t message = 0;
};

static constexpr process VOLUMES = {"stn_volmgr", 1204, 1, 1};
static constexpr process DISKS = {"stn_diskmon", 1217, 1204, 3};
static constexpr process BACKUP = {"stn_backup", 4410, 1204, 1};
static constexpr process CONSOLE = {"stn_console", 1302, 1, 9};

/* clang-format off */
static const incident STORY[] = {
    {DISKS, NO_CAUSE, "dm_scan.c", "1.14", 412, "Disk %1$s: %2$d unreadable sectors, the first at %3$lld.",
     {of_text("disk07"), of_int(3), of_wide(CU_ERROR_ARG_LONG_LONG, 8589934712)},
     "Scan 2210 of enclosure 1, slot 7\nretries    16\nreplaced   2044 of 2048 spare sectors"},
    {VOLUMES, 0, "/usr/src/stn/vol/vm_state.c", "1.31.1.2", 97,
     "Volume %1$s is degraded: %2$s has been taken out.", {of_text("archive"), of_text("disk07")},
     "state      degraded, 7 of 8 disks\nredundancy none until a disk is replaced"},
    {BACKUP, 1, "bk_run.c", "1.8", 655, "Backup of volume %1$s stopped after %2$.1f of %3$.1f GB.",
     {of_text("archive"), of_real(118.4), of_real(902)},
     "The volume manager asked for a stop.\nThe job starts again with the next window."},
    {CONSOLE, NO_CAUSE, "wc_login.c", "1.22", 230, "User \"%1$s\" has been locked out after %2$d attempts.",
     {of_text("operator2"), of_int(5)}, "client     192.0.2.17"},
    {DISKS, NO_CAUSE, "dm_env.c", "1.5", 71, "Enclosure %1$s: %2$.1f degrees are above the limit of %3$d.",
     {of_text("1"), of_real(48.5), of_int(45)},
     "sensor 1   48.5\nsensor 2   47.0\nfan 1      stopped\nfan 2      4100 rpm"},
    {VOLUMES, 4, "/usr/src/stn/vol/vm_rebuild.c", "1.12", 388, "Rebuild of volume %1$s is paused at %2$d%%.",
     {of_text("archive"), of_int(37)},
     "It goes on when the enclosure is below its limit."},
    {CONSOLE, 4, "wc_alarm.c", "1.3", 54, "Alarm %1$ld has been raised: %2$s.",
     {of_long(100417), of_text("enclosure too warm")},
     "mailed to  storage-operators\npager      no answer", "samples.cat", 1, 2},
    {VOLUMES, ELSEWHERE, "/usr/src/stn/vol/vm_mirror.c", "1.19", 1033,
     "Volume %1$s is not mirrored: its partner does not answer.", {of_text("mail")},
     "partner    stn-b\nlast reply 35 s ago\nThe network monitor recorded the cause."},
    {.by = CONSOLE, .cause = NO_CAUSE, .file = "wc_session.c", .version = "1.40", .line = 12,
     .text = "The session table at %1$p was damaged and has been emptied.",
     .arguments = {of_address(0x2007f3a0)},
     .details = "Every user has to log in again."},
    {.by = BACKUP, .cause = NO_CAUSE, .file = "bk_snap.c", .version = "1.8", .line = 140,
     .text = "Volume %2$s: snapshot %1$d is older than %3$d days.",
     .arguments = {of_int(118), of_text("mail"), of_int(14)},
     .details = "policy     nightly, kept for 14 days", .catalog = "samples.cat", .message_set = 1,
     .message = 3},
    {DISKS, NO_CAUSE, "dm_sense.c", "1.2", 301, "Disk %1$s answered a write with sense key 0x%3$02x.",
     {of_text("disk03"), of_wide(CU_ERROR_ARG_RESERVED, 0x0b47), of_int(11)},
     "command    0x8a\nblock      77114368"},
    {BACKUP, NO_CAUSE, "bk_main.c", "1.27", 88, "Backup job %1$d was ended by signal %2$d.",
     {of_int(2211), of_int(11)},
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

/* ---- Recording */

struct run_t {
  char stack[PATH_MAX];
  int32_t size_if_new;
  long count; /* generated incidents; -1 none, 0 no limit */
  long processes;
  long pause; /* milliseconds */
  bool prints_ids;
  zk_recorder_t* recorder;
  long recorded;
  uint32_t seed;
};

static int fail_with_code(const char* name, int result) {
  std::fprintf(stderr, "%s: %s: failed with code %d\n", PROGRAM, name, result);
  return -1;
}

/* Opens the stack, and creates it before when it is missing. */
static int open_stack(run_t* run) {
  int result = zk_create_stack(0, nullptr, run->stack, run->size_if_new);
  if (result == ZELK_SUCCESS || result == ZELK_FILE_EXIST)
    result = zk_open_recorder(0, nullptr, run->stack, &run->recorder);
  return result == ZELK_SUCCESS ? 0 : fail_with_code(run->stack, result);
}

/* Records an incident; `eid` receives its Error ID. */
static int record_incident(run_t* run, const incident& told, const char* details, const char* cause, zk_eid_t eid) {
  if (run->recorded > 0 && run->pause > 0) {
    const struct timespec pause = {.tv_sec = static_cast<time_t>(run->pause / 1000),
                                   .tv_nsec = run->pause % 1000 * 1000000};
    nanosleep(&pause, nullptr);
  }
  const zk_incident_t incident = {.process_name = told.by.name,
                                  .process_id = told.by.id,
                                  .parent_id = told.by.parent,
                                  .thread_id = told.by.thread,
                                  .detecting_file = told.file,
                                  .file_version = told.version,
                                  .product = PRODUCT,
                                  .line = told.line,
                                  .catalog = told.catalog,
                                  .message_set = told.message_set,
                                  .message_number = told.message,
                                  .default_message = told.text,
                                  .arguments = told.arguments.data(),
                                  .argument_count = static_cast<uint32_t>(told.arguments.size()),
                                  .details = details,
                                  .associated_eid = cause};
  const int result = zk_record_incident(0, nullptr, run->recorder, &incident, eid);
  if (result != ZELK_SUCCESS) return fail_with_code(run->stack, result);
  ++run->recorded;
  if (run->prints_ids && (std::puts(eid) < 0 || std::fflush(stdout) != 0))
    return fail("standard output", std::strerror(errno));
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

static int record_story(run_t* run) {
  zk_eid_t eids[STORY_LENGTH] = {};
  for (int index = 0; index < STORY_LENGTH; ++index) {
    const incident& told = STORY[index];
    const char* cause = told.cause == ELSEWHERE ? PARTNER_EID : "";
    char details[DETAILS_SIZE] = "";
    if (told.cause >= 0) cause = eids[told.cause];
    if (index == STORY_LENGTH - 1) {
      if (preserve_dump(run->stack, told.details, details) != 0) return -1;
    } else {
      std::snprintf(details, sizeof details, "%s", told.details);
    }
    if (record_incident(run, told, details, cause, eids[index]) != 0) return -1;
  }
  return 0;
}

static uint32_t draw(run_t* run, uint32_t below) {
  run->seed = run->seed * 1664525U + 1013904223U;
  return (run->seed >> 16) % below;
}

static int record_generated(run_t* run) {
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

static int run_recorder(run_t* run) {
  run->seed = static_cast<uint32_t>(getpid());
  if (open_stack(run) != 0) return EXIT_FAILURE;
  int result = record_story(run);
  if (result == 0 && run->count >= 0) result = record_generated(run);
  zk_close_recorder(run->recorder);
  return result == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

/* Runs the recorders at once, each in a process that ends with this one, and waits for all. */
static int run_recorders(run_t* run) {
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

/* The library takes a relative name for one in its own directory. */
static int take_stack(const char* name, run_t* run) {
  char folder[PATH_MAX] = "";
  if (*name != '/' && getcwd(folder, sizeof folder) == nullptr) return fail(name, std::strerror(errno));
  const int length = std::snprintf(run->stack, sizeof run->stack, "%s%s%s", folder, *name != '/' ? "/" : "", name);
  return length < PATH_MAX ? 0 : fail(name, std::strerror(ENAMETOOLONG));
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
  run_t run = {};
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
  run.size_if_new = static_cast<int32_t>(size);
  if (take_stack(argv[optind], &run) != 0 || setenv("ZELKPNAME", PROGRAM, 0) != 0) return EXIT_FAILURE;
  return run.processes == 1 ? run_recorder(&run) : run_recorders(&run);
}
