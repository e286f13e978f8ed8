/* SPDX-License-Identifier: MIT */
/* input.cpp - the input is a line of standard input of zkexport. One that is accepted is written again as a line that
 * says the same, and that one comes out as it is. */
#include <string>

#include "fuzz.h"
#include "json_line.h"

static std::string written(line_kind_t kind, const incident_t& incident, const damage_t& damage) {
  std::string line;
  if (kind == line_kind_t::INCIDENT) write_json(incident, &line);
  if (kind == line_kind_t::GAP) write_json_gap(incident.stack, &line);
  if (kind == line_kind_t::DAMAGE) write_json_damage(incident.stack, damage, &line);
  FUZZ_EXPECT(line.find('\n') == line.size() - 1);
  line.pop_back();
  return line;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  incident_t incident, again;
  damage_t damage;
  const line_kind_t kind = parse_json_line({reinterpret_cast<const char*>(data), size}, &incident, &damage);
  if (kind == line_kind_t::NOTHING) return 0;
  const std::string line = written(kind, incident, damage);
  FUZZ_EXPECT(parse_json_line(line, &again, &damage) == kind);
  FUZZ_EXPECT(written(kind, again, damage) == line);
  return 0;
}
