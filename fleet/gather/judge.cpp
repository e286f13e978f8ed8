/* SPDX-License-Identifier: MIT */
/* judge.cpp - what a line is, as far as the database need not find it out: that takes it ten times as long. */
#include "judge.h"

#include "json_line.h"
#include "text.h"
#include "utc_time.h"
#include "zk_eid_layout.h"

int bucket_of_id(std::string_view id) {
  constexpr size_t MICROSECONDS_AT = offsetof(zk_eid_parts_t, time) + ZK_SECONDS_WIDTH;
  const std::string_view digits = base64_table;
  const size_t low = digits.find(id[MICROSECONDS_AT]);
  const size_t high = digits.find(id[MICROSECONDS_AT + 1]);
  return low == digits.npos || high == digits.npos ? -1 : static_cast<int>(low + digits.size() * high);
}

/* Whether zelk_read of the schema would say that of it, and zelk_time the same time: with as many seconds as a record has, its
 * floating point tells microseconds apart. */
static bool is_usual(const incident_t& incident) {
  return incident.id_time != NO_ID_TIME && incident.id_time / SECOND <= INT32_MAX &&
         incident.id.find_first_not_of(base64_table) == incident.id.npos && is_utf8(incident.cause);
}

bool judge_line(std::string_view line, judged_line_t* judged) {
  static incident_t incident; /* kept for their memory */
  static damage_t damage;
  static std::string written;
  if (parse_json_line(line, &incident, &damage) != line_kind_t::INCIDENT || !is_usual(incident)) return false;
  written.clear();
  write_json(incident, &written);
  if (written.size() != line.size() + 1 || !written.starts_with(line)) return false;
  *judged = {.key = incident.id,
             .cause = incident.cause,
             .time = incident.id_time,
             .bucket = static_cast<int16_t>(bucket_of_id(incident.id))};
  return true;
}
