/* SPDX-License-Identifier: MIT */
/* database.cpp - lines that go to a database: what waits is one statement and one commit. */
#include <libpq-fe.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include "gather.h"
#include "judge.h"
#include "text.h"

/* Milliseconds. */
constexpr int64_t CONNECTING_TIME = 10'000;
constexpr int64_t PAUSE_MIN = 100;
constexpr int64_t PAUSE_MAX = 3'000;

/* A statement should take no longer than this, since a line may have to wait for two of them. */
constexpr int64_t STATEMENT_TIME = 200;
constexpr size_t BATCH_BYTES_MIN = 128 << 10;

/* Until the functions of a schema of before are looked at anew. */
constexpr int64_t PLAIN_TIME = 60'000;

constexpr uint32_t TEXT_OID = 25;

static void database_is_ready(gather_t* gather, source_t* source, uint32_t events);

/* ---- Connecting ------------------------------------------------------------------------------------------------------ */

static void put_off(gather_t* gather, sink_t* sink) {
  sink->next_try = gather->now + sink->pause;
  sink->pause = std::min(2 * sink->pause, PAUSE_MAX);
}

void close_database(gather_t* gather, sink_t* sink) {
  unwatch(gather, &sink->source);
  PQfinish(sink->connection);
  sink->connection = nullptr;
  sink->sent = 0;
  sink->state = SINK_AWAY;
}

static void lose_database(gather_t* gather, sink_t* sink, const char* what) {
  const char* const reason = sink->connection != nullptr ? PQerrorMessage(sink->connection) : "no memory";
  say("session %zu: %s: %.*s", sink->number + 1, what, static_cast<int>(std::strcspn(reason, "\n")), reason);
  close_database(gather, sink);
  put_off(gather, sink);
}

static void begin_database(gather_t* gather, sink_t* sink) {
  /* What stands behind dbname may be changed by it. A machine that has vanished is given up after a minute at most, also while its
   * answer is waited for. */
  const char* const keys[] = {"fallback_application_name", "tcp_user_timeout", "keepalives_idle", "keepalives_interval",
                              "keepalives_count",          "dbname",           "client_encoding", nullptr};
  const char* const values[] = {"zelk-gather", "30000", "30", "10", "3", sink->address.c_str(), "UTF8", nullptr};
  sink->source.ready = database_is_ready;
  sink->connection = PQconnectStartParams(keys, values, 1);
  if (sink->connection == nullptr || PQstatus(sink->connection) == CONNECTION_BAD)
    return lose_database(gather, sink, "cannot connect");
  sink->state = SINK_CONNECTING;
  sink->deadline = gather->now + CONNECTING_TIME;
  watch(gather, &sink->source, PQsocket(sink->connection), WRITABLE);
}

static void go_on_connecting(gather_t* gather, sink_t* sink) {
  const PostgresPollingStatusType status = PQconnectPoll(sink->connection);
  if (status == PGRES_POLLING_FAILED) return lose_database(gather, sink, "cannot connect");
  unwatch(gather, &sink->source); /* it may be another socket by now, of the same number */
  watch(gather, &sink->source, PQsocket(sink->connection), status == PGRES_POLLING_WRITING ? WRITABLE : READABLE);
  if (status != PGRES_POLLING_OK) return;
  if (PQsetnonblocking(sink->connection, 1) != 0) return lose_database(gather, sink, "cannot connect");
  say("session %zu: connected", sink->number + 1);
  sink->state = SINK_IDLE;
  sink->next_try = gather->now;
}

/* ---- The statement --------------------------------------------------------------------------------------------------- */

static void put_number(std::string* bytes, uint32_t number) {
  if constexpr (std::endian::native == std::endian::little) number = __builtin_bswap32(number);
  bytes->append(reinterpret_cast<const char*>(&number), sizeof number);
}

