/* SPDX-License-Identifier: MIT */
/* zelk_gather.cpp - takes the lines of many nodes by RELP, and answers when what waits on all connections has been committed by
 * one statement. It keeps nothing: killed at any moment, nothing that it has answered for is lost. */
#include <getopt.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "gather.h"

/* Milliseconds. */
constexpr int64_t ROUND_TIME = 1'000;
constexpr int64_t STATUS_TIME = 60'000;
constexpr int64_t ENDING_TIME = 4'500;
constexpr int64_t LAST_BATCH_TIME = 3'000; /* before the end: nothing new is begun */

constexpr size_t OTHER_FILES = 64;

/* ---- Telling systemd and the administrator ----------------------------------------------------------------------------- */

/* Tells systemd, where it waits to hear. */
static void notify(const char* state) {
  const char* const name = getenv("NOTIFY_SOCKET");
  if (name == nullptr || (name[0] != '/' && name[0] != '@')) return;
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  const size_t size = std::strlen(name);
  if (size >= sizeof address.sun_path) return;
  std::memcpy(address.sun_path, name, size);
  if (name[0] == '@') address.sun_path[0] = '\0';
  const int fildes = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fildes < 0) return;
  sendto(fildes, state, std::strlen(state), MSG_NOSIGNAL | MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&address),
         static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + size));
  close(fildes);
}

static void say_status(const gather_t* gather) {
  int64_t oldest = gather->now;
  for (const auto& sink : gather->sinks)
    if (!sink->under_way.empty()) oldest = std::min(oldest, sink->under_way.front()->arrived);
  for (const node_t* node : gather->nodes)
    for (const queue_t& queue : node->queues)
      if (queue.first != nullptr) oldest = std::min(oldest, queue.first->arrived);
  size_t away = 0;
  for (const auto& sink : gather->sinks) away += sink->state < SINK_IDLE ? 1U : 0U;
  say("status: %llu lines in %llu commits; %zu connections, %llu since the start, %llu refused; %zu lines (%zu KiB) "
      "wait, the oldest for %.1f s; %zu of %zu %s away",
      static_cast<unsigned long long>(gather->lines_done), static_cast<unsigned long long>(gather->commits),
      gather->nodes.size(), static_cast<unsigned long long>(gather->nodes_come),
      static_cast<unsigned long long>(gather->nodes_refused), gather->lines, gather->bytes / 1024,
      static_cast<double>(gather->now - oldest) / 1000, away, gather->sinks.size(),
      gather->request.relay.empty() ? "sessions" : "gatherers");
}

/* ---- Waiting ----------------------------------------------------------------------------------------------------------- */

static int64_t milliseconds() {
  timespec time = {};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * int64_t{1000} + time.tv_nsec / 1'000'000;
}

/* How long nothing need be done unless a source is ready. */
static int time_to_wait(const gather_t* gather) {
  if (!gather->touched.empty()) return 0;
  int64_t wait = ROUND_TIME;
  for (const auto& sink : gather->sinks)
    if (sink->state == SINK_AWAY || (sink->state == SINK_IDLE && gather->lines > 0))
      wait = std::min(wait, std::max(int64_t{1}, sink->next_try - gather->now));
  return static_cast<int>(gather->is_ending ? std::min(wait, int64_t{50}) : wait);
}

/* ---- The command line -------------------------------------------------------------------------------------------------- */

/* Says what is wrong with the command line. Returns the exit status. */
static int misuse(const std::string& problem) {
  std::fprintf(stderr, "zelk-gather: %s\nTry 'zelk-gather --help'\n", problem.c_str());
  return 2;
}

