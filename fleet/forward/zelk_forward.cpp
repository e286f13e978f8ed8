/* SPDX-License-Identifier: MIT */
/* zelk_forward.cpp - sends the lines of a node's spool folder to the middle by RELP, in their order, with a bounded number of them under
 * way. A line that has been answered for is done with; whatever else happens, it is sent again, and the database knows what it has. */
#include <getopt.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "channel.h"
#include "frame.h"
#include "spool.h"

/* Milliseconds. */
constexpr int64_t BEGINNING_TIME = 10'000; /* to connect, and to hear the first answer */
constexpr int64_t PAUSE_MIN = 1'000;
constexpr int64_t PAUSE_MAX = 10'000;
constexpr int64_t ENDING_TIME = 2'000; /* for answers that are under way */
constexpr int64_t NOTE_TIME = 1'000;
constexpr int64_t LOOK_TIME = 30'000; /* at the folder, although it has told nothing */

constexpr size_t WINDOW_LINES = 1'000;
constexpr size_t WINDOW_BYTES = 1 << 20;
constexpr size_t LINE_SIZE = FRAME_CONTENT_MAX - 1024; /* the rest is for where it comes from */

enum forward_state_t { FORWARD_AWAY, FORWARD_CONNECTING, FORWARD_SHAKING_HANDS, FORWARD_OPENING, FORWARD_OPEN };

struct forward_t {
  std::string host, port;
  std::string certificate, key, authority, revoked;
  std::string node; /* its name, which a certificate overrules */
  std::shared_ptr<certificates_t> certificates;
  spool_t spool;

  forward_state_t state;
  channel_t channel;
  channel_result_t wants; /* while it shakes hands */
  std::string in, out;
  int next_number;  /* of the next frame */
  int due_number;   /* of the next answer */
  size_t under_way; /* lines */
  unsigned int tries;
  std::string said; /* why it is away: told once */

  int64_t now, next_try, pause, deadline, noted;
  bool is_ending;
  int64_t end;
};

static void say(const char* format, ...) __attribute__((format(printf, 1, 2)));

static void say(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  std::fputs("zelk-forward: ", stderr);
  std::vfprintf(stderr, format, arguments);
  std::fputc('\n', stderr);
  va_end(arguments);
}

static int64_t milliseconds() {
  timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * int64_t{1000} + time.tv_nsec / 1'000'000;
}

/* ---- The connection ---------------------------------------------------------------------------------------------------- */

/* What is under way may not have arrived: it comes again. */
static void lose_middle(forward_t* forward, const std::string& reason) {
  if (reason != forward->said) say("%s: %s", forward->host.c_str(), reason.c_str());
  forward->said = reason;
  close_channel(&forward->channel);
  forward->channel = {};
  forward->in.clear();
  forward->out.clear();
  forward->under_way = 0;
  rewind_spool(&forward->spool);
  forward->state = FORWARD_AWAY;
  forward->next_try = forward->now + forward->pause;
  forward->pause = std::min(2 * forward->pause, PAUSE_MAX);
}

static void begin_connection(forward_t* forward) {
  std::string reason;
  const int fildes = connect_to(forward->host, forward->port, forward->tries++, &reason);
  if (fildes < 0) return lose_middle(forward, reason);
  if (!open_channel(&forward->channel, fildes, forward->certificates, false))
    return lose_middle(forward, "no memory for TLS");
  forward->state = FORWARD_CONNECTING;
  forward->deadline = forward->now + BEGINNING_TIME;
}

static void greet_middle(forward_t* forward) {
  std::string reason = connect_problem(forward->channel.fildes);
  if (!reason.empty()) return lose_middle(forward, reason);
  forward->state = FORWARD_SHAKING_HANDS;
  forward->wants = shake_hands(&forward->channel, forward->host.c_str(), &reason);
  if (forward->wants == CHANNEL_WANTS_READ || forward->wants == CHANNEL_WANTS_WRITE) return;
  if (forward->wants != CHANNEL_DONE)
    return lose_middle(forward, reason.empty() ? "it has closed the connection" : reason);
  forward->state = FORWARD_OPENING;
  forward->next_number = 1;
  forward->due_number = 1;
  append_frame(&forward->out, &forward->next_number, "open",
               "relp_version=0\nrelp_software=zelk-forward\ncommands=syslog");
}

/* Takes an answer. Returns what is wrong with it, or null. */
static const char* accept_answer(forward_t* forward, const frame_t& frame) {
  if (frame.command == "serverclose") return "it goes out of service";
  if (frame.command != "rsp" || frame.number != forward->due_number) return "an answer that is none";
  if (!frame.content.starts_with("200")) return "it does not take what it is sent";
  forward->due_number = forward->due_number == FRAME_NUMBER_MAX ? 1 : forward->due_number + 1;
  if (forward->state == FORWARD_OPENING) {
    say("%s: connected", forward->host.c_str());
    forward->said.clear();
    forward->state = FORWARD_OPEN;
    return nullptr;
  }
  if (forward->under_way == 0) return "an answer to nothing";
  --forward->under_way;
  forward->pause = PAUSE_MIN;
  acknowledge_line(&forward->spool);
  return nullptr;
}

