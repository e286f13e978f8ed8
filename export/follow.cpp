/* SPDX-License-Identifier: MIT */
/* follow.cpp - gives out incidents as they are recorded. The file system says when there is something to read, or each file
 * is looked at every second where it does not.
 *
 * Whoever may make files in the stacks' folder, lock them and hold leases on them holds up the reading of those files, and
 * of no other: what would have to be waited for is tried again later, and what took long to read is read after the rest.
 *
 * The signals that end the run, or ask for a new file of output, are blocked but while it waits. So none of them comes
 * between lines and their mark; only where a reader takes no more may a line be half written. */
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>

#include <algorithm>
#include <bit>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <deque>
#include <list>
#include <set>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "command.h"
#include "cursor.h"
#include "export.h"
#include "lock_wait.h"
#include "unread.h"
#include "zk_stack_file.h"

/* What may happen to a stack, and in a folder in which one may appear. */
static constexpr uint32_t STACK_EVENTS = IN_MODIFY | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF;
static constexpr uint32_t FOLDER_EVENTS =
    IN_CREATE | IN_MOVED_TO | IN_ATTRIB | IN_MOVE_SELF | IN_DELETE_SELF | IN_ONLYDIR;

/* Milliseconds. */
static constexpr int64_t DAMAGE_PAUSE = 200; /* damage that lasts as long is told: a stack may be just being copied */
static constexpr int64_t RETRY_PAUSE = 100;  /* at most, until a lock or a lease is tried again */
static constexpr int64_t PATIENCE = 1000;    /* with a lock or a lease, until it is told */
static constexpr int64_t LOOK_PAUSE = 1000;  /* between two looks at what cannot be watched */
static constexpr int64_t SAVE_PAUSE = 100;   /* between two savings of the cursor, while there is more to do */
static constexpr int64_t RESCAN_SHARE = 10;  /* looking for new files takes no more of the time than a tenth */
static constexpr int64_t TIME_GRAIN = 20;    /* two changes of a file within it may have one time */
static constexpr int64_t FOR_EVER = INT64_MAX;

static constexpr size_t COSTS = 16; /* queues, by the time that reading takes: 0, 1, up to 3, up to 7 ms, ... */
static constexpr size_t SET_ASIDE_MAX = 100;
static constexpr size_t SPARE_FILES = 32; /* descriptors that are not for keeping stacks open */

struct followed_t {
  std::string name;
  std::string path;
  bool is_listed;    /* found in the stacks' folder, and forgotten when it has gone */
  open_stack_t open; /* the file that is there, or was there last, where it is kept open */
  struct stat file;  /* that file, when it was opened or read last; no i-node where there is none */
  int watch;         /* of that file, -1 for none */
  bool is_known;     /* what is overwritten from now on has been missed */
  bool is_queued;    /* it is to be read */
  size_t cost;       /* the queue for it */
  int64_t again;     /* when it is looked at again, FOR_EVER for only when something happens */
  int64_t pause;     /* before the next try of a lock or a lease, 0 when none was refused */
  int64_t since;     /* when the first try was refused */
  bool is_wait_told;
  mark_t mark;         /* how far it was given out */
  damage_t seen, told; /* the last damage, and the last that was told */
};

struct follower_t {
  const zk_trace_t* trace;
  const export_request_t* request;
  std::list<followed_t> stacks;
  std::unordered_set<std::string> listed;            /* the names of those that are listed */
  std::unordered_multimap<int, followed_t*> watched; /* by their watches */
  std::array<std::deque<followed_t*>, COSTS> queues;
  std::set<std::pair<int64_t, followed_t*>> timers; /* what is looked at again, by time */
  std::set<int> folders;                            /* watches of folders */
  cursor_t cursor;                                  /* the marks, also where no file is kept */
  int inotify;                                      /* -1 where there is none */
  size_t kept, kept_max;                            /* stacks that are kept open */
  sigset_t waiting_mask;                            /* while it waits */
  int64_t next_rescan;
  int64_t saved;      /* when the cursor was saved, and */
  bool is_unsaved;    /* whether there is something to save */
  bool is_started;    /* stacks that appear from now on are new */
  bool is_rearranged; /* files may have come, gone or been replaced */
  bool is_unwatched;  /* some of what is followed cannot be watched */
  size_t set_aside;   /* stacks without a name that are read on, as far as names have been looked at */
  bool is_unwatched_told, is_folder_told;
  int status; /* of the run that has come to its end */
};

