/* SPDX-License-Identifier: MIT */
/* json_line.h - incidents as lines of JSON, written and parsed. */
#pragma once

#include <string>
#include <string_view>

#include "damage.h"
#include "incident.h"

/* Each appends one line to `lines`: an incident; that incidents were overwritten before they could be read; damage. */
void write_json(const incident_t& incident, std::string* lines);
void write_json_gap(const std::string& stack, std::string* lines);
void write_json_damage(const std::string& stack, const damage_t& damage, std::string* lines);

/* What a line holds. */
enum class line_kind_t { NOTHING, INCIDENT, GAP, DAMAGE };

/* Parses a line, without its newline. It has to hold all that is written above and nothing that is never written: each
 * member once, of its type, within its limits. Members of other names are passed over: a pipeline may have added some.
 * The stack of a gap or of damage is `incident->stack`. */
line_kind_t parse_json_line(std::string_view text, incident_t* incident, damage_t* damage);
