/* SPDX-License-Identifier: MIT */
/* judge.cpp - what a line is, as far as the database need not find it out: that takes it ten times as long. */
#include "judge.h"

#include "json_line.h"
#include "text.h"
#include "zk_eid_layout.h"

bool judge_line(std::string_view line, std::string* key, std::string* cause) {
  static incident_t incident; /* these are kept for their memory */
  static damage_t damage;
  static std::string written;
  if (parse_json_line(line, &incident, &damage) != line_kind_t::INCIDENT) return false;
  /* What has a time is as long as an Error ID, and only its entry may be anything. */
  const std::string_view entry = std::string_view(incident.id).substr(0, offsetof(zk_eid_parts_t, time));
  if (incident.id_time == NO_ID_TIME || entry.find_first_not_of(base64_table) != entry.npos) return false;
  if (!is_utf8(incident.cause)) return false; /* the database keeps the text that stands for those bytes */
  written.clear();
  write_json(incident, &written);
  if (written.size() != line.size() + 1 || !written.starts_with(line)) return false;
  *key = incident.id;
  *cause = incident.cause;
  return true;
}