/* ---- Time ---------------------------------------------------------------------------------------------------------- */

static int64_t milliseconds(const timespec& time) {
  return int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

static int64_t now_of(clockid_t clock) {
  timespec time;
  clock_gettime(clock, &time);
  return milliseconds(time);
}

static int64_t now() {
  return now_of(CLOCK_MONOTONIC);
}

static void set_timer(follower_t* follower, followed_t* stack, int64_t again) {
  follower->timers.erase({stack->again, stack});
  stack->again = again;
  if (again != FOR_EVER) follower->timers.insert({again, stack});
}

/* ---- Waiting ------------------------------------------------------------------------------------------------------- */

static volatile std::sig_atomic_t is_ended;        /* by SIGTERM or SIGINT */
static volatile std::sig_atomic_t is_output_moved; /* SIGHUP asks for a new file of output */
static void note_end(int) {
  is_ended = 1;
}
static void note_moved_output(int) {
  is_output_moved = 1;
}

static void handle_signals(follower_t* follower) {
  sigset_t handled;
  sigemptyset(&handled);
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&handled, signal);
  sigprocmask(SIG_BLOCK, &handled, &follower->waiting_mask);
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) sigdelset(&follower->waiting_mask, signal);
  std::signal(SIGTERM, note_end);
  std::signal(SIGINT, note_end);
  if (!follower->request->output.empty()) std::signal(SIGHUP, note_moved_output);
}

/* Waits until one of the descriptors is ready or that many milliseconds are over, and hears signals. Returns false when one
 * has ended the run. */
static bool wait_for(follower_t* follower, pollfd* descriptors, nfds_t count, int64_t pause) {
  const timespec time = {static_cast<time_t>(pause / 1000), static_cast<long>(pause % 1000 * 1000000)};
  if (ppoll(descriptors, count, pause == FOR_EVER ? nullptr : &time, &follower->waiting_mask) <= 0)
    for (nfds_t at = 0; at < count; ++at) descriptors[at].revents = 0;
  return is_ended == 0;
}

/* ---- The cursor and the output ------------------------------------------------------------------------------------- */

/* Keeps the cursor's file up to date. */
static bool keep_cursor(follower_t* follower) {
  if (!follower->is_unsaved) return true;
  follower->is_unsaved = false;
  follower->saved = now();
  if (save_cursor(follower->cursor)) return true;
  follower->status = STATUS_FAILED;
  return false;
}

static void set_mark(follower_t* follower, const followed_t& stack) {
  if (stack.mark.inode == 0) return; /* nothing has been read */
  mark_t& mark = follower->cursor.marks[stack.path];
  if (mark == stack.mark) return;
  mark = stack.mark;
  follower->is_unsaved = true;
}

/* Ends the run as writing to a closed pipe does; where SIGPIPE is ignored, by saying so. */
static bool lose_reader(follower_t* follower) {
  keep_cursor(follower);
  std::raise(SIGPIPE);
  follower->status = complain(message_text(TOOL_MSG_STANDARD_OUTPUT), std::strerror(EPIPE));
  return false;
}

/* Writes each of the lines by itself, when their reader has room for them. A pipe that is ready has room for PIPE_BUF
 * bytes: more would have to wait where no signal is let through. */
static bool write_lines(follower_t* follower, std::string_view lines) {
  while (!lines.empty()) {
    const size_t size = std::min(lines.find('\n') + 1, size_t{PIPE_BUF});
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    if (!wait_for(follower, &output, 1, 0)) return false;
    if (output.revents == 0 && !(keep_cursor(follower) && wait_for(follower, &output, 1, FOR_EVER))) return false;
    if (!write_out(lines.substr(0, size))) {
      follower->status = STATUS_FAILED;
      return false;
    }
    lines.remove_prefix(size);
  }
  return true;
}

/* ---- What is to be read -------------------------------------------------------------------------------------------- */

static void enqueue(follower_t* follower, followed_t* stack) {
  if (stack->is_queued) return;
  stack->is_queued = true;
  follower->queues[stack->cost].push_back(stack);
}