static int check_request(const request_t& request) {
  std::string host, port;
  if (request.databases.empty() == request.relay.empty()) return misuse("either --database or --relay is required");
  if (!request.relay.empty() && (!split_address(request.relay, &host, &port) || host.empty()))
    return misuse("--relay: not ADDRESS:PORT");
  const bool is_any = !request.certificate.empty() || !request.key.empty() || !request.authority.empty();
  const bool is_all = !request.certificate.empty() && !request.key.empty() && !request.authority.empty();
  if (is_any && !is_all) return misuse("--tls-certificate, --tls-key and --tls-ca belong together");
  if (!request.revoked.empty() && !is_all) return misuse("--tls-crl says nothing without certificates");
  if (!request.trusted.empty() && !is_all) return misuse("--trust says nothing without certificates");
  return 0;
}

static bool parse_count(const std::string& digits, size_t most, size_t* count) {
  if (digits.empty() || digits.size() > 5 || digits.find_first_not_of("0123456789") != digits.npos) return false;
  *count = std::stoul(digits);
  return *count >= 1 && *count <= most;
}

static constexpr char HELP[] =
    "Usage: zelk-gather [OPTION...] --database=CONNINFO...\n"
    "       zelk-gather [OPTION...] --relay=ADDRESS:PORT\n"
    "Takes the incidents of many nodes, as zkexport writes them, and puts them into a database.\n\n"
    "  --listen=[ADDRESS:]PORT  where nodes reach it; port 2514 of this machine only unless given\n"
    "  --database=CONNINFO      where it puts lines; several share them, in this order\n"
    "  --relay=ADDRESS:PORT     hands lines on to another gatherer instead\n"
    "  --tls-certificate=FILE   certificate of this gatherer, PEM\n"
    "  --tls-key=FILE           its key\n"
    "  --tls-ca=FILE            the authority of all certificates\n"
    "  --tls-crl=FILE           certificates of it that are revoked\n"
    "  --trust=NAME             certificate of a relay, whose lines keep the hosts that they name\n"
    "  --sessions=NUMBER        sessions with each database at a time, 2 unless given\n"
    "  --lines=NUMBER           most lines in one commit, 2000 unless given\n"
    "  -h, --help               prints this\n"
    "  --version                prints the version\n\n"
    "--listen, --database and --trust may be given several times.\n";

/* Parses the command line. Returns the exit status where that ends the run, else -1. */
static int parse_request(int argc, char** argv, gather_t* gather) {
  enum { LISTEN = 1, DATABASE, RELAY, CERTIFICATE, KEY, AUTHORITY, REVOKED, TRUST, SESSIONS, LINES, VERSION };
  static constexpr option OPTIONS[] = {{"listen", required_argument, nullptr, LISTEN},
                                       {"database", required_argument, nullptr, DATABASE},
                                       {"relay", required_argument, nullptr, RELAY},
                                       {"tls-certificate", required_argument, nullptr, CERTIFICATE},
                                       {"tls-key", required_argument, nullptr, KEY},
                                       {"tls-ca", required_argument, nullptr, AUTHORITY},
                                       {"tls-crl", required_argument, nullptr, REVOKED},
                                       {"trust", required_argument, nullptr, TRUST},
                                       {"sessions", required_argument, nullptr, SESSIONS},
                                       {"lines", required_argument, nullptr, LINES},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, VERSION},
                                       {nullptr, 0, nullptr, 0}};
  request_t* const request = &gather->request;
  int chosen = 0;
  while ((chosen = getopt_long(argc, argv, "h", OPTIONS, nullptr)) != -1) {
    switch (chosen) {
      case LISTEN:
        request->listen.push_back(optarg);
        break;
      case DATABASE:
        request->databases.push_back(optarg);
        break;
      case RELAY:
        request->relay = optarg;
        break;
      case CERTIFICATE:
        request->certificate = optarg;
        break;
      case KEY:
        request->key = optarg;
        break;
      case AUTHORITY:
        request->authority = optarg;
        break;
      case REVOKED:
        request->revoked = optarg;
        break;
      case TRUST:
        request->trusted.push_back(optarg);
        break;
      case LINES:
        if (!parse_count(optarg, 99999, &gather->limits.batch_lines))
          return misuse("--lines: not a number from 1 to 99999");
        break;
      case SESSIONS:
        if (!parse_count(optarg, 16, &request->sessions)) return misuse("--sessions: not a number from 1 to 16");
        break;
      case 'h':
        return std::fputs(HELP, stdout) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
      case VERSION:
        return std::puts("zelk-gather " ZKVIEW_VERSION) < 0 || std::fflush(stdout) != 0 ? 1 : 0;
      default:
        std::fputs("Try 'zelk-gather --help'\n", stderr); /* getopt has said why */
        return 2;
    }
  }
  if (optind < argc) return misuse(std::string("unexpected argument: ") + shown(argv[optind]));
  if (request->listen.empty()) request->listen = {"2514"};
  const int status = check_request(*request);
  return status != 0 ? status : -1;
}