static void read_answers(forward_t* forward) {
  std::array<char, 16384> bytes;
  for (;;) {
    size_t moved = 0;
    std::string reason;
    const channel_result_t result = read_channel(&forward->channel, bytes.data(), bytes.size(), &moved, &reason);
    if (result == CHANNEL_WANTS_READ || result == CHANNEL_WANTS_WRITE) return;
    if (result != CHANNEL_DONE) return lose_middle(forward, reason.empty() ? "it has closed the connection" : reason);
    forward->in.append(bytes.data(), moved);
    size_t at = 0;
    const char* problem = nullptr;
    frame_t frame;
    frame_result_t parsed = parse_frame(forward->in, &frame);
    while (parsed == FRAME_WHOLE && problem == nullptr) {
      problem = accept_answer(forward, frame);
      at += frame.size;
      parsed = parse_frame(std::string_view(forward->in).substr(at), &frame);
    }
    if (parsed == FRAME_BAD) problem = frame.reason;
    if (problem != nullptr) return lose_middle(forward, problem);
    forward->in.erase(0, at);
  }
}

static void write_lines(forward_t* forward) {
  spool_line_t line;
  while (forward->state == FORWARD_OPEN && !forward->is_ending && forward->under_way < WINDOW_LINES &&
         forward->out.size() < WINDOW_BYTES && next_line(&forward->spool, LINE_SIZE, &line)) {
    append_frame(&forward->out, &forward->next_number, "syslog", make_message(forward->node, line.place, line.line));
    ++forward->under_way;
  }
  size_t sent = 0;
  while (sent < forward->out.size()) {
    size_t moved = 0;
    std::string reason;
    const channel_result_t result =
        write_channel(&forward->channel, forward->out.data() + sent, forward->out.size() - sent, &moved, &reason);
    sent += moved;
    if (result == CHANNEL_CLOSED || result == CHANNEL_FAILED)
      return lose_middle(forward, reason.empty() ? "it has closed the connection" : reason);
    if (result != CHANNEL_DONE) break;
  }
  forward->out.erase(0, sent);
}

/* Does what can be done without waiting. */
static void turn(forward_t* forward, short events) {
  if (forward->state == FORWARD_AWAY && forward->now >= forward->next_try && !forward->is_ending)
    begin_connection(forward);
  else if ((forward->state == FORWARD_CONNECTING || forward->state == FORWARD_SHAKING_HANDS) && events != 0)
    greet_middle(forward);
  if (forward->state >= FORWARD_OPENING && events != 0) read_answers(forward);
  if (forward->state >= FORWARD_OPENING) write_lines(forward);
  if (forward->state > FORWARD_AWAY && forward->state < FORWARD_OPEN && forward->now > forward->deadline)
    lose_middle(forward, "it does not answer");
  if (forward->now - forward->noted >= NOTE_TIME) {
    forward->noted = forward->now;
    note_acknowledged(&forward->spool);
  }
}

/* ---- Waiting ----------------------------------------------------------------------------------------------------------- */

static short wanted_events(const forward_t* forward) {
  switch (forward->state) {
    case FORWARD_AWAY:
      return 0;
    case FORWARD_CONNECTING:
      return POLLOUT;
    case FORWARD_SHAKING_HANDS:
      return forward->wants == CHANNEL_WANTS_WRITE ? POLLOUT : POLLIN;
    default:
      return static_cast<short>(POLLIN | (forward->out.empty() ? 0 : POLLOUT));
  }
}

static int time_to_wait(const forward_t* forward) {
  int64_t until = forward->now + LOOK_TIME;
  if (forward->state == FORWARD_AWAY) until = forward->next_try;
  if (forward->state > FORWARD_AWAY && forward->state < FORWARD_OPEN) until = forward->deadline + 1;
  if (!forward->spool.is_noted) until = std::min(until, forward->noted + NOTE_TIME);
  if (forward->is_ending) until = std::min(until, forward->end);
  return static_cast<int>(std::max(int64_t{0}, until - forward->now));
}

static bool read_certificates(forward_t* forward) {
  if (forward->certificate.empty()) return true;
  std::string problem;
  auto certificates =
      load_certificates(forward->certificate, forward->key, forward->authority, forward->revoked, &problem);
  if (certificates == nullptr) {
    say("%s", problem.c_str());
    return false;
  }
  forward->certificates = std::move(certificates);
  return true;
}

