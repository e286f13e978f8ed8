/* SPDX-License-Identifier: MIT */
/* gather.h - lines come from nodes, wait, and go to sinks: databases, or another gatherer. One thread does it all; whatever may
 * wait is a source that epoll tells of. */
#pragma once

#include <sys/epoll.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "channel.h"
#include "frame.h"

struct gather_t;

inline constexpr uint32_t READABLE = EPOLLIN;
inline constexpr uint32_t WRITABLE = EPOLLOUT;

/* Something that epoll watches; the first member of what it is part of. */
struct source_t {
  void (*ready)(gather_t* gather, source_t* source, uint32_t events);
  int fildes = -1;
  uint32_t events = 0; /* that are waited for */
};

/* ---- Lines ---------------------------------------------------------------------------------------------------------- */

struct node_t;

struct line_t {
  std::string message;
  syslog_line_t parts; /* of the message; the host may be that of a certificate */
  std::string host;
  node_t* node;    /* that waits for its answer */
  uint64_t serial; /* among the node's lines */
  int64_t arrived; /* milliseconds */
  bool is_refused; /* by the database, as a text */
  line_t* next;    /* in its queue */
};

struct queue_t {
  line_t* first = nullptr;
  line_t* last = nullptr;
  size_t passed = 0; /* bytes of turns that its first line was too long for */
};

/* ---- Nodes ---------------------------------------------------------------------------------------------------------- */

enum node_state_t { NODE_SHAKING_HANDS, NODE_OPENING, NODE_OPEN, NODE_CLOSED };

struct answer_t {
  int number; /* of the frame */
  bool is_due;
};

/* A connection of a node, or of a gatherer that relays for many. It lives until no line refers to it any more. */
struct node_t {
  source_t source;
  channel_t channel;
  node_state_t state;
  std::string address;
  std::string in; /* bytes that are no whole frame yet, or came while it was paused */
  std::string out;
  int last_number; /* of its frames */
  bool is_trusted; /* with the names of the hosts */
  bool is_paused;  /* enough of its lines wait */
  bool is_leaving; /* it has asked to: the last of its answers is that to "close", and then it is closed */
  bool is_touched; /* it is among those that have something to do */
  int64_t since;   /* when it came; when the unfinished frame, or the unsent answer, began */
  int64_t out_since;
  std::deque<answer_t> answers; /* to the lines from `first_serial` on, in their order */
  uint64_t first_serial;
  std::vector<queue_t> queues; /* one for each sink */
  size_t lines;                /* that wait or are under way */
  size_t bytes;
  size_t references; /* lines under way, turns, and that it is touched */
};

/* ---- Sinks ---------------------------------------------------------------------------------------------------------- */

enum sink_state_t { SINK_AWAY, SINK_CONNECTING, SINK_OPENING, SINK_IDLE, SINK_BUSY };

struct sink_t {
  source_t source;
  sink_state_t state;
  size_t number;
  std::string address;           /* conninfo, or ADDRESS:PORT of a gatherer */
  std::deque<node_t*> turns;     /* nodes with lines for it; each gives one at a time */
  std::deque<line_t*> under_way; /* oldest first */
  size_t under_way_bytes;
  int64_t next_try;   /* milliseconds */
  unsigned int tries; /* to connect to a gatherer */
  int64_t pause;      /* before the next try, grows while it fails */
  int64_t deadline;   /* of connecting */

  struct pg_conn* connection; /* a database: */
  size_t sent;                /* lines of the statement that runs */
  int64_t sent_at;            /* milliseconds */
  size_t limit;               /* lines of the next one, and */
  size_t byte_limit;          /* bytes: fewer while a statement takes so long that others wait */
  int64_t plain_until;        /* milliseconds: its schema knows zelk_put_many of three arrays only */
  std::string refusal;        /* SQLSTATE and message */

  channel_t channel; /* another gatherer: */
  std::string in, out;
  size_t forwarded; /* lines under way that have been sent */
  int next_number;  /* of the next frame */
  int due_number;   /* of the next answer */
};

/* ---- All of it ------------------------------------------------------------------------------------------------------ */

struct limits_t {
  size_t batch_lines = 2000;
  size_t batch_bytes = 4 << 20;
  size_t node_lines = 2000; /* of one node that wait */
  size_t node_bytes = 4 << 20;
  size_t lines = 200000; /* of all nodes */
  size_t bytes = 256 << 20;
  size_t nodes = 20000;
};

struct request_t {
  std::vector<std::string> listen;
  std::vector<std::string> databases;
  size_t sessions = 2; /* with each of them: while one waits for the disk another one has work */
  std::string relay;
  std::string certificate, key, authority, revoked;
  std::vector<std::string> trusted; /* names of certificates that may name the host of a line */
};

struct gather_t {
  request_t request;
  limits_t limits;
  int epoll;
  int64_t now;                                  /* milliseconds of a clock that only goes on */
  std::shared_ptr<certificates_t> certificates; /* null in the open */
  std::vector<std::unique_ptr<source_t>> listeners;
  bool is_accepting;
  std::vector<node_t*> nodes;
  std::vector<node_t*> closed; /* to be freed when nothing refers to them */
  std::deque<node_t*> touched; /* have answers to be sent, or may go on */
  size_t paused;               /* nodes */
  std::vector<std::unique_ptr<sink_t>> sinks;
  size_t lines; /* that wait or are under way */
  size_t bytes;
  bool is_ending;
  int64_t end;

  uint64_t lines_done, commits, nodes_come, nodes_refused; /* since the start */
};

/* log.cpp */
void say(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string shown(const std::string& text); /* bytes that another side has sent, fit for the log */

/* source.cpp */
void watch(gather_t* gather, source_t* source, int fildes, uint32_t events);
void unwatch(gather_t* gather, source_t* source);

/* intake.cpp */
bool listen_at(gather_t* gather, const std::string& address, std::string* problem);
void set_accepting(gather_t* gather, bool is_accepting);
void close_node(gather_t* gather, node_t* node, const char* reason); /* null for one that need not be told */
void expire_nodes(gather_t* gather);                                 /* once a second */
void judge_nodes_anew(gather_t* gather);                             /* by new certificates */
void go_on_with_nodes(gather_t* gather);                             /* after each round */
void say_goodbye(gather_t* gather);
void free_closed_nodes(gather_t* gather);

/* queue.cpp */
size_t sink_of(const gather_t* gather, const line_t* line);
void enqueue(gather_t* gather, sink_t* sink, line_t* line);
line_t* dequeue(gather_t* gather, sink_t* sink); /* null when nothing waits */
void drop_waiting(gather_t* gather, node_t* node);
void touch(gather_t* gather, node_t* node);  /* it is looked at soon */
void finish(gather_t* gather, line_t* line); /* it has been committed: answers and frees it */
bool is_full(const gather_t* gather, const node_t* node);

/* database.cpp, relay.cpp: one of them for each sink. A turn starts what can be started. */
void turn_database(gather_t* gather, sink_t* sink);
void turn_relay(gather_t* gather, sink_t* sink);
void close_database(gather_t* gather, sink_t* sink);
void close_relay(gather_t* gather, sink_t* sink);