/* ---- Beginning and ending ----------------------------------------------------------------------------------------------- */

/* As many descriptors as it may have, and no more connections than those. */
static void allow_nodes(gather_t* gather) {
  rlimit files = {};
  getrlimit(RLIMIT_NOFILE, &files);
  files.rlim_cur = files.rlim_max;
  setrlimit(RLIMIT_NOFILE, &files);
  const size_t allowed = files.rlim_cur > 2 * OTHER_FILES ? files.rlim_cur - OTHER_FILES : OTHER_FILES;
  gather->limits.nodes = std::min(gather->limits.nodes, allowed);
}

/* Sessions of one database are neighbours, so each database gets the lines of as many buckets as if it had one. */
static void add_sinks(gather_t* gather) {
  const request_t& request = gather->request;
  std::vector<std::string> addresses;
  for (const std::string& database : request.databases) addresses.insert(addresses.end(), request.sessions, database);
  if (addresses.empty()) addresses.push_back(request.relay);
  for (const std::string& address : addresses) {
    auto sink = std::make_unique<sink_t>();
    sink->number = gather->sinks.size();
    sink->address = address;
    sink->pause = 100;
    sink->limit = gather->limits.batch_lines;
    sink->byte_limit = gather->limits.batch_bytes / 16;
    gather->sinks.push_back(std::move(sink));
  }
}

static bool read_certificates(gather_t* gather) {
  const request_t& request = gather->request;
  if (request.certificate.empty()) return true;
  std::string problem;
  auto certificates = load_certificates(request.certificate, request.key, request.authority, request.revoked, &problem);
  if (certificates == nullptr) {
    say("%s", problem.c_str());
    return false;
  }
  gather->certificates = std::move(certificates);
  return true;
}

/* Whoever was let in by a certificate that does not hold any more has to go. */
static void read_certificates_anew(gather_t* gather) {
  if (!read_certificates(gather)) return;
  say("has read its certificates anew");
  judge_nodes_anew(gather);
  if (gather->request.relay.empty()) return;
  for (const auto& sink : gather->sinks)
    if (sink->state >= SINK_OPENING && !is_still_accepted(&sink->channel, gather->certificates.get()))
      close_relay(gather, sink.get());
}

static bool is_loopback(const std::string& address) {
  std::string host = "localhost", port;
  split_address(address, &host, &port);
  return host == "localhost" || host == "::1" || host.starts_with("127.");
}

static bool start_listening(gather_t* gather) {
  for (const std::string& address : gather->request.listen) {
    std::string problem;
    if (!listen_at(gather, address, &problem)) {
      say("%s", problem.c_str());
      return false;
    }
    say("listens at %s%s", address.c_str(), gather->certificates != nullptr ? " by TLS" : "");
    if (gather->certificates == nullptr && !is_loopback(address))
      say("%s is in the open: whoever reaches it can add incidents under any name", address.c_str());
  }
  return true;
}

static void begin_to_end(gather_t* gather) {
  if (gather->is_ending) return;
  notify("STOPPING=1");
  gather->is_ending = true;
  gather->end = gather->now + ENDING_TIME;
  for (const auto& listener : gather->listeners) { /* which stay: epoll may have told of them, too */
    const int fildes = listener->fildes;
    unwatch(gather, listener.get());
    close(fildes);
  }
  for (node_t* node : gather->nodes)
    watch(gather, &node->source, node->source.fildes, node->out.empty() ? 0 : WRITABLE);
}

