/* SPDX-License-Identifier: MIT */
/* chain.cpp - puts incidents of several stacks together. */
#include "chain.h"

#include <algorithm>
#include <map>
#include <numeric>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "cu_format.h"
#include "text.h"
#include "utc_time.h"

std::string gap_note(const std::string& stack) {
  return stack + ": incidents were overwritten before they could be read";
}

std::string damage_note(const std::string& stack, const damage_t& damage) {
  return stack + ": " + damage_text(damage);
}

void leave_out(chain_t* chain, std::string id) {
  ++chain->left_out;
  if (!id.empty() && chain->left_out <= LEFT_OUT_IDS_MAX) chain->left_out_ids.insert(std::move(id));
}

bool may_be_recorded(const chain_t& chain, const std::string& cause) {
  return chain.is_part || chain.left_out > LEFT_OUT_IDS_MAX || chain.left_out_ids.contains(cause);
}

int64_t exact_time(const incident_t& incident) {
  return incident.id_time == NO_ID_TIME ? incident.time * SECOND : incident.id_time;
}

/* Whether a message says anything beside what its arguments fill in. */
static bool has_word(const std::string& message) {
  const auto is_letter = [](char byte) {
    return (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
           (byte & 0x80) != 0;
  };
  size_t unnumbered = 0;
  for (const char* at = message.c_str(); *at != '\0';) {
    const cu_piece_t piece = cu_parse_piece(&at, &unnumbered);
    if (piece.kind == CU_PIECE_TEXT && std::any_of(piece.text.begin(), piece.text.end(), is_letter)) return true;
  }
  return false;
}

const std::string& repeated_text(const incident_t& incident) {
  const std::string& message = incident.default_message;
  return message.empty() || !incident.catalog.empty() || has_word(message) ? message : incident.description;
}

std::string short_description(const incident_t& incident, size_t limit) {
  const std::string& text = incident.description;
  std::string line;
  for (size_t at = 0; at < text.size(); --limit) {
    if (limit == 0) return line + "\xE2\x80\xA6"; /* an ellipsis */
    const character_t character = character_at(text, at);
    const bool is_blank = character.code == '\n' || character.code == '\t';
    line += is_blank ? " " : text.substr(at, character.size);
    at += character.size;
  }
  return line;
}

void sort_by_time(std::vector<incident_t>* incidents) {
  auto is_earlier = [](const incident_t& one, const incident_t& other) { return exact_time(one) < exact_time(other); };
  if (std::is_sorted(incidents->begin(), incidents->end(), is_earlier)) return; /* as they most often are */
  std::vector<int64_t> times;
  times.reserve(incidents->size());
  std::unordered_map<std::string, int64_t> newest; /* of each node's stack */
  for (const incident_t& incident : *incidents) {
    const auto known = newest.try_emplace(incident.stack + '\n' + incident.node, exact_time(incident)).first;
    known->second = std::max(known->second, exact_time(incident));
    times.push_back(known->second);
  }
  std::vector<size_t> order(incidents->size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](size_t one, size_t other) { return times[one] < times[other]; });
  std::vector<incident_t> sorted;
  sorted.reserve(incidents->size());
  for (size_t index : order) sorted.push_back(std::move((*incidents)[index]));
  *incidents = std::move(sorted);
}

void keep_chain(const std::string& id, std::vector<incident_t>* incidents) {
  std::unordered_map<std::string, const incident_t*> by_id;
  std::unordered_multimap<std::string, const incident_t*> by_cause;
  for (const incident_t& incident : *incidents) {
    if (!incident.id.empty()) by_id.try_emplace(incident.id, &incident);
    if (!incident.cause.empty()) by_cause.emplace(incident.cause, &incident);
  }
  std::unordered_set<std::string> causes = {id}; /* causes may go round in a circle */
  std::string first = id;
  for (auto found = by_id.find(id); found != by_id.end(); found = by_id.find(first)) {
    const std::string& cause = found->second->cause;
    if (cause.empty() || !causes.insert(cause).second) break;
    first = cause;
  }

  std::unordered_set<const incident_t*> kept;
  std::vector<std::string> led_to = {first};
  const auto found = by_id.find(first);
  if (found != by_id.end()) kept.insert(found->second);
  while (!led_to.empty()) {
    const auto [begin, end] = by_cause.equal_range(led_to.back());
    led_to.pop_back();
    for (auto effect = begin; effect != end; ++effect)
      if (kept.insert(effect->second).second && !effect->second->id.empty()) led_to.push_back(effect->second->id);
  }
  std::vector<incident_t> chain;
  for (const incident_t& incident : *incidents)
    if (kept.contains(&incident)) chain.push_back(incident);
  *incidents = std::move(chain);
}

void keep_newest(size_t count, chain_t* chain) {
  std::vector<incident_t>& incidents = chain->incidents;
  if (incidents.size() <= count) return;
  const auto first = incidents.end() - static_cast<ptrdiff_t>(count);
  for (auto old = incidents.begin(); old != first; ++old) leave_out(chain, std::move(old->id));
  incidents.erase(incidents.begin(), first);
}

/* The node of each stack, which an incident whose ID does not say one is taken to be from. It is empty where none is known,
 * or where stacks of several nodes have the name. */
static std::unordered_map<std::string_view, std::string_view> nodes_of_stacks(
    const std::vector<incident_t>& incidents) {
  std::unordered_map<std::string_view, std::string_view> nodes;
  std::unordered_set<std::string_view> shared;
  for (const incident_t& incident : incidents) {
    std::string_view& node = nodes[incident.stack];
    if (!incident.node.empty() && !node.empty() && node != incident.node) shared.insert(incident.stack);
    if (!incident.node.empty()) node = incident.node;
  }
  for (std::string_view stack : shared) nodes[stack] = "";
  return nodes;
}

void find_causes(chain_t* chain) {
  sort_by_time(&chain->incidents);
  std::unordered_map<std::string_view, size_t> by_id;
  by_id.reserve(chain->incidents.size());
  for (size_t index = 0; index < chain->incidents.size(); ++index)
    if (!chain->incidents[index].id.empty()) by_id.try_emplace(chain->incidents[index].id, index);

  for (const incident_t& incident : chain->incidents) {
    const auto cause = incident.cause.empty() ? by_id.end() : by_id.find(incident.cause);
    chain->causes.push_back(cause != by_id.end() ? cause->second : NO_CAUSE);
  }
}

void find_lanes(chain_t* chain) {
  const std::unordered_map<std::string_view, std::string_view> nodes = nodes_of_stacks(chain->incidents);
  std::map<std::tuple<std::string_view, std::string_view, std::string_view, int32_t>, size_t> by_lane;
  for (const incident_t& incident : chain->incidents) {
    const std::string_view node = incident.node.empty() ? nodes.at(incident.stack) : incident.node;
    const auto [lane, is_new] =
        by_lane.try_emplace({node, incident.stack, incident.process, incident.process_id}, by_lane.size());
    if (is_new) chain->lane_names.push_back({std::string(node), incident.stack, incident.process, incident.process_id});
    chain->lanes.push_back(lane->second);
  }
}
