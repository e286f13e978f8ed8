/* SPDX-License-Identifier: MIT */
/* follow.cpp - gives out incidents as they are recorded. The file system says when there is something to read.
 *
 * The signals that end the run, or ask for a new file of output, are blocked but while it waits: for the lock of a stack, for something to happen, for the
 * reader of its output. What the cursor says has been written then; only where a reader takes no more may a line be half
 * written. */
#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <csignal>
#include <cstring>
#include <set>
#include <string_view>

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

/* How long damage has to last until it is told: a stack may be just being copied into its place. */
static constexpr int DAMAGE_PAUSE = 200; /* milliseconds */

static constexpr int UNTIL_SOMETHING_HAPPENS = -1;

struct followed_t {
  std::string name;
  std::string path;
  open_stack_t open;   /* the file that is there, or was there last */
  int watch;           /* of that file, -1 for none */
  bool is_known;       /* what is overwritten from now on has been missed */
  bool is_changed;     /* it is to be read */
  mark_t mark;         /* how far it was given out */
  damage_t seen, told; /* the last damage, and the last that was told */
};

struct follower_t {
  const zk_trace_t* trace;
  const export_request_t* request;
  std::vector<followed_t> stacks;
  std::set<int> folders; /* watches of folders */
  cursor_t cursor;
  int inotify;
  bool is_started;    /* stacks that appear from now on are new */
  bool is_rearranged; /* files may have come, gone or been replaced */
};

/* ---- Waiting ------------------------------------------------------------------------------------------------------- */

static void end_run(int) {
  _exit(STATUS_DONE);
}

static sigset_t handled_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  for (int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  return signals;
}

/* SIGHUP asks for a new file of output. */
static volatile std::sig_atomic_t is_output_moved;
static void note_moved_output(int) {
  is_output_moved = 1;
}

/* Blocks the signals that end the run or ask for something, or lets them come. */
static void block_signals(bool is_blocked) {
  const sigset_t signals = handled_signals();
  sigprocmask(is_blocked ? SIG_BLOCK : SIG_UNBLOCK, &signals, nullptr);
}

/* Waits until one of the descriptors is ready or `timeout`, in milliseconds, is over. */
static void wait_for(pollfd* descriptors, nfds_t count, int timeout) {
  block_signals(false);
  poll(descriptors, count, timeout);
  block_signals(true);
}

/* Ends the run as writing to a closed pipe does. Returns false, having said so, where SIGPIPE is ignored. */
static bool lose_reader() {
  std::raise(SIGPIPE);
  complain(message_text(TOOL_MSG_STANDARD_OUTPUT), std::strerror(EPIPE));
  return false;
}

/* Writes each of the lines by itself, when their reader has room for them. A pipe that is ready has room for PIPE_BUF
 * bytes: more would have to wait where no signal is let through. */