/* The head of an array of texts, as PostgreSQL sends one: dimensions, whether there are nulls, type of the elements, their count
 * from 1. */
static void begin_array(std::string* bytes, size_t count) {
  bytes->clear();
  for (const uint32_t number : {uint32_t{1}, uint32_t{1}, TEXT_OID, static_cast<uint32_t>(count), uint32_t{1}})
    put_number(bytes, number);
}

static void put_text(std::string* bytes, std::string_view text) {
  put_number(bytes, static_cast<uint32_t>(text.size()));
  bytes->append(text);
}

static void put_text_or_null(std::string* bytes, std::string_view text) {
  if (text.empty()) return put_number(bytes, ~uint32_t{0});
  put_text(bytes, text);
}

/* The line, or what stands for it where it is no text, or not one that the database takes. */
static void put_line(std::string* bytes, const line_t* line) {
  static constexpr char HEXADECIMAL[] = "0123456789abcdef";
  const std::string_view text = line->parts.line;
  if (!line->is_refused && !text.starts_with("\\x") && text.find('\0') == text.npos && is_utf8(text))
    return put_text(bytes, text);
  std::string digits = "\\x";
  for (const char character : text) {
    digits += HEXADECIMAL[static_cast<unsigned char>(character) >> 4];
    digits += HEXADECIMAL[static_cast<unsigned char>(character) & 0xF];
  }
  put_text(bytes, digits);
}

static void send_lines(gather_t* gather, sink_t* sink) {
  enum { HOSTS, PLACES, LINES, KEYS, CAUSES, ARRAYS };
  static std::array<std::string, ARRAYS> arrays; /* with an element for each line */
  static std::string key, cause;
  const bool is_plain = gather->now < sink->plain_until;
  sink->sent = std::min(sink->limit, sink->under_way.size());
  for (std::string& array : arrays) begin_array(&array, sink->sent);
  for (size_t at = 0; at < sink->sent; ++at) {
    const line_t* const line = sink->under_way[at];
    put_text(&arrays[HOSTS], line->host);
    put_text(&arrays[PLACES], line->parts.place);
    put_line(&arrays[LINES], line);
    if (is_plain) continue;
    if (line->is_refused || !judge_line(line->parts.line, &key, &cause)) key = cause = "";
    put_text_or_null(&arrays[KEYS], key);
    put_text_or_null(&arrays[CAUSES], cause);
  }
  std::array<const char*, ARRAYS> values;
  std::array<int, ARRAYS> lengths;
  for (size_t at = 0; at < arrays.size(); ++at) {
    values[at] = arrays[at].data();
    lengths[at] = static_cast<int>(arrays[at].size());
  }
  constexpr int BINARY[ARRAYS] = {1, 1, 1, 1, 1};
  const char* const statement =
      is_plain ? "SELECT zelk_put_many($1::text[], $2::text[], $3::text[])"
               : "SELECT zelk_put_many($1::text[], $2::text[], $3::text[], $4::text[], $5::text[])";
  sink->refusal.clear();
  if (PQsendQueryParams(sink->connection, statement, is_plain ? KEYS : ARRAYS, nullptr, values.data(), lengths.data(),
                        BINARY, 0) == 0)
    return lose_database(gather, sink, "lost");
  sink->state = SINK_BUSY;
  sink->sent_at = gather->now;
  for (std::string& array : arrays)
    if (array.capacity() > (1 << 20)) array = std::string();
  database_is_ready(gather, &sink->source, WRITABLE);
}

/* Whether the database refuses what the lines say, rather than being unable to take any. */
static bool is_about_lines(const std::string& refusal) {
  for (const char* state : {"22", "54"}) /* data exception, program limit */
    if (refusal.starts_with(state)) return true;
  return false;
}

