/* SPDX-License-Identifier: MIT */
/* queue.cpp - lines that wait for a sink. Nodes take turns, a line each, so that one with many holds up nobody;
 * a line of many times the usual length, which costs the database as much more, takes as many turns. */
#include <functional>

#include "gather.h"

constexpr std::string_view DIGITS = "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr size_t BUCKETS = 4096;
constexpr size_t ID_SIZE = 42;
constexpr size_t MICROSECONDS_AT = 13; /* in an Error ID */
constexpr size_t TURN_SIZE = 2048;     /* bytes; most lines have 700 */

/* The bucket of a line's key, as zelk_bucket of the schema has it. A database passes on what it should not have got, so
 * any answer will do for what has no Error ID, as long as it is always the same. */
static size_t bucket_of(const line_t* line) {
  constexpr std::string_view MEMBER = ",\"id\":\"";
  const std::string_view text = line->parts.line;
  const size_t at = text.find(MEMBER);
  if (at != text.npos && text.size() - at >= MEMBER.size() + ID_SIZE) {
    const size_t digits = at + MEMBER.size() + MICROSECONDS_AT;
    const size_t low = DIGITS.find(text[digits]);
    const size_t high = DIGITS.find(text[digits + 1]);
    if (low != DIGITS.npos && high != DIGITS.npos) return low + DIGITS.size() * high;
  }
  return std::hash<std::string_view>()(text) % BUCKETS;
}

size_t sink_of(const gather_t* gather, const line_t* line) {
  const size_t count = gather->sinks.size();
  return count == 1 ? 0 : bucket_of(line) * count / BUCKETS;
}

void enqueue(gather_t* gather, sink_t* sink, line_t* line) {
  node_t* const node = line->node;
  queue_t* const queue = &node->queues[sink->number];
  line->next = nullptr;
  if (queue->first == nullptr) {
    queue->first = line;
    sink->turns.push_back(node);
    ++node->references;
  } else {
    queue->last->next = line;
  }
  queue->last = line;
  ++node->lines;
  node->bytes += line->message.size();
  ++gather->lines;
  gather->bytes += line->message.size();
}

static void forget(gather_t* gather, const line_t* line) {
  --line->node->lines;
  line->node->bytes -= line->message.size();
  --gather->lines;
  gather->bytes -= line->message.size();
}

line_t* dequeue(gather_t*, sink_t* sink) {
  while (!sink->turns.empty()) {
    node_t* const node = sink->turns.front();
    sink->turns.pop_front();
    queue_t* const queue = &node->queues[sink->number];
    line_t* const line = queue->first;
    if (line == nullptr) { /* the node has gone meanwhile */
      --node->references;
      continue;
    }
    queue->passed += TURN_SIZE;
    if (queue->passed < line->message.size()) {
      sink->turns.push_back(node);
      continue;
    }
    queue->passed = 0;
    queue->first = line->next;
    if (queue->first != nullptr) {
      sink->turns.push_back(node);
      ++node->references;
    }
    return line; /* the reference of the turn is the line's now */
  }
  return nullptr;
}

void drop_waiting(gather_t* gather, node_t* node) {
  for (queue_t& queue : node->queues) {
    while (queue.first != nullptr) {
      line_t* const line = queue.first;
      queue.first = line->next;
      forget(gather, line);
      delete line;
    }
  }
}

void touch(gather_t* gather, node_t* node) {
  if (node->is_touched) return;
  node->is_touched = true;
  ++node->references;
  gather->touched.push_back(node);
}

void finish(gather_t* gather, line_t* line) {
  node_t* const node = line->node;
  forget(gather, line);
  --node->references;
  ++gather->lines_done;
  if (node->state == NODE_OPEN) {
    node->answers[line->serial - node->first_serial].is_due = true;
    touch(gather, node);
  }
  delete line;
}

bool is_full(const gather_t* gather, const node_t* node) {
  const limits_t& limits = gather->limits;
  return node->lines >= limits.node_lines || node->bytes >= limits.node_bytes || gather->lines >= limits.lines ||
         gather->bytes >= limits.bytes;
}
