/* SPDX-License-Identifier: MIT */
/* journal.cpp - reads the journal of a run. */
#include "journal.h"

#include <systemd/sd-journal.h>

#include <charconv>
#include <string_view>

#include "text.h"

static constexpr size_t LINE_MAX = 300;        /* bytes of a line that are kept */
static constexpr size_t FIELD_MAX = 2048;      /* bytes of a field that are looked at */
static constexpr int ENTRIES_MAX = 200;        /* that are looked at, from the newest on */
static constexpr uint64_t SHORT_WAIT = 50'000; /* microseconds */
static constexpr int WAITS_MAX = 10;

/* The value of a field of the entry that the journal is at. */
static std::string_view field(sd_journal* journal, const char* name) {
  const void* text = nullptr;
  size_t size = 0;
  if (sd_journal_get_data(journal, name, &text, &size) < 0) return {};
  const std::string_view whole(static_cast<const char*>(text), size);
  const size_t start = whole.find('=');
  return start != whole.npos ? whole.substr(start + 1) : std::string_view{};
}

/* A message as one line of text. */
static std::string one_line(std::string_view message) {
  std::string line = readable(message.substr(0, FIELD_MAX));
  for (char& character : line)
    if (character == '\n' || character == '\t') character = ' ';
  if (line.size() <= LINE_MAX) return line;
  size_t end = 0;
  while (end + character_at(line, end).size <= LINE_MAX - 3) end += character_at(line, end).size;
  return line.substr(0, end) + "...";
}

static void match(sd_journal* journal, const std::string& field_and_value) {
  sd_journal_add_match(journal, field_and_value.data(), field_and_value.size());
}

/* Whether systemd has written that the run failed: what its processes wrote before is then on its way, at the latest. */
static bool is_told_failed(sd_journal* journal, const std::string& invocation) {
  sd_journal_flush_matches(journal);
  match(journal, "INVOCATION_ID=" + invocation);
  match(journal, "_PID=1");
  match(journal, "MESSAGE_ID=d9b373ed55a64feb8242e02dbe79a49c"); /* "UNIT: Failed with result ..." */
  sd_journal_seek_tail(journal);
  return sd_journal_previous(journal) > 0;
}

/* Whether an entry of the unit, or of one of its processes, is of its last run. Where a process had ended before journald looked
 * at it, the entry does not name the run, or not even the unit. Then its time tells. */
static bool is_of_run(sd_journal* journal, const unit_t& unit) {
  if (field(journal, "_PID") == "1") return true; /* only those that name the run are asked for */
  const std::string_view invocation = field(journal, "_SYSTEMD_INVOCATION_ID");
  uint64_t time = 0; /* microseconds since the Epoch */
  if (!invocation.empty()) return invocation == unit.invocation;
  const std::string_view name = field(journal, "_SYSTEMD_UNIT");
  return (name.empty() || name == unit.name) && sd_journal_get_realtime_usec(journal, &time) >= 0 &&
         time >= static_cast<uint64_t>(unit.started);
}

run_t read_run(const unit_t& unit, size_t room) {
  run_t run;
  sd_journal* journal = nullptr;
  if (unit.invocation.empty() || sd_journal_open(&journal, SD_JOURNAL_LOCAL_ONLY) < 0) return run;
  sd_journal_set_data_threshold(journal, FIELD_MAX);
  for (int waits = 0; waits < WAITS_MAX && !is_told_failed(journal, unit.invocation); ++waits)
    sd_journal_wait(journal, SHORT_WAIT);

  /* What its processes wrote, and errors that systemd reports of it. */
  sd_journal_flush_matches(journal);
  match(journal, "_SYSTEMD_INVOCATION_ID=" + unit.invocation);
  sd_journal_add_disjunction(journal);
  match(journal, "_SYSTEMD_UNIT=" + unit.name);
  sd_journal_add_disjunction(journal);
  match(journal, "_PID=" + std::to_string(unit.process_id));
  for (const int32_t process_id : unit.processes) match(journal, "_PID=" + std::to_string(process_id));
  sd_journal_add_disjunction(journal);
  match(journal, "INVOCATION_ID=" + unit.invocation);
  match(journal, "_PID=1");
  for (const char* priority : {"0", "1", "2", "3"}) match(journal, std::string("PRIORITY=") + priority);
  sd_journal_seek_tail(journal);
  bool has_room = true;
  for (int entries = 0; entries < ENTRIES_MAX && sd_journal_previous(journal) > 0; ++entries) {
    if (!is_of_run(journal, unit)) continue;
    const std::string_view digits = field(journal, "_PID");
    int32_t process_id = 0;
    std::from_chars(digits.data(), digits.data() + digits.size(), process_id);
    if (process_id > 1) run.processes.insert(process_id);
    const std::string line = has_room ? one_line(field(journal, "MESSAGE")) : "";
    has_room = has_room && line.size() + 1 <= room;
    if (!has_room || line.empty()) continue;
    room -= line.size() + 1;
    run.lines = run.lines.empty() ? line : line + "\n" + run.lines;
  }
  sd_journal_close(journal);
  return run;
}