static bool write_lines(std::string_view lines) {
  while (!lines.empty()) {
    const size_t size = std::min(lines.find('\n') + 1, size_t{PIPE_BUF});
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    wait_for(&output, 1, UNTIL_SOMETHING_HAPPENS);
    if (!write_out(lines.substr(0, size))) return false;
    lines.remove_prefix(size);
  }
  return true;
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

/* Keeps the cursor's file up to date. */
static bool keep_mark(follower_t* follower, const followed_t& stack) {
  if (follower->cursor.file.empty()) return true;
  const auto known = follower->cursor.marks.find(stack.path);
  if (known != follower->cursor.marks.end() && known->second == stack.mark) return true;
  follower->cursor.marks[stack.path] = stack.mark;
  std::string reason;
  if (save_cursor(follower->cursor, &reason)) return true;
  complain(full_path(follower->cursor.file), reason);
  return false;
}

/* Gives out what the stack's open file holds that has not been given out. */
static bool give_unread(follower_t* follower, followed_t* stack) {
  std::string lines;
  mark_t moved = stack->mark;
  block_signals(false); /* for as long as the lock is waited for */
  const bool is_locked =
      stack->open.is_read_only || wait_for_lock(EXPORT_NAME, stack->path, stack->open.fildes, F_SETLKW);
  block_signals(true);
  const damage_t damage = is_locked
                              ? read_unread(*follower->trace, stack->open, stack->name, follower->request->selection,
                                            stack->is_known ? &stack->mark : nullptr, &moved, &lines)
                              : damage_of(ZELK_LOCK);
  stack->mark = moved;
  stack->is_known = true;
  stack->is_changed = report_lasting(*follower, stack, damage, &lines);
  return write_lines(lines) && keep_mark(follower, *stack);
}

/* Goes on where a stack was given out to before it was moved to this name. */
static void know_moved(const follower_t& follower, followed_t* stack) {
  cursor_t given = follower.cursor;
  for (const followed_t& other : follower.stacks)
    if (other.is_known && other.mark.inode != 0) given.marks[other.path] = other.mark;
  const mark_t* const mark = find_mark(given, stack->path, stack->open.fildes);
  if (mark == nullptr || (stack->is_known && stack->mark.inode == mark->inode)) return;
  struct stat status;
  if (fstat(stack->open.fildes, &status) != 0 || status.st_ino != mark->inode) return;
  stack->is_known = true;
  stack->mark = *mark;
}

/* Opens the file that has the stack's name now, if there is one. */
static bool open_file(follower_t* follower, followed_t* stack) {
  const zk_trace_t& trace = *follower->trace;
  const int result = open_stack(trace, stack->name, &stack->open);
  if (result == ZELK_SUCCESS) {
    know_moved(*follower, stack);
    stack->is_changed = true;
    stack->watch = inotify_add_watch(follower->inotify, stack->path.c_str(), STACK_EVENTS);
    if (stack->watch != -1) return true;
    follower->is_rearranged = errno == ENOENT; /* it has just gone */
    if (!follower->is_rearranged) complain_of_stack(stack->name, message_text(TOOL_MSG_NOT_WATCHED, {std::strerror(errno)}));
    return follower->is_rearranged;
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
  return write_lines(lines);
}

static bool is_in_place(const followed_t& stack) {
  struct stat there, open;
  return stack.open.fildes != -1 && stat(stack.path.c_str(), &there) == 0 && fstat(stack.open.fildes, &open) == 0 &&
         there.st_ino == open.st_ino && there.st_dev == open.st_dev;
}

/* Stops watching the stack's file, unless another name of it is followed too. */
static void stop_watching(const follower_t* follower, followed_t* stack) {
  const auto& stacks = follower->stacks;
  const auto uses =
      std::count_if(stacks.begin(), stacks.end(), [&](const followed_t& other) { return other.watch == stack->watch; });
  if (uses == 1) inotify_rm_watch(follower->inotify, stack->watch);
  stack->watch = -1;
}

/* Follows the stack's name to the file that has it now. What the file before it still holds is given out first. */
static bool follow_name(follower_t* follower, followed_t* stack) {
  if (is_in_place(*stack)) return true;
  if (stack->open.fildes != -1) {
    const bool is_given = give_unread(follower, stack);
    close(stack->open.fildes);
    stop_watching(follower, stack);
    stack->open = {-1, false};
    stack->is_changed = false;
    if (!is_given) return false;
  }
  return open_file(follower, stack);
}

/* ---- Watching ------------------------------------------------------------------------------------------------------ */

static void add_stack(follower_t* follower, const std::string& name) {
  const zk_stack_path_t path = zk_stack_path(name.c_str());
  followed_t stack = {.name = name,
                      .path = path.data(),
                      .open = {-1, false},
                      .watch = -1,
                      .is_known = follower->is_started,
                      .is_changed = false,
                      .mark = {},
                      .seen = {},
                      .told = {}};
  const auto marked = follower->cursor.marks.find(stack.path);
  if (marked != follower->cursor.marks.end()) {
    stack.is_known = true;
    stack.mark = marked->second;
  }
  follower->stacks.push_back(stack);
}

static void add_new_stacks(follower_t* follower) {
  std::vector<std::string> names;
  list_stacks(&names);
  for (const std::string& name : names) {
    const auto& known = follower->stacks;
    if (std::none_of(known.begin(), known.end(), [&](const followed_t& stack) { return stack.name == name; }))
      add_stack(follower, name);
  }
}

/* The folder that holds what a path names. */
static std::string folder_of(const std::string& path) {
  const size_t slash = path.rfind('/');
  if (slash == path.npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

/* Watches the folder or, while it is missing, the nearest one above it. */
static void watch_folder(int inotify, const std::string& folder, std::set<int>* watches) {
  for (int nearest = -1;;) {
    std::string above = folder;
    int watch = inotify_add_watch(inotify, above.c_str(), FOLDER_EVENTS);
    while (watch == -1 && above != folder_of(above)) {
      above = folder_of(above);
      watch = inotify_add_watch(inotify, above.c_str(), FOLDER_EVENTS);
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
  constexpr int LINKS_MAX = 40; /* more are not followed by Linux either */
  for (int links = 0; links <= LINKS_MAX; ++links) {
    folders->insert(folder_of(path));
    std::array<char, PATH_MAX> target;
    const ssize_t size = readlink(path.c_str(), target.data(), target.size());
    if (size <= 0) return;
    const std::string_view name(target.data(), static_cast<size_t>(size));
    path = name[0] == '/' ? std::string(name) : folder_of(path) + "/" + std::string(name);
  }
}

/* Watches the folders in which stacks are or may appear, and no others. */
static void watch_folders(follower_t* follower) {
  std::set<std::string> wanted;
  std::set<int> watches;
  if (follower->request->is_every) wanted.insert(ZELK_STACK_DIR);
  for (const followed_t& stack : follower->stacks) add_folders(stack.path, &wanted);
  for (const std::string& folder : wanted) watch_folder(follower->inotify, folder, &watches);
  for (int watch : follower->folders)
    if (!watches.contains(watch)) inotify_rm_watch(follower->inotify, watch);
  follower->folders = watches;
}

/* Finds out which files are to be followed now. */
static bool rescan(follower_t* follower) {
  watch_folders(follower);
  if (follower->request->is_every) add_new_stacks(follower);
  for (followed_t& stack : follower->stacks)
    if (!follow_name(follower, &stack)) return false;
  return true;
}

/* Reads what has happened. */
static void read_events(follower_t* follower) {
  alignas(inotify_event) std::array<char, 16384> events;
  for (ssize_t size; (size = read(follower->inotify, events.data(), events.size())) > 0;) {
    for (const char* at = events.data(); at < events.data() + size;) {
      const auto* event = reinterpret_cast<const inotify_event*>(at);
      const bool is_lost = (event->mask & IN_Q_OVERFLOW) != 0;
      for (followed_t& stack : follower->stacks)
        if (is_lost || stack.watch == event->wd) stack.is_changed = stack.open.fildes != -1;
      if ((event->mask & ~uint32_t{IN_MODIFY}) != 0) follower->is_rearranged = true;
      at += sizeof(inotify_event) + event->len;
    }
  }
}

/* Waits until something happens; not for ever where damage may have to be told. */
static bool wait_for_events(follower_t* follower) {
  const auto& stacks = follower->stacks;
  const bool is_pending =
      std::any_of(stacks.begin(), stacks.end(), [](const followed_t& stack) { return stack.is_changed; });
  std::array<pollfd, 2> descriptors = {{{follower->inotify, POLLIN, 0}, {STDOUT_FILENO, 0, 0}}};
  wait_for(descriptors.data(), descriptors.size(), is_pending ? DAMAGE_PAUSE : UNTIL_SOMETHING_HAPPENS);
  if ((descriptors[1].revents & POLLERR) != 0) return lose_reader();
  read_events(follower);
  return true;
}

/* ---- The run ------------------------------------------------------------------------------------------------------- */

/* Lets the command have as many files open as it may. */
static void raise_file_limit() {
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

int follow_json(const zk_trace_t& trace, const export_request_t& request) {
  follower_t follower = {&trace, &request, {}, {}, {request.cursor_file, {}}, -1, false, true};
  std::string reason;
  if (!follower.cursor.file.empty() && !load_cursor(&follower.cursor, &reason)) {
    complain(full_path(request.cursor_file), reason);
    return STATUS_FAILED;
  }
  follower.inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (follower.inotify == -1) {
    complain("inotify", std::strerror(errno));
    return STATUS_FAILED;
  }
  block_signals(true);
  std::signal(SIGTERM, end_run);
  std::signal(SIGINT, end_run);
  if (!request.output.empty()) std::signal(SIGHUP, note_moved_output);
  raise_file_limit();
  for (const std::string& name : request.stacks) add_stack(&follower, name);

  for (;;) {
    if (is_output_moved != 0) {
      is_output_moved = 0;
      if (!open_output(request)) return STATUS_FAILED;
    }
    if (follower.is_rearranged) {
      follower.is_rearranged = false;
      if (!rescan(&follower)) return STATUS_FAILED;
      follower.is_started = true;
    }
    for (followed_t& stack : follower.stacks)
      if (stack.is_changed && !give_unread(&follower, &stack)) return STATUS_FAILED;
    if (!wait_for_events(&follower)) return STATUS_FAILED;
  }
}