/* The stack that is read next: one that took little time before others. Null for none. */
static followed_t* dequeue(follower_t* follower) {
  for (std::deque<followed_t*>& queue : follower->queues) {
    if (queue.empty()) continue;
    followed_t* const stack = queue.front();
    queue.pop_front();
    stack->is_queued = false;
    return stack;
  }
  return nullptr;
}

/* Puts off a stack whose lock, or lease where it is not open, another process has: it is tried again after a pause that
 * grows, and told once. */
static void put_off(follower_t* follower, followed_t* stack) {
  if (stack->pause == 0) stack->since = now();
  stack->pause = std::min(std::max(2 * stack->pause, int64_t{1}), RETRY_PAUSE);
  set_timer(follower, stack, now() + stack->pause);
  if (stack->is_wait_told || now() - stack->since < PATIENCE) return;
  stack->is_wait_told = true;
  complain(stack->path,
           stack->open.fildes != -1 ? waiting_text(stack->open.fildes) : message_text(TOOL_MSG_WAITING_FOR_LEASE));
}

static void end_putting_off(followed_t* stack) {
  stack->pause = 0;
  stack->is_wait_told = false;
}

/* ---- Files --------------------------------------------------------------------------------------------------------- */

/* Has the file system tell of a file or a folder. Returns the watch, or -1 with errno set: what is there and cannot be
 * watched is looked at. */
static int add_watch(follower_t* follower, const std::string& path, uint32_t events) {
  const int watch = inotify_add_watch(follower->inotify, path.c_str(), events);
  const int error = errno;
  if (watch != -1 || error == ENOENT || error == ENOTDIR) return watch;
  follower->is_unwatched = true;
  if (!follower->is_unwatched_told) complain(path, message_text(TOOL_MSG_LOOKED_AT, {std::strerror(error)}));
  follower->is_unwatched_told = true;
  errno = error;
  return -1;
}

static void watch_stack(follower_t* follower, followed_t* stack) {
  stack->watch = add_watch(follower, stack->path, STACK_EVENTS);
  if (stack->watch != -1)
    follower->watched.insert({stack->watch, stack});
  else if (errno == ENOENT) /* it has just gone */
    follower->is_rearranged = true;
}

/* Stops watching the stack's file, unless another name of it is followed too. */
static void stop_watching(follower_t* follower, followed_t* stack) {
  const auto [first, behind] = follower->watched.equal_range(stack->watch);
  const auto own = std::find_if(first, behind, [&](const auto& entry) { return entry.second == stack; });
  if (own != behind) follower->watched.erase(own);
  if (stack->watch != -1 && !follower->watched.contains(stack->watch))
    inotify_rm_watch(follower->inotify, stack->watch);
  stack->watch = -1;
}

static void close_stack(follower_t* follower, followed_t* stack) {
  if (stack->open.fildes == -1) return;
  close(stack->open.fildes);
  stack->open = {-1, false};
  --follower->kept;
}

static bool is_same_file(const struct stat& one, const struct stat& other) {
  return one.st_ino == other.st_ino && one.st_dev == other.st_dev;
}

/* Stops following the stack's file, whose name is looked at again. */
static void leave_file(follower_t* follower, followed_t* stack) {
  stop_watching(follower, stack);
  if (stack->is_queued) std::erase(follower->queues[stack->cost], stack);
  stack->is_queued = false;
  close_stack(follower, stack);
  set_timer(follower, stack, FOR_EVER);
  end_putting_off(stack);
  stack->file = {};
  follower->is_rearranged = true;
}

/* Opens the file that has the stack's name now, unless another process holds a lease on it. Returns 0; ZELK_LOCK then; and
 * the codes of open_stack. */