static void read_signals(forward_t* forward, int fildes) {
  signalfd_siginfo signal = {};
  while (read(fildes, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) {
    if (signal.ssi_signo == SIGHUP) {
      if (read_certificates(forward) && forward->state != FORWARD_AWAY)
        lose_middle(forward, "connects anew, by the certificates as they are now");
    } else if (!forward->is_ending) {
      forward->is_ending = true;
      forward->end = forward->now + ENDING_TIME;
    }
  }
}

static bool has_ended(const forward_t* forward) {
  return forward->is_ending && (forward->under_way == 0 || forward->now >= forward->end);
}

static int run(forward_t* forward) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  const int signal_fildes = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
  const int folder_fildes = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
  if (inotify_add_watch(folder_fildes, forward->spool.folder.c_str(), IN_MODIFY | IN_CREATE | IN_MOVED_TO) < 0) {
    say("%s: cannot be watched", forward->spool.folder.c_str());
    return 1;
  }
  short events = 0;
  while (!has_ended(forward)) {
    turn(forward, events);
    std::array<pollfd, 3> sources = {
        {{signal_fildes, POLLIN, 0}, {folder_fildes, POLLIN, 0}, {forward->channel.fildes, wanted_events(forward), 0}}};
    poll(sources.data(), sources.size(), time_to_wait(forward));
    forward->now = milliseconds();
    events = sources[2].revents;
    std::array<char, 4096> told;
    while (read(folder_fildes, told.data(), told.size()) > 0) continue;
    const bool was_connected = forward->state != FORWARD_AWAY;
    read_signals(forward, signal_fildes);
    if (was_connected && forward->state == FORWARD_AWAY) events = 0;
  }
  note_acknowledged(&forward->spool);
  close_channel(&forward->channel);
  return 0;
}

/* ---- The command line -------------------------------------------------------------------------------------------------- */

static constexpr char HELP[] =
    "Usage: zelk-forward [OPTION...] MIDDLE[:PORT]\n"
    "Sends the lines of a node's spool folder to the middle; port 2514 unless given.\n\n"
    "  --spool=FOLDER          where zelk-spool writes, /var/lib/zelk/spool unless given\n"
    "  --state=FILE            notes there how far the middle has taken them, for the next start\n"
    "  --tls-certificate=FILE  certificate of this node, PEM\n"
    "  --tls-key=FILE          its key\n"
    "  --tls-ca=FILE           the authority of all certificates\n"
    "  --tls-crl=FILE          certificates of it that are revoked\n"
    "  -h, --help              prints this\n"
    "  --version               prints the version\n";

static int misuse(const std::string& problem) {
  std::fprintf(stderr, "zelk-forward: %s\nTry 'zelk-forward --help'\n", problem.c_str());
  return 2;
}

/* Parses the command line. Returns the exit status where that ends the run, else -1. */
static int parse_request(int argc, char** argv, forward_t* forward) {
  enum { SPOOL = 1, STATE, CERTIFICATE, KEY, AUTHORITY, REVOKED, VERSION };
  static constexpr option OPTIONS[] = {{"spool", required_argument, nullptr, SPOOL},
                                       {"state", required_argument, nullptr, STATE},
                                       {"tls-certificate", required_argument, nullptr, CERTIFICATE},
                                       {"tls-key", required_argument, nullptr, KEY},
                                       {"tls-ca", required_argument, nullptr, AUTHORITY},
                                       {"tls-crl", required_argument, nullptr, REVOKED},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, VERSION},
                                       {nullptr, 0, nullptr, 0}};
  std::string* const texts[] = {&forward->spool.folder, &forward->spool.state, &forward->certificate,
                                &forward->key,          &forward->authority,   &forward->revoked};
  int chosen = 0;
  while ((chosen = getopt_long(argc, argv, "h", OPTIONS, nullptr)) != -1) {
    if (chosen >= SPOOL && chosen <= REVOKED)
      *texts[chosen - SPOOL] = optarg;
    else if (chosen == 'h')
      return std::fputs(HELP, stdout) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
    else if (chosen == VERSION)
      return std::puts("zelk-forward " ZKVIEW_VERSION) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
    else {
      std::fputs("Try 'zelk-forward --help'\n", stderr); /* getopt has said why */
      return 2;
    }
  }
  if (optind + 1 != argc) return misuse("one middle is required");
  forward->port = "2514";
  const std::string middle = argv[optind];
  const bool has_port = middle.find(':') != middle.npos && !middle.ends_with(']');
  if (!split_address(has_port ? middle : middle + ":2514", &forward->host, &forward->port))
    return misuse(middle + ": not MIDDLE[:PORT]");
  const bool is_any = !forward->certificate.empty() || !forward->key.empty() || !forward->authority.empty();
  const bool is_all = !forward->certificate.empty() && !forward->key.empty() && !forward->authority.empty();
  if (is_any && !is_all) return misuse("--tls-certificate, --tls-key and --tls-ca belong together");
  if (!forward->revoked.empty() && !is_all) return misuse("--tls-crl says nothing without certificates");
  return -1;
}

int main(int argc, char** argv) {
  forward_t forward = {};
  forward.spool.folder = "/var/lib/zelk/spool";
  const int status = parse_request(argc, argv, &forward);
  if (status >= 0) return status;
  std::array<char, 256> name = {};
  if (gethostname(name.data(), name.size() - 1) == 0) forward.node = name.data();
  forward.now = milliseconds();
  forward.pause = PAUSE_MIN;
  open_spool(&forward.spool);
  if (!read_certificates(&forward)) return 1;
  std::signal(SIGPIPE, SIG_IGN);
  return run(&forward);
}
