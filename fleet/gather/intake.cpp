/* SPDX-License-Identifier: MIT */
/* intake.cpp - connections of nodes: their frames come in, their answers go out. */
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "gather.h"

/* Milliseconds. */
constexpr int64_t OPENING_TIME = 10'000;
constexpr int64_t FRAME_TIME = 30'000; /* for a frame that has begun, and for answers that nobody reads */
constexpr size_t READ_SIZE = 64 * 1024;
constexpr size_t READS_A_ROUND = 4;
constexpr size_t NODES_A_ROUND = 64; /* that are answered before it looks at what else is ready */
constexpr size_t OUT_MAX = 1 << 20;  /* bytes of answers that nobody reads */
constexpr size_t HALF_OPEN_MAX = 4096;

static void node_is_ready(gather_t* gather, source_t* source, uint32_t events);

static node_t* node_of(source_t* source) {
  return reinterpret_cast<node_t*>(source);
}

/* ---- Coming and going ------------------------------------------------------------------------------------------------ */

static void log_node(gather_t* gather, const node_t* node, const char* reason) {
  static int64_t second = 0;
  static int said = 0;
  ++gather->nodes_refused;
  if (second != gather->now / 1000) {
    second = gather->now / 1000;
    said = 0;
  }
  if (++said > 10) return; /* whoever comes again and again shall not fill the log */
  const std::string name = node->channel.peer_name.empty() ? "" : " (" + shown(node->channel.peer_name) + ")";
  say("%s%s: %s", node->address.c_str(), name.c_str(), reason);
}

static void set_paused(gather_t* gather, node_t* node, bool is_paused) {
  if (node->is_paused) --gather->paused;
  if (is_paused) ++gather->paused;
  node->is_paused = is_paused;
}

void close_node(gather_t* gather, node_t* node, const char* reason) {
  if (node->state == NODE_CLOSED) return;
  if (reason != nullptr) log_node(gather, node, reason);
  node->state = NODE_CLOSED;
  unwatch(gather, &node->source);
  close_channel(&node->channel);
  drop_waiting(gather, node);
  set_paused(gather, node, false);
  gather->nodes.erase(std::find(gather->nodes.begin(), gather->nodes.end(), node));
  gather->closed.push_back(node);
  if (!gather->is_accepting && !gather->is_ending) set_accepting(gather, true);
}

void free_closed_nodes(gather_t* gather) {
  std::erase_if(gather->closed, [](node_t* node) {
    if (node->references > 0) return false;
    delete node;
    return true;
  });
}

/* Makes room for one more: of those that have not said who they are the oldest goes. */
static bool make_room(gather_t* gather) {
  size_t half_open = 0;
  node_t* oldest = nullptr;
  for (node_t* node : gather->nodes) {
    if (node->state == NODE_OPEN) continue;
    ++half_open;
    if (oldest == nullptr || node->since < oldest->since) oldest = node;
  }
  if (oldest == nullptr) return false;
  if (half_open >= HALF_OPEN_MAX || gather->nodes.size() >= gather->limits.nodes)
    close_node(gather, oldest, "too many connections have not begun");
  return true;
}

static void accept_node(gather_t* gather, int fildes, const sockaddr_storage& address, socklen_t size) {
  std::array<char, NI_MAXHOST> host = {};
  std::array<char, NI_MAXSERV> port = {};
  getnameinfo(reinterpret_cast<const sockaddr*>(&address), size, host.data(), host.size(), port.data(), port.size(),
              NI_NUMERICHOST | NI_NUMERICSERV);
  prepare_socket(fildes);
  node_t* const node = new node_t{};
  node->source.ready = node_is_ready;
  node->address = std::string(host.data()) + " port " + port.data();
  node->since = gather->now;
  node->queues.resize(gather->sinks.size());
  node->state = gather->certificates != nullptr ? NODE_SHAKING_HANDS : NODE_OPENING;
  node->is_trusted = gather->certificates == nullptr; /* in the open nobody need be who he says */
  gather->nodes.push_back(node);
  ++gather->nodes_come;
  watch(gather, &node->source, fildes, READABLE);
  if (!open_channel(&node->channel, fildes, gather->certificates, true)) close_node(gather, node, "no memory for TLS");
}