/* Whether nothing is left that could still be committed. */
static bool has_ended(const gather_t* gather) {
  if (!gather->is_ending) return false;
  if (gather->now >= gather->end) return true;
  const bool takes_no_more = gather->now > gather->end - ENDING_TIME + LAST_BATCH_TIME;
  return std::all_of(gather->sinks.begin(), gather->sinks.end(), [&](const std::unique_ptr<sink_t>& sink) {
    if (sink->state < SINK_IDLE) return true;
    const bool is_silent = sink->state == SINK_IDLE && sink->under_way.empty();
    return is_silent && (takes_no_more || sink->turns.empty());
  });
}

static void read_signals(gather_t* gather, source_t* source, uint32_t) {
  signalfd_siginfo signal = {};
  while (read(source->fildes, &signal, sizeof signal) == static_cast<ssize_t>(sizeof signal)) {
    switch (signal.ssi_signo) {
      case SIGHUP:
        notify("RELOADING=1");
        read_certificates_anew(gather);
        notify("READY=1");
        break;
      case SIGUSR1:
        say_status(gather);
        break;
      default:
        begin_to_end(gather);
    }
  }
}

static void watch_signals(gather_t* gather, source_t* source) {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1}) sigaddset(&signals, signal);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
  source->ready = read_signals;
  watch(gather, source, signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), READABLE);
}

/* ---- The rounds --------------------------------------------------------------------------------------------------------- */

/* Starts what can be started. */
static void turn_sinks(gather_t* gather) {
  const bool takes_no_more = gather->is_ending && gather->now > gather->end - ENDING_TIME + LAST_BATCH_TIME;
  for (const auto& sink : gather->sinks) {
    if (takes_no_more && sink->state == SINK_IDLE && sink->under_way.empty()) continue;
    gather->request.relay.empty() ? turn_database(gather, sink.get()) : turn_relay(gather, sink.get());
  }
}

static void run(gather_t* gather) {
  int64_t second = gather->now;
  int64_t minute = gather->now;
  std::array<epoll_event, 64> events; /* no more, so that what a database says is not answered late */
  while (!has_ended(gather)) {
    turn_sinks(gather);
    const int count = epoll_wait(gather->epoll, events.data(), static_cast<int>(events.size()), time_to_wait(gather));
    gather->now = milliseconds();
    for (int at = 0; at < count; ++at) {
      source_t* const source = static_cast<source_t*>(events[static_cast<size_t>(at)].data.ptr);
      if (source->fildes >= 0) source->ready(gather, source, events[static_cast<size_t>(at)].events);
    }
    turn_sinks(gather); /* whose next lines need not wait while a thousand nodes are answered */
    go_on_with_nodes(gather);
    if (gather->now - second >= ROUND_TIME) {
      second = gather->now;
      expire_nodes(gather);
      notify("WATCHDOG=1");
    }
    if (gather->now - minute >= STATUS_TIME) {
      minute = gather->now;
      say_status(gather);
    }
    free_closed_nodes(gather);
  }
}

int main(int argc, char** argv) {
  gather_t gather = {};
  const int status = parse_request(argc, argv, &gather);
  if (status >= 0) return status;
  gather.epoll = epoll_create1(EPOLL_CLOEXEC);
  gather.now = milliseconds();
  source_t signals;
  watch_signals(&gather, &signals);
  allow_nodes(&gather);
  add_sinks(&gather);
  if (!read_certificates(&gather) || !start_listening(&gather)) return 1;
  notify("READY=1");

  run(&gather);

  say_goodbye(&gather);
  say_status(&gather);
  for (const auto& sink : gather.sinks)
    gather.request.relay.empty() ? close_database(&gather, sink.get()) : close_relay(&gather, sink.get());
  return 0;
}
