/* SPDX-License-Identifier: MIT */
/* relay.cpp - lines that go to another gatherer, whose answers are handed back. */
#include <algorithm>
#include <array>

#include "gather.h"

/* Milliseconds. */
constexpr int64_t CONNECTING_TIME = 10'000;
constexpr int64_t PAUSE_MIN = 100;
constexpr int64_t PAUSE_MAX = 3'000;

static void relay_is_ready(gather_t* gather, source_t* source, uint32_t events);

void close_relay(gather_t* gather, sink_t* sink) {
  unwatch(gather, &sink->source);
  close_channel(&sink->channel);
  sink->channel = {};
  sink->in.clear();
  sink->out.clear();
  sink->forwarded = 0; /* what has had no answer is sent again */
  sink->state = SINK_AWAY;
}

static void lose_relay(gather_t* gather, sink_t* sink, const std::string& reason) {
  say("%s: %s", sink->address.c_str(), shown(reason).c_str());
  close_relay(gather, sink);
  sink->next_try = gather->now + sink->pause;
  sink->pause = std::min(2 * sink->pause, PAUSE_MAX);
}

static void begin_relay(gather_t* gather, sink_t* sink) {
  std::string host, port, reason;
  split_address(sink->address, &host, &port);
  const int fildes = connect_to(host, port, sink->tries++, &reason);
  if (fildes < 0) return lose_relay(gather, sink, reason);
  sink->source.ready = relay_is_ready;
  sink->next_number = 1;
  sink->state = SINK_CONNECTING;
  sink->deadline = gather->now + CONNECTING_TIME;
  watch(gather, &sink->source, fildes, WRITABLE);
  if (!open_channel(&sink->channel, fildes, gather->certificates, false)) lose_relay(gather, sink, "no memory for TLS");
}

static void greet_relay(gather_t* gather, sink_t* sink) {
  std::string host, port, reason;
  split_address(sink->address, &host, &port);
  const std::string problem = connect_problem(sink->source.fildes);
  if (!problem.empty()) return lose_relay(gather, sink, problem);
  switch (shake_hands(&sink->channel, host.c_str(), &reason)) {
    case CHANNEL_WANTS_READ:
      return watch(gather, &sink->source, sink->source.fildes, READABLE);
    case CHANNEL_WANTS_WRITE:
      return watch(gather, &sink->source, sink->source.fildes, WRITABLE);
    case CHANNEL_DONE:
      sink->state = SINK_OPENING;
      append_frame(&sink->out, &sink->next_number, "open",
                   "relp_version=0\nrelp_software=zelk-gather\ncommands=syslog");
      sink->due_number = 1;
      return;
    default:
      return lose_relay(gather, sink, reason.empty() ? "it has closed the connection" : reason);
  }
}

/* Takes an answer. Returns what is wrong with it, or null. */
static const char* accept_answer(gather_t* gather, sink_t* sink, const frame_t& frame) {
  if (frame.command == "serverclose") return "it goes out of service";
  if (frame.command != "rsp" || frame.number != sink->due_number) return "an answer that is none";
  if (!frame.content.starts_with("200")) return "it does not take what it is sent";
  sink->due_number = sink->due_number == FRAME_NUMBER_MAX ? 1 : sink->due_number + 1;
  sink->pause = PAUSE_MIN;
  if (sink->state == SINK_OPENING) {
    say("%s: connected", sink->address.c_str());
    sink->state = SINK_IDLE;
    return nullptr;
  }
  if (sink->forwarded == 0) return "an answer to nothing";
  --sink->forwarded;
  line_t* const line = sink->under_way.front();
  sink->under_way.pop_front();
  sink->under_way_bytes -= line->message.size();
  finish(gather, line);
  return nullptr;
}

static bool read_answers(gather_t* gather, sink_t* sink) {
  std::array<char, 16384> bytes;
  for (;;) {
    size_t moved = 0;
    std::string reason;
    const channel_result_t result = read_channel(&sink->channel, bytes.data(), bytes.size(), &moved, &reason);
    if (result == CHANNEL_WANTS_READ || result == CHANNEL_WANTS_WRITE) return true;
    if (result != CHANNEL_DONE) {
      lose_relay(gather, sink, reason.empty() ? "it has closed the connection" : reason);
      return false;
    }
    sink->in.append(bytes.data(), moved);
    size_t at = 0;
    const char* problem = nullptr;
    frame_t frame;
    frame_result_t parsed = parse_frame(std::string_view(sink->in).substr(at), &frame);
    while (parsed == FRAME_WHOLE && problem == nullptr) {
      problem = accept_answer(gather, sink, frame);
      at += frame.size;
      parsed = parse_frame(std::string_view(sink->in).substr(at), &frame);
    }
    if (parsed == FRAME_BAD) problem = frame.reason;
    if (problem != nullptr) {
      lose_relay(gather, sink, problem);
      return false;
    }
    sink->in.erase(0, at);
  }
}

static void write_relay(gather_t* gather, sink_t* sink) {
  while (!sink->out.empty()) {
    size_t moved = 0;
    std::string reason;
    const channel_result_t result = write_channel(&sink->channel, sink->out.data(), sink->out.size(), &moved, &reason);
    sink->out.erase(0, moved);
    if (result == CHANNEL_CLOSED || result == CHANNEL_FAILED)
      return lose_relay(gather, sink, reason.empty() ? "it has closed the connection" : reason);
    if (result != CHANNEL_DONE) break;
  }
  watch(gather, &sink->source, sink->source.fildes, READABLE | (sink->out.empty() ? 0 : WRITABLE));
}

static void relay_is_ready(gather_t* gather, source_t* source, uint32_t) {
  sink_t* const sink = reinterpret_cast<sink_t*>(source);
  if (sink->state == SINK_CONNECTING) greet_relay(gather, sink);
  if (sink->state < SINK_OPENING || !read_answers(gather, sink)) return;
  write_relay(gather, sink);
}

/* Forwards a line with the host that it has here. */
static void forward(sink_t* sink, const line_t* line) {
  append_frame(&sink->out, &sink->next_number, "syslog", make_message(line->host, line->parts.place, line->parts.line));
  ++sink->forwarded;
}

void turn_relay(gather_t* gather, sink_t* sink) {
  if ((sink->state == SINK_CONNECTING || sink->state == SINK_OPENING) && gather->now > sink->deadline)
    return lose_relay(gather, sink, "it does not answer");
  if (gather->now < sink->next_try) return;
  if (sink->state == SINK_AWAY) return begin_relay(gather, sink);
  if (sink->state != SINK_IDLE) return;

  const limits_t& limits = gather->limits;
  const bool is_silent = sink->out.empty();
  while (sink->out.size() < limits.batch_bytes && sink->forwarded < limits.batch_lines &&
         sink->under_way_bytes < limits.batch_bytes) {
    if (sink->forwarded == sink->under_way.size()) {
      line_t* const line = dequeue(gather, sink);
      if (line == nullptr) break;
      sink->under_way.push_back(line);
      sink->under_way_bytes += line->message.size();
    }
    forward(sink, sink->under_way[sink->forwarded]);
  }
  if (is_silent && !sink->out.empty()) write_relay(gather, sink);
}