/* The statement has ended, and with it the transaction. */
static void end_statement(gather_t* gather, sink_t* sink) {
  sink->state = SINK_IDLE;
  const size_t sent = sink->sent;
  sink->sent = 0;
  if (sink->refusal.empty()) {
    const size_t bytes = sink->under_way_bytes;
    for (size_t at = 0; at < sent; ++at) {
      line_t* const line = sink->under_way.front();
      sink->under_way.pop_front();
      sink->under_way_bytes -= line->message.size();
      finish(gather, line);
    }
    ++gather->commits;
    sink->limit = std::min(2 * sink->limit, gather->limits.batch_lines);
    sink->pause = PAUSE_MIN;
    const int64_t time = gather->now - sink->sent_at;
    if (time > STATEMENT_TIME)
      sink->byte_limit = std::max(sink->byte_limit / 2, BATCH_BYTES_MIN);
    else if (time < STATEMENT_TIME / 2 && bytes > sink->byte_limit / 2)
      sink->byte_limit = std::min(sink->byte_limit * 2, gather->limits.batch_bytes);
    return;
  }
  say("session %zu: %s", sink->number + 1, sink->refusal.c_str());
  if (sink->refusal.starts_with("42883") && gather->now >= sink->plain_until) { /* no such function */
    sink->plain_until = gather->now + PLAIN_TIME;
    return;
  }
  if (!is_about_lines(sink->refusal)) return put_off(gather, sink);
  /* Some line is at fault: it is found by halves, and then sent as bytes that are kept but not read. */
  if (sent > 1)
    sink->limit = sent / 2;
  else if (!sink->under_way.front()->is_refused)
    sink->under_way.front()->is_refused = true;
  else
    put_off(gather, sink);
}

static void read_result(sink_t* sink, PGresult* result) {
  const ExecStatusType status = PQresultStatus(result);
  if (status != PGRES_TUPLES_OK) {
    const char* const state = PQresultErrorField(result, PG_DIAG_SQLSTATE);
    const char* const message = PQresultErrorField(result, PG_DIAG_MESSAGE_PRIMARY);
    sink->refusal = std::string(state != nullptr ? state : "?") + " " + (message != nullptr ? message : "no answer");
  }
  PQclear(result);
}

static void database_is_ready(gather_t* gather, source_t* source, uint32_t events) {
  sink_t* const sink = reinterpret_cast<sink_t*>(source);
  if (sink->state == SINK_CONNECTING) return go_on_connecting(gather, sink);
  if ((events & ~WRITABLE) != 0 && PQconsumeInput(sink->connection) == 0) return lose_database(gather, sink, "lost");
  if (sink->state != SINK_BUSY) return;
  const int unsent = PQflush(sink->connection);
  if (unsent < 0) return lose_database(gather, sink, "lost");
  watch(gather, source, source->fildes, READABLE | (unsent > 0 ? WRITABLE : 0));

  while (sink->state == SINK_BUSY && PQisBusy(sink->connection) == 0) {
    PGresult* const result = PQgetResult(sink->connection);
    if (result != nullptr)
      read_result(sink, result);
    else if (PQstatus(sink->connection) != CONNECTION_OK)
      return lose_database(gather, sink, "lost");
    else
      end_statement(gather, sink); /* null comes behind the commit, not before it */
  }
}

void turn_database(gather_t* gather, sink_t* sink) {
  if (sink->state == SINK_CONNECTING && gather->now > sink->deadline)
    return lose_database(gather, sink, "does not answer");
  if (gather->now < sink->next_try) return;
  if (sink->state == SINK_AWAY) return begin_database(gather, sink);
  if (sink->state != SINK_IDLE) return;
  const limits_t& limits = gather->limits;
  while (sink->under_way.size() < limits.batch_lines && sink->under_way_bytes < sink->byte_limit) {
    line_t* const line = dequeue(gather, sink);
    if (line == nullptr) break;
    sink->under_way_bytes += line->message.size();
    sink->under_way.push_back(line);
  }
  if (!sink->under_way.empty()) send_lines(gather, sink);
}
