/* SPDX-License-Identifier: MIT */
/* dot.cpp - draws a chain of causes as a Graphviz digraph. */
#include <algorithm>
#include <map>

#include "gather.h"
#include "text.h"
#include "utc_time.h"

static constexpr size_t LABEL_WIDTH = 32;  /* characters of a line */
static constexpr size_t LABEL_LIMIT = 120; /* of a description */

/* A quoted text. Backslashes stand for more than themselves in a label, and so does "&". */
static std::string quoted(std::string_view text) {
  std::string made = "\"";
  for (char character : readable(text)) {
    switch (character) {
      case '"':
        made += "\\\"";
        break;
      case '\\':
        made += "\\\\";
        break;
      case '&':
        made += "&amp;";
        break;
      case '\n':
        made += "\\n";
        break;
      default:
        made += character;
    }
  }
  return made + '"';
}

/* Breaks a line of text at blanks. */
static std::string folded(std::string_view text) {
  std::string made;
  size_t column = 0;
  for (size_t at = 0; at < text.size(); ++column) {
    const character_t character = character_at(text, at);
    if (column >= LABEL_WIDTH && character.code == ' ') {
      made += '\n';
      column = 0;
    } else {
      made += text.substr(at, character.size);
    }
    at += character.size;
  }
  return made;
}

static std::string node_name(size_t index) {
  return std::string("i").append(std::to_string(index));
}

/* The nodes of a process, in a box. Processes of several nodes may have the same name. */
static std::string make_cluster(const chain_t& chain, size_t lane) {
  const lane_t& name = chain.lane_names[lane];
  const bool is_one_node = std::all_of(chain.lane_names.begin(), chain.lane_names.end(),
                                       [&](const lane_t& other) { return other.node == name.node; });
  const std::string node = is_one_node || name.node.empty() ? "" : name.node + "\n";
  std::string dot = "  subgraph cluster_" + std::to_string(lane) + " {\n    label=" +
                    quoted(node + name.stack + "\n" + name.process + " " + std::to_string(name.process_id)) + ";\n";
  for (size_t index = 0; index < chain.incidents.size(); ++index) {
    if (chain.lanes[index] != lane) continue;
    const incident_t& incident = chain.incidents[index];
    const std::string label = utc_time(incident.time) + "\n" + folded(short_description(incident, LABEL_LIMIT));
    dot += "    " + node_name(index) + " [label=" + quoted(label) +
           ", tooltip=" + quoted(incident.id.empty() ? "no Error ID" : incident.id) + "];\n";
  }
  return dot + "  }\n";
}

std::string make_dot(const chain_t& chain) {
  std::string dot =
      "digraph incidents {\n"
      "  graph [newrank=true, rankdir=TB, fontname=\"sans-serif\", style=rounded, color=\"#5f6672\"];\n"
      "  node [shape=box, style=\"rounded,filled\", fillcolor=\"#ffffff\", color=\"#1f4fae\", "
      "fontname=\"sans-serif\", fontsize=11];\n"
      "  edge [color=\"#1f4fae\"];\n";
  for (size_t lane = 0; lane < chain.lane_names.size(); ++lane) dot += make_cluster(chain, lane);

  std::map<std::string, std::string> outside; /* nodes of causes that are not here */
  for (size_t index = 0; index < chain.incidents.size(); ++index) {
    const std::string& cause = chain.incidents[index].cause;
    if (cause.empty()) continue;
    std::string from;
    if (chain.causes[index] != NO_CAUSE) {
      from = node_name(chain.causes[index]);
    } else {
      const auto [known, is_new] = outside.try_emplace(cause, std::string("c").append(std::to_string(outside.size())));
      from = known->second;
      if (is_new)
        dot += "  " + from + " [label=" +
               quoted(cause + (may_be_recorded(chain, cause) ? "\nnot shown here" : "\nnot recorded here")) +
               ", style=\"rounded,dashed\", color=\"#5f6672\"];\n";
    }
    dot += "  " + from + " -> " + node_name(index) + ";\n";
  }
  return dot + "}\n";
}
