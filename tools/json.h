/* SPDX-License-Identifier: MIT */
/* json.h - incidents as lines of JSON. */
#ifndef JSON_H
#define JSON_H

#include <string>

#include "incident.h"
#include "stacks.h"

/* Each appends one line to `lines`: an incident; that incidents were overwritten before they could be read; trouble. */
void write_json(const incident_t& incident, std::string* lines);
void write_json_gap(const std::string& stack, std::string* lines);
void write_json_trouble(const std::string& stack, const trouble_t& trouble, std::string* lines);

/* Takes one line as they are written above: an incident, or a note of what the other lines say, which is otherwise empty.
 * Returns false when the line is none of them. */
bool parse_json(const std::string& line, incident_t* incident, std::string* note);

/* What a gap and trouble are called for the eye. */
std::string gap_note(const std::string& stack);
std::string trouble_note(const std::string& stack, const trouble_t& trouble);

#endif