static int open_unleased(follower_t* follower, followed_t* stack) {
  int guard = -1; /* while it is open, nobody gets a lease */
  errno = 0;
  for (int mode : {O_RDWR, O_RDONLY})
    if (guard == -1 && errno != EAGAIN) guard = open(stack->path.c_str(), mode | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
  struct stat status;
  const bool is_leased =
      guard == -1 && errno == EAGAIN && stat(stack->path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  const int result = is_leased ? int{ZELK_LOCK} : open_stack(*follower->trace, stack->name, &stack->open);
  if (guard != -1) close(guard);
  if (result == ZELK_SUCCESS) ++follower->kept;
  return result;
}

/* ---- Reading ------------------------------------------------------------------------------------------------------- */

/* Reports damage that lasts. Returns true when it has to be looked at again for that. */
static bool report_lasting(const follower_t& follower, followed_t* stack, const damage_t& damage, std::string* lines) {
  const bool is_lasting = damage == stack->seen;
  stack->seen = damage;
  if (damage.code == ZELK_SUCCESS) stack->told = damage;
  if (damage == stack->told) return false;
  if (!is_lasting) return true;
  stack->told = damage;
  report_damage(*follower.request, stack->name, damage, STATUS_DONE, lines);
  return false;
}

/* Reads the stack's open file, where nobody else has its lock; false then. */
static bool read_stack(const follower_t& follower, followed_t* stack, unread_t* unread) {
  struct flock lock = {};
  lock.l_type = F_WRLCK;
  lock.l_whence = SEEK_SET;
  const bool is_locked = !stack->open.is_read_only && fcntl(stack->open.fildes, F_SETLK, &lock) != 0;
  if (is_locked && (errno == EACCES || errno == EAGAIN)) return false;
  fstat(stack->open.fildes, &stack->file);
  /* A change that has the same time as this one is seen, too. */
  if (now_of(CLOCK_REALTIME) - milliseconds(stack->file.st_ctim) < TIME_GRAIN) stack->file.st_ctim = {};
  unread->mark = stack->mark;
  if (stack->file.st_size > follower.request->largest) {
    unread->damage = {ZELK_UNSUPPORTED, -1, english_text(TOOL_MSG_TOO_LARGE)};
    if (!stack->open.is_read_only) lockf(stack->open.fildes, F_ULOCK, 0);
  } else {
    *unread = read_unread(*follower.trace, stack->open, stack->name, follower.request->selection,
                          stack->is_known ? &stack->mark : nullptr);
  }
  return true;
}

/* Gives out what the stack's open file holds that has not been given out. */
static bool give_unread(follower_t* follower, followed_t* stack) {
  unread_t unread = {};
  const int64_t begun = now();
  if (!read_stack(*follower, stack, &unread)) {
    put_off(follower, stack);
    return true;
  }
  end_putting_off(stack);
  stack->cost = std::min<size_t>(std::bit_width(static_cast<uint64_t>(now() - begun)), COSTS - 1);
  const bool is_damaged = report_lasting(*follower, stack, unread.damage, &unread.lines);
  set_timer(follower, stack, is_damaged ? now() + DAMAGE_PAUSE : FOR_EVER);
  if (unread.is_more) enqueue(follower, stack);
  if (!write_lines(follower, unread.lines)) return false;
  stack->mark = unread.mark;
  stack->is_known = true;
  set_mark(follower, *stack);
  return true;
}

/* Opens the file of a stack that is not kept open. Returns false where it cannot be had now. */
static bool open_again(follower_t* follower, followed_t* stack) {
  struct stat status = {};
  if (stack->file.st_ino == 0) return false;
  const int result = open_unleased(follower, stack);
  if (result == ZELK_LOCK) put_off(follower, stack);
  if (result == ZELK_SUCCESS) fstat(stack->open.fildes, &status);
  if (status.st_ino == stack->file.st_ino) return true;
  close_stack(follower, stack);
  if (result != ZELK_LOCK) follower->is_rearranged = true; /* another one has its name */
  return false;
}

/* Reads a stack that is to be read, and lets go of its file where too many are open. */
static bool give_queued(follower_t* follower, followed_t* stack) {
  if (stack->open.fildes == -1 && !open_again(follower, stack)) return true;
  const bool is_given = give_unread(follower, stack);
  if (follower->kept > follower->kept_max) close_stack(follower, stack);
  return is_given;
}

/* ---- Names --------------------------------------------------------------------------------------------------------- */

/* Goes on where a stack was given out to before it was moved to this name. */
static void know_moved(follower_t* follower, followed_t* stack) {
  const mark_t* const mark = find_mark(follower->cursor, stack->path, stack->open.fildes);
  if (mark == nullptr || mark->inode != stack->file.st_ino) return;
  stack->is_known = true;
  if (stack->mark == *mark) return;
  stack->mark = *mark;
  move_mark(&follower->cursor, stack->path, stack->mark);
  follower->is_unsaved = true;
}

/* Whether another name that is followed leads to the stack's file, too. */
static bool has_other_name(const follower_t& follower, const followed_t& stack) {
  struct stat there;
  return std::any_of(follower.stacks.begin(), follower.stacks.end(), [&](const followed_t& other) {
    return &other != &stack && is_same_file(other.file, stack.file) && stat(other.path.c_str(), &there) == 0 &&
           is_same_file(there, stack.file);
  });
}

/* Takes the stack's file over from the name that it was moved from, so that one of them gives it out. */
static void take_over(follower_t* follower, const followed_t& stack) {
  struct stat there;
  for (followed_t& other : follower->stacks) {
    if (&other == &stack || !is_same_file(other.file, stack.file)) continue;
    if (stat(other.path.c_str(), &there) == 0 && is_same_file(there, stack.file)) continue;
    leave_file(follower, &other);
    other.mark = {}; /* the file may come back, and will have been given further by then */
  }
}

/* Opens the file that has the stack's name now, if there is one. */
static bool open_file(follower_t* follower, followed_t* stack) {
  const int result = open_unleased(follower, stack);
  if (result == ZELK_LOCK) {
    put_off(follower, stack);
    return true;
  }
  end_putting_off(stack);
  if (result == ZELK_SUCCESS) {
    fstat(stack->open.fildes, &stack->file);
    if (follower->is_started && stack->is_listed && has_other_name(*follower, *stack)) {
      close_stack(follower, stack);
      stack->file = {};
      stack->told = damage_of(ZELK_FILE_MISSING); /* forgotten like one */
      return true;
    }
    know_moved(follower, stack);
    watch_stack(follower, stack);
    enqueue(follower, stack);
    if (follower->is_started) take_over(follower, *stack);
    if (follower->kept > follower->kept_max) close_stack(follower, stack);
    return true;
  }
  stack->is_known = true;
  const damage_t damage = damage_of(result);
  if (damage == stack->told) return true;
  if (result == ZELK_FILE_MISSING) {
    if (!follower->is_started) complain_of_stack(stack->name, message_text(TOOL_MSG_NO_STACK_YET));
    stack->told = damage;
    return true;
  }
  std::string lines;
  stack->seen = damage; /* it is told at once */
  report_lasting(*follower, stack, damage, &lines);
  return write_lines(follower, lines);
}

/* Whether the stack's file, which has lost its name, has got one that is not followed: who has it open records there until a
 * new one is made. Of the stacks' folder, where a member may set aside as many as she likes, no more than a hundred count. */
static bool is_set_aside(follower_t* follower, const followed_t& stack, struct stat* own) {
  if (stack.open.fildes == -1 || fstat(stack.open.fildes, own) != 0 || own->st_nlink == 0) return false;
  if (stack.is_listed && follower->set_aside >= SET_ASIDE_MAX) return false;
  if (has_other_name(*follower, stack)) return false;
  ++follower->set_aside;
  return true;
}

/* Follows the stack's name to the file that has it now. What the file before it still holds is given out first; who holds
 * its lock does not matter, as nobody records there any more. */
static bool follow_name(follower_t* follower, followed_t* stack) {
  struct stat there;
  const bool is_there = stat(stack->path.c_str(), &there) == 0;
  const bool is_aside = !is_there && is_set_aside(follower, *stack, &there);
  if ((is_there || is_aside) && is_same_file(there, stack->file)) {
    if (stack->watch != -1) return true;
    const timespec &is = there.st_ctim, &was = stack->file.st_ctim;
    if (is.tv_sec != was.tv_sec || is.tv_nsec != was.tv_nsec) enqueue(follower, stack);
    if (is_there)
      watch_stack(follower, stack); /* others may have gone */
    else
      follower->is_unwatched = true;
    return true;
  }
  if (stack->file.st_ino != 0) {
    stop_watching(follower, stack);
    if (stack->is_queued) std::erase(follower->queues[stack->cost], stack);
    stack->is_queued = false;
    stack->open.is_read_only = true; /* it is read without its lock */
    if (stack->open.fildes != -1 && !give_unread(follower, stack)) return false;
    if (stack->is_queued) follower->is_rearranged = true; /* there is more */
    if (stack->is_queued) return true;
    close_stack(follower, stack);
    stack->file = {};
  }
  return open_file(follower, stack);
}

static void add_stack(follower_t* follower, const std::string& name, bool is_listed) {
  const zk_stack_path_t path = zk_stack_path(name.c_str());
  followed_t stack = {};
  stack.name = name;
  stack.path = path.data();
  stack.is_listed = is_listed;
  stack.open = {-1, false};
  stack.watch = -1;
  stack.is_known = follower->is_started;
  stack.again = FOR_EVER;
  const auto marked = follower->cursor.marks.find(stack.path);
  if (marked != follower->cursor.marks.end()) {
    stack.is_known = true;
    stack.mark = marked->second;
  }
  follower->stacks.push_back(stack);
}

static void list_new_stacks(follower_t* follower) {
  std::vector<std::string> names;
  const int result = list_stacks(&names);
  if (result != ZELK_SUCCESS && result != ZELK_DIR_MISSING && !follower->is_folder_told)
    complain(ZELK_STACK_DIR, reason_of(result));
  follower->is_folder_told = result != ZELK_SUCCESS;
  for (const std::string& name : names)
    if (follower->listed.insert(name).second) add_stack(follower, name, true);
}

/* Forgets names of the stacks' folder that have no file any more. */
static void forget_names(follower_t* follower) {
  for (auto stack = follower->stacks.begin(); stack != follower->stacks.end();) {
    if (!stack->is_listed || stack->told.code != ZELK_FILE_MISSING || stack->file.st_ino != 0 || stack->is_queued) {
      ++stack;
      continue;
    }
    set_timer(follower, &*stack, FOR_EVER);
    follower->listed.erase(stack->name);
    stack = follower->stacks.erase(stack);
  }
}

/* Forgets marks of names that have gone, once other names have taken over those of files that were moved. */
static void forget_marks(follower_t* follower) {
  if (!follower->request->is_every || follower->is_folder_told) return;
  std::vector<std::string> names(follower->listed.begin(), follower->listed.end());
  std::sort(names.begin(), names.end());
  if (forget_gone(&follower->cursor, names)) follower->is_unsaved = true;
}

/* Watches the folder or, while it is missing, the nearest one above it. */
static void watch_folder(follower_t* follower, const std::string& folder, std::set<int>* watches) {
  for (int nearest = -1;;) {
    std::string above = folder;
    int watch = add_watch(follower, above, FOLDER_EVENTS);
    while (watch == -1 && (errno == ENOENT || errno == ENOTDIR) && above != folder_of(above)) {
      above = folder_of(above);
      watch = add_watch(follower, above, FOLDER_EVENTS);
    }
    if (watch == nearest) { /* nothing came between looking and watching */
      if (watch != -1) watches->insert(watch);
      return;
    }
    nearest = watch;
  }
}

/* Adds the folders in which the file of a stack may appear: that of its path and, where that is a link, of what it leads
 * to. */
static void add_folders(std::string path, std::set<std::string>* folders) {
  folders->insert(folder_of(path));
  for (int links = 0; links < LINKS_MAX && follow_link(&path); ++links) folders->insert(folder_of(path));
}

/* Watches the folders in which stacks are or may appear, and no others. */
static void watch_folders(follower_t* follower) {
  std::set<std::string> wanted;
  std::set<int> watches;
  if (follower->request->is_every) wanted.insert(ZELK_STACK_DIR);
  for (const followed_t& stack : follower->stacks) add_folders(stack.path, &wanted);
  for (const std::string& folder : wanted) watch_folder(follower, folder, &watches);
  for (int watch : follower->folders)
    if (!watches.contains(watch)) inotify_rm_watch(follower->inotify, watch);
  follower->folders = watches;
}

/* Finds out which files are to be followed now. */
static bool rescan(follower_t* follower) {
  const int64_t begun = now();
  follower->is_rearranged = follower->is_unwatched = false;
  follower->set_aside = 0;
  watch_folders(follower);
  if (follower->request->is_every) list_new_stacks(follower);
  for (followed_t& stack : follower->stacks)
    if (!follow_name(follower, &stack)) return false;
  forget_names(follower);
  forget_marks(follower);
  follower->is_started = true;
  follower->next_rescan = now() + RESCAN_SHARE * (now() - begun);
  return true;
}

/* ---- Events -------------------------------------------------------------------------------------------------------- */

static void read_events(follower_t* follower) {
  alignas(inotify_event) std::array<char, 16384> events;
  for (ssize_t size; (size = read(follower->inotify, events.data(), events.size())) > 0;) {
    for (const char* at = events.data(); at < events.data() + size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      const auto [first, behind] = follower->watched.equal_range(event->wd);
      std::for_each(first, behind, [&](const auto& entry) { enqueue(follower, entry.second); });
      if ((event->mask & IN_Q_OVERFLOW) != 0)
        for (followed_t& stack : follower->stacks) enqueue(follower, &stack);
      if ((event->mask & ~uint32_t{IN_MODIFY}) != 0) follower->is_rearranged = true;
      at += sizeof(inotify_event) + event->len;
    }
  }
}

/* How long may pass until something has to be done. */
static int64_t pause_of(const follower_t& follower) {
  for (const auto& queue : follower.queues)
    if (!queue.empty()) return 0;
  int64_t next = follower.timers.empty() ? FOR_EVER : follower.timers.begin()->first;
  if (follower.is_rearranged) next = std::min(next, follower.next_rescan);
  if (follower.is_unwatched) next = std::min(next, std::max(follower.next_rescan, now() + LOOK_PAUSE));
  return next == FOR_EVER ? next : std::max(next - now(), int64_t{0});
}

/* Waits until something happens, or has to be done. */
static bool wait_for_events(follower_t* follower) {
  const int64_t pause = pause_of(*follower);
  if (pause > 0 && !keep_cursor(follower)) return false;
  std::array<pollfd, 2> descriptors = {{{follower->inotify, POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
  if (!wait_for(follower, descriptors.data(), descriptors.size(), pause)) return false;
  if ((descriptors[1].revents & POLLERR) != 0) return lose_reader(follower);
  if (descriptors[0].revents != 0) read_events(follower);
  if (follower->is_unwatched && pause > 0) follower->is_rearranged = true; /* all of it is looked at */
  return true;
}

/* Looks at the stacks whose time has come. */
static bool look_again(follower_t* follower) {
  while (!follower->timers.empty() && follower->timers.begin()->first <= now()) {
    followed_t* const stack = follower->timers.begin()->second;
    set_timer(follower, stack, FOR_EVER);
    if (stack->file.st_ino != 0)
      enqueue(follower, stack);
    else if (!follow_name(follower, stack))
      return false;
  }
  return true;
}

/* ---- The run ------------------------------------------------------------------------------------------------------- */

/* Lets the command have as many files open as it may. Returns how many stacks are kept open of them. */
static size_t raise_file_limit() {
  rlimit limit = {1024, 1024};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
  const auto files = static_cast<size_t>(std::min<rlim_t>(limit.rlim_max, INT_MAX));
  return files > 2 * SPARE_FILES ? files - SPARE_FILES : SPARE_FILES / 2;
}

/* Does what is to be done next. Returns false at the end of the run. */
static bool go_on(follower_t* follower) {
  if (is_output_moved != 0) {
    is_output_moved = 0;
    if (!open_output(*follower->request)) {
      follower->status = STATUS_FAILED;
      return false;
    }
  }
  if (follower->is_rearranged && now() >= follower->next_rescan && !rescan(follower)) return false;
  if (!look_again(follower)) return false;
  followed_t* const stack = dequeue(follower);
  if (stack != nullptr && !give_queued(follower, stack)) return false;
  if (now() - follower->saved >= SAVE_PAUSE && !keep_cursor(follower)) return false;
  return wait_for_events(follower);
}

int follow_json(const zk_trace_t& trace, const export_request_t& request) {
  follower_t follower = {};
  follower.trace = &trace;
  follower.request = &request;
  follower.cursor.file = request.cursor_file;
  follower.is_rearranged = true;
  follower.kept_max = raise_file_limit();
  std::string reason;
  if (!follower.cursor.file.empty() && !load_cursor(&follower.cursor, &reason))
    return complain(full_path(request.cursor_file), reason);
  if (!save_cursor(follower.cursor)) return STATUS_FAILED;
  follower.inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  handle_signals(&follower);
  for (const std::string& name : request.stacks) add_stack(&follower, name, false);

  while (go_on(&follower)) {
  }
  keep_cursor(&follower);
  return follower.status;
}