static void listener_is_ready(gather_t* gather, source_t* source, uint32_t) {
  for (int count = 0; count < 64; ++count) {
    if (gather->nodes.size() >= gather->limits.nodes) {
      if (count > 0) return; /* whether yet another one waits is told anew */
      if (!make_room(gather)) return set_accepting(gather, false);
    }
    sockaddr_storage address = {};
    socklen_t size = sizeof address;
    const int fildes =
        accept4(source->fildes, reinterpret_cast<sockaddr*>(&address), &size, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (fildes < 0) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) set_accepting(gather, false);
      return;
    }
    accept_node(gather, fildes, address, size);
  }
}

void set_accepting(gather_t* gather, bool is_accepting) {
  gather->is_accepting = is_accepting;
  for (const auto& listener : gather->listeners)
    watch(gather, listener.get(), listener->fildes, is_accepting ? READABLE : 0);
}

bool listen_at(gather_t* gather, const std::string& address, std::string* problem) {
  std::string host = "localhost";
  std::string port;
  const std::string option = "--listen=" + address + ": ";
  if (!split_address(address, &host, &port)) {
    *problem = option + "not [ADDRESS:]PORT";
    return false;
  }
  addrinfo hints = {};
  hints.ai_flags = AI_PASSIVE | AI_ADDRCONFIG;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  const int result = getaddrinfo(host == "*" ? nullptr : host.c_str(), port.c_str(), &hints, &found);
  if (result != 0) {
    *problem = option + gai_strerror(result);
    return false;
  }
  bool is_listening = false;
  for (const addrinfo* one = found; one != nullptr; one = one->ai_next) {
    const int fildes = socket(one->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const int on = 1;
    if (fildes >= 0) {
      setsockopt(fildes, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
      if (one->ai_family == AF_INET6) setsockopt(fildes, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
    }
    if (fildes < 0 || bind(fildes, one->ai_addr, one->ai_addrlen) != 0 || listen(fildes, SOMAXCONN) != 0) {
      *problem = option + std::strerror(errno);
      if (fildes >= 0) close(fildes);
      continue;
    }
    auto listener = std::make_unique<source_t>();
    listener->ready = listener_is_ready;
    watch(gather, listener.get(), fildes, READABLE);
    gather->listeners.push_back(std::move(listener));
    is_listening = true;
  }
  freeaddrinfo(found);
  gather->is_accepting = true;
  return is_listening;
}

/* ---- Answers --------------------------------------------------------------------------------------------------------- */

static void answer(gather_t* gather, node_t* node, int number, const std::string& text) {
  if (node->out.empty()) node->out_since = gather->now;
  node->out += std::to_string(number) + " rsp " + std::to_string(text.size()) + (text.empty() ? "" : " ") + text + "\n";
}

/* Sends what can be sent. */
static void write_node(gather_t* gather, node_t* node) {
  while (!node->out.empty()) {
    size_t moved = 0;
    std::string reason;
    const channel_result_t result = write_channel(&node->channel, node->out.data(), node->out.size(), &moved, &reason);
    node->out.erase(0, moved);
    if (moved > 0) node->out_since = gather->now;
    if (result == CHANNEL_DONE) continue;
    if (result == CHANNEL_CLOSED || result == CHANNEL_FAILED)
      return close_node(gather, node, result == CHANNEL_FAILED ? reason.c_str() : nullptr);
    break;
  }
  if (node->out.empty() && node->is_leaving && node->answers.empty()) return close_node(gather, node, nullptr);
  const bool takes_more = !node->is_paused && !node->is_leaving && !gather->is_ending && node->out.size() < OUT_MAX;
  watch(gather, &node->source, node->source.fildes, (takes_more ? READABLE : 0) | (node->out.empty() ? 0 : WRITABLE));
}

/* Answers the lines that have been committed, up to the first that has not. Behind the last one may stand a "close". */
static void answer_lines(gather_t* gather, node_t* node) {
  while (!node->answers.empty() && node->answers.front().is_due) {
    const bool is_close = node->is_leaving && node->answers.size() == 1;
    answer(gather, node, node->answers.front().number, is_close ? "" : "200 OK");
    if (is_close) node->out += "0 serverclose 0\n";
    node->answers.pop_front();
    ++node->first_serial;
  }
}

/* ---- Frames ---------------------------------------------------------------------------------------------------------- */

static void accept_line(gather_t* gather, node_t* node, const frame_t& frame) {
  line_t* const line = new line_t{};
  line->message = frame.content;
  line->parts = split_message(line->message);
  line->host = node->is_trusted ? std::string(line->parts.host) : node->channel.peer_name;
  line->node = node;
  line->serial = node->first_serial + node->answers.size();
  line->arrived = gather->now;
  node->answers.push_back({frame.number, false});
  enqueue(gather, gather->sinks[sink_of(gather, line)].get(), line);
}

static const char* accept_frame(gather_t* gather, node_t* node, const frame_t& frame) {
  const int wanted = node->last_number == FRAME_NUMBER_MAX ? 1 : node->last_number + 1;
  if (frame.number != wanted) return "a number that does not follow the one before it";
  node->last_number = frame.number;
  if (frame.command == "open" && node->state == NODE_OPENING) {
    node->state = NODE_OPEN;
    answer(gather, node, frame.number, "200 OK\nrelp_version=0\nrelp_software=zelk-gather\ncommands=syslog");
    return nullptr;
  }
  if (node->state != NODE_OPEN) return "a command before \"open\"";
  if (frame.command == "syslog") {
    accept_line(gather, node, frame);
    return nullptr;
  }
  if (frame.command != "close") return "a command that is unknown here";
  node->is_leaving = true;
  node->answers.push_back({frame.number, true});
  answer_lines(gather, node);
  return nullptr;
}

/* Takes the whole frames that have come. */
static void accept_frames(gather_t* gather, node_t* node) {
  size_t at = 0;
  const char* reason = nullptr;
  while (reason == nullptr && !node->is_leaving) {
    set_paused(gather, node, is_full(gather, node) || node->out.size() >= OUT_MAX);
    if (node->is_paused) break;
    frame_t frame;
    const frame_result_t result = parse_frame(std::string_view(node->in).substr(at), &frame);
    if (result == FRAME_SHORT) break;
    reason = result == FRAME_BAD ? frame.reason : accept_frame(gather, node, frame);
    at += frame.size;
  }
  if (reason != nullptr) return close_node(gather, node, (std::string("a frame that is none: ") + reason).c_str());
  if (at > 0) node->since = gather->now;
  node->in.erase(0, at);
  if (node->in.empty()) node->in = std::string(); /* most nodes are silent most of the time */
}

static void read_node(gather_t* gather, node_t* node) {
  static std::array<char, READ_SIZE> bytes;
  for (size_t count = 0; count < READS_A_ROUND && !node->is_paused && !node->is_leaving; ++count) {
    size_t moved = 0;
    std::string reason;
    const channel_result_t result = read_channel(&node->channel, bytes.data(), bytes.size(), &moved, &reason);
    if (result == CHANNEL_CLOSED || result == CHANNEL_FAILED)
      return close_node(gather, node, result == CHANNEL_FAILED ? reason.c_str() : nullptr);
    if (result != CHANNEL_DONE) break;
    if (node->in.empty()) node->since = gather->now;
    node->in.append(bytes.data(), moved);
    accept_frames(gather, node);
    if (node->state == NODE_CLOSED) return;
    if (moved < bytes.size() && node->channel.session == nullptr)
      break; /* that was all; asking costs as much as a line */
  }
  if (has_unread(&node->channel) && !node->is_paused) touch(gather, node);
}

static void greet_node(gather_t* gather, node_t* node) {
  std::string reason;
  const channel_result_t result = shake_hands(&node->channel, nullptr, &reason);
  if (result == CHANNEL_CLOSED || result == CHANNEL_FAILED)
    return close_node(gather, node, result == CHANNEL_FAILED ? reason.c_str() : "it left while TLS began");
  if (result != CHANNEL_DONE)
    return watch(gather, &node->source, node->source.fildes, result == CHANNEL_WANTS_WRITE ? WRITABLE : READABLE);
  if (node->channel.peer_name.empty() || shown(node->channel.peer_name) != node->channel.peer_name)
    return close_node(gather, node, "its certificate has no name");
  const std::vector<std::string>& trusted = gather->request.trusted;
  node->is_trusted = std::find(trusted.begin(), trusted.end(), node->channel.peer_name) != trusted.end();
  node->state = NODE_OPENING;
  if (has_unread(&node->channel)) touch(gather, node);
}

static void node_is_ready(gather_t* gather, source_t* source, uint32_t events) {
  node_t* const node = node_of(source);
  if (node->state == NODE_SHAKING_HANDS) {
    greet_node(gather, node);
    if (node->state != NODE_OPENING) return;
  }
  if ((events & (READABLE | EPOLLHUP | EPOLLERR)) != 0) read_node(gather, node);
  if (node->state != NODE_CLOSED) write_node(gather, node);
}

/* Whoever was paused and has room again goes on with what it had sent. */
static void resume_nodes(gather_t* gather) {
  const limits_t& limits = gather->limits;
  if (gather->paused == 0 || gather->is_ending || gather->lines > limits.lines / 4 * 3 ||
      gather->bytes > limits.bytes / 4 * 3)
    return;
  const std::vector<node_t*> nodes = gather->nodes;
  for (node_t* node : nodes) {
    if (!node->is_paused || node->state != NODE_OPEN || node->out.size() >= OUT_MAX) continue;
    if (node->lines > limits.node_lines / 2 || node->bytes > limits.node_bytes / 2) continue;
    node->since = gather->now;
    accept_frames(gather, node);
    if (node->state == NODE_OPEN && !node->is_paused) read_node(gather, node);
    if (node->state != NODE_CLOSED) write_node(gather, node);
  }
}

void go_on_with_nodes(gather_t* gather) {
  const size_t count = std::min(gather->touched.size(), NODES_A_ROUND);
  for (size_t at = 0; at < count; ++at) {
    node_t* const node = gather->touched.front();
    gather->touched.pop_front();
    node->is_touched = false;
    --node->references;
    if (node->state == NODE_CLOSED) continue;
    answer_lines(gather, node);
    if (has_unread(&node->channel) && !node->is_paused && !gather->is_ending) read_node(gather, node);
    if (node->state != NODE_CLOSED) write_node(gather, node);
  }
  if (count > 0) resume_nodes(gather);
}

void expire_nodes(gather_t* gather) {
  const std::vector<node_t*> nodes = gather->nodes;
  for (node_t* node : nodes) {
    const int64_t age = gather->now - node->since;
    if (node->state < NODE_OPEN && age > OPENING_TIME)
      close_node(gather, node, "nothing came by which it says that it is a node");
    else if (node->state == NODE_OPEN && !node->in.empty() && !node->is_paused && age > FRAME_TIME)
      close_node(gather, node, "the rest of a frame did not come");
    else if (!node->out.empty() && gather->now - node->out_since > FRAME_TIME)
      close_node(gather, node, "it does not take its answers");
  }
  resume_nodes(gather);
  if (!gather->is_accepting && !gather->is_ending) set_accepting(gather, true); /* descriptors may be there again */
}

/* Those that still shake hands do it by the old ones: they come again. */
void judge_nodes_anew(gather_t* gather) {
  const std::vector<node_t*> nodes = gather->nodes;
  for (node_t* node : nodes)
    if (!is_still_accepted(&node->channel, gather->certificates.get()))
      close_node(gather, node, "its certificate is not accepted any more");
}

void say_goodbye(gather_t* gather) {
  const std::vector<node_t*> nodes = gather->nodes;
  for (node_t* node : nodes) {
    answer_lines(gather, node);
    if (node->state == NODE_OPEN) node->out += "0 serverclose 0\n";
    write_node(gather, node);
    close_node(gather, node, nullptr);
  }
}
