/* SPDX-License-Identifier: MIT */
/* page.cpp - one page that shows incidents on a time line and as a tree of causes and effects. It asks nothing of anywhere.
 * What is recorded stands in it as text, which can be read without the script; the script, one constant text that the
 * page's policy knows by its hash, takes that text apart, shows what is in sight of it, and can be asked.
 * The ids on the page are those of incidents, and some that are longer than any Error ID: what was recorded cannot meet
 * another one. */
#include "page.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <map>
#include <numeric>
#include <tuple>
#include <unordered_map>
#include <unordered_set>

#include "page_parts.inc"
#include "text.h"
#include "utc_time.h"

static constexpr size_t INCIDENTS_MAX = 20000;
static constexpr size_t FULL_RECORDS_MAX = 2000; /* beyond, records refer to tables */
static constexpr size_t NUMBERED_MARKS_MAX = 99;
static constexpr size_t PRINTED_RECORDS_MAX = 300; /* beyond, only rows are printed */
static constexpr size_t LANES_MAX = 100;
static constexpr size_t OPTIONS_MAX = 200; /* of a choice */
static constexpr size_t NAMES_MAX = 8;     /* of stacks or nodes in the head */
static constexpr int COLOURS = 6;
static constexpr char TREE_ID[] = "incidents-as-rows-each-of-them-below-its-cause";

/* ---- Rows of the tree ---------------------------------------------------------------------------------------------- */

/* What repeats have in common: process, cause, and message. */
using repeat_key_t = std::tuple<size_t, std::string, std::string, int32_t, int32_t, std::string>;

static repeat_key_t repeat_key(const chain_t& chain, size_t index) {
  const incident_t& incident = chain.incidents[index];
  const bool has_text = !incident.default_message.empty();
  return {chain.lanes[index],   incident.cause,          incident.catalog,
          incident.message_set, incident.message_number, has_text ? repeated_text(incident) : incident.description};
}

/* What is to be placed: an incident, or one with its repeats, which have no effects. */
struct step_t {
  std::vector<size_t> repeats;
  size_t depth;
};

/* Incidents of one cause as steps, in order of the first of each. */
static std::vector<step_t> make_steps(const page_t& page, const std::vector<size_t>& indices, size_t depth) {
  std::vector<step_t> steps;
  std::map<repeat_key_t, size_t> known;
  const std::string& asked = page.chain->asked_id;
  for (size_t index : indices) {
    const bool is_asked = !asked.empty() && page.chain->incidents[index].id == asked;
    if (!page.effects[index].empty() || is_asked) {
      steps.push_back({{index}, depth});
      continue;
    }
    const auto [place, is_new] = known.try_emplace(repeat_key(*page.chain, index), steps.size());
    if (is_new)
      steps.push_back({{index}, depth});
    else
      steps[place->second].repeats.push_back(index);
  }
  return steps;
}

/* Makes rows of incidents and of all that they led to. */
static void place(page_t* page, const std::vector<size_t>& roots, std::vector<bool>* is_placed, int* chains) {
  std::vector<step_t> steps = make_steps(*page, roots, 0);
  std::reverse(steps.begin(), steps.end());
  int colour = 0;
  while (!steps.empty()) {
    const step_t step = std::move(steps.back());
    steps.pop_back();
    const size_t first = step.repeats[0];
    if ((*is_placed)[first]) continue;
    if (step.depth == 0) colour = page->effects[first].empty() ? 0 : 1 + (*chains)++ % COLOURS;
    if (step.repeats.size() > 1) {
      page->rows.push_back({first, step.depth, step.repeats.size()});
      page->colours[first] = colour;
    }
    for (size_t index : step.repeats) {
      (*is_placed)[index] = true;
      page->rows.push_back({index, step.depth, 0});
      page->colours[index] = colour;
    }
    const std::vector<step_t> effects = make_steps(*page, page->effects[first], step.depth + 1);
    steps.insert(steps.end(), effects.rbegin(), effects.rend());
  }
}

static void make_rows(page_t* page) {
  const std::vector<size_t>& causes = page->chain->causes;
  std::vector<bool> is_placed(causes.size());
  std::vector<size_t> roots;
  for (size_t index = 0; index < causes.size(); ++index)
    if (causes[index] == NO_CAUSE) roots.push_back(index);
  int chains = 0;
  place(page, roots, &is_placed, &chains);
  for (size_t index = 0; index < causes.size(); ++index) /* those that cause each other */
    if (!is_placed[index]) place(page, {index}, &is_placed, &chains);
}

/* ---- What the page knows ------------------------------------------------------------------------------------------- */

static choice_t make_choice(const chain_t& chain, const std::string& (*text_of)(const chain_t&, size_t)) {
  choice_t choice;
  std::unordered_map<std::string, size_t> known;
  for (size_t index = 0; index < chain.incidents.size(); ++index) {
    const std::string& text = text_of(chain, index);
    const auto [place, is_new] = known.try_emplace(text, known.size());
    if (is_new) choice.texts.push_back(text);
    choice.chosen.push_back(place->second);
  }
  return choice;
}

/* The lanes of the drawing: those with most incidents, by node, in it by process. The others share one. */
static void make_bars(page_t* page) {
  const chain_t& chain = *page->chain;
  std::vector<size_t> firsts(chain.lane_names.size(), chain.incidents.size()), counts(chain.lane_names.size());
  for (size_t index = 0; index < chain.lanes.size(); ++index) {
    firsts[chain.lanes[index]] = std::min(firsts[chain.lanes[index]], index);
    ++counts[chain.lanes[index]];
  }
  std::vector<size_t> lanes(chain.lane_names.size());
  std::iota(lanes.begin(), lanes.end(), size_t{0});
  std::stable_sort(lanes.begin(), lanes.end(), [&](size_t one, size_t other) { return counts[one] > counts[other]; });
  std::vector<size_t> others;
  if (lanes.size() > LANES_MAX) {
    others.assign(lanes.begin() + LANES_MAX, lanes.end());
    lanes.resize(LANES_MAX);
  }
  auto rank = [&](size_t lane) {
    return std::tuple(page->nodes.chosen[firsts[lane]], page->processes.chosen[firsts[lane]], lane);
  };
  std::sort(lanes.begin(), lanes.end(), [&](size_t one, size_t other) { return rank(one) < rank(other); });
  page->bars.assign(chain.lane_names.size(), lanes.size());
  for (size_t bar = 0; bar < lanes.size(); ++bar) page->bars[lanes[bar]] = bar;
  if (!others.empty()) lanes.push_back(others[0]);
  for (size_t lane : lanes) page->bar_firsts.push_back(firsts[lane]);
  page->other_lanes = others.size();
}

static std::vector<std::string> stacks_of(const chain_t& chain) {
  std::vector<std::string> stacks;
  for (const lane_t& lane : chain.lane_names)
    if (std::find(stacks.begin(), stacks.end(), lane.stack) == stacks.end() && stacks.size() <= NAMES_MAX * 100)
      stacks.push_back(lane.stack);
  return stacks;
}

static page_t make_page(const chain_t& chain) {
  const size_t count = chain.incidents.size();
  page_t page = {};
  page.chain = &chain;
  page.effects.resize(count);
  page.colours.resize(count);
  page.is_brief = count > FULL_RECORDS_MAX;
  page.has_numbers = count <= NUMBERED_MARKS_MAX;
  page.has_milliseconds =
      count > 0 && exact_time(chain.incidents.back()) - exact_time(chain.incidents.front()) < 60 * SECOND;
  std::unordered_set<std::string> used;
  for (size_t index = 0; index < count; ++index) {
    const std::string id = anchor_of(chain.incidents[index].id);
    const bool has_id = !id.empty() && used.insert(id).second;
    /* The other one is longer than any Error ID. */
    page.anchors.push_back(has_id ? id
                                  : "incident-without-an-error-identifier-of-its-own-" + std::to_string(index + 1));
    if (chain.causes[index] != NO_CAUSE) page.effects[chain.causes[index]].push_back(index);
  }
  page.nodes = make_choice(
      chain, [](const chain_t& of, size_t index) -> const std::string& { return of.lane_names[of.lanes[index]].node; });
  page.processes = make_choice(
      chain, [](const chain_t& of, size_t index) -> const std::string& { return of.incidents[index].process; });
  page.products = make_choice(
      chain, [](const chain_t& of, size_t index) -> const std::string& { return of.incidents[index].product; });
  page.has_one_stack = stacks_of(chain).size() <= 1;
  make_bars(&page);
  make_rows(&page);
  return page;
}

/* ---- Head ---------------------------------------------------------------------------------------------------------- */

/* Some names of many. */
static std::string names_of(const std::vector<std::string>& names) {
  std::string html;
  for (size_t at = 0; at < names.size() && at < NAMES_MAX; ++at)
    html += (at == 0 ? "" : ", ") + (names[at].empty() ? "an unknown node" : recorded(names[at]));
  return names.size() > NAMES_MAX ? html + " and " + std::to_string(names.size() - NAMES_MAX) + " more" : html;
}

struct span_t {
  int64_t first, last;
};

static span_t span_of(const chain_t& chain) {
  span_t span = {exact_time(chain.incidents.front()), exact_time(chain.incidents.front())};
  for (const incident_t& incident : chain.incidents) { /* a clock may have been set back */
    span.first = std::min(span.first, exact_time(incident));
    span.last = std::max(span.last, exact_time(incident));
  }
  return span;
}

static std::string utc_date(int64_t microseconds) {
  return utc_time(microseconds / SECOND).substr(0, 10);
}
static std::string utc_clock(int64_t microseconds) {
  return utc_time(microseconds / SECOND).substr(11, 8);
}

/* From when to when, in local time with its zone, and in UTC. The script writes it anew for the reader's zone. */
static std::string make_span(span_t span) {
  auto moment = [](int64_t time, const std::string& text) {
    return "<time datetime=" + utc_time(time / SECOND) + ">" + text + "</time>";
  };
  const std::string day = local_date(span.first), last_day = local_date(span.last);
  std::string html = moment(span.first, day + " " + local_clock(span.first, false)) + " to " +
                     moment(span.last, (last_day == day ? "" : last_day + " ") + local_clock(span.last, false)) + " " +
                     escaped(local_zone(span.first));
  if (local_offset(span.first) == 0 && local_offset(span.last) == 0) return html;
  const bool is_one_day = utc_date(span.first) == utc_date(span.last);
  return html + " <small>(UTC " + utc_date(span.first) + " " + utc_clock(span.first) + " to " +
         (is_one_day ? "" : utc_date(span.last) + " ") + utc_clock(span.last) + ")</small>";
}

static std::string make_notes(const chain_t& chain) {
  std::string html;
  for (const std::string& note : chain.notes) html += "\n<li>" + recorded(note);
  return html.empty() ? "" : "<ul class=notes aria-label=\"Notes\">" + html + "</ul>\n";
}

/* Of what the incidents are. */
static std::string subject_of(const page_t& page) {
  const std::vector<std::string> stacks = stacks_of(*page.chain);
  if (page.nodes.texts.size() > 1) return count_of(page.nodes.texts.size(), "node", "nodes");
  return stacks.size() == 1 ? stacks[0] : count_of(stacks.size(), "stack", "stacks");
}

static std::string title_of(const page_t& page) {
  std::string count = count_of(page.chain->incidents.size(), "incident", "incidents");
  if (page.chain->incidents.empty()) return count;
  const span_t span = span_of(*page.chain);
  const std::string first = local_date(span.first).substr(4), last = local_date(span.last).substr(4);
  return escaped(subject_of(page)) + ", " + first + (first == last ? "" : " to " + last) + ": " + count;
}

static std::string make_head(const page_t& page) {
  const chain_t& chain = *page.chain;
  const int64_t now = static_cast<int64_t>(std::time(nullptr)) * SECOND;
  std::string html = "<header>\n<h1>" + count_of(chain.incidents.size(), "incident", "incidents");
  if (!chain.incidents.empty()) {
    html += " <span>of " + recorded(subject_of(page)) + "</span></h1>\n<p class=span>" + make_span(span_of(chain)) +
            "</p>\n<p class=of>On " + names_of(page.nodes.texts) + ", in " + names_of(stacks_of(chain)) + ". ";
  } else {
    html += "</h1>\n<p class=of>Nothing is recorded there. ";
  }
  html += "Made " + local_date(now) + " " + local_clock(now, false) + " " + escaped(local_zone(now)) +
          " by zkexport " ZKVIEW_VERSION ".</p>\n";
  if (!chain.asked_id.empty())
    html += "<p class=of>Asked for: <a class=asked href=\"" + fragment(anchor_of(chain.asked_id)) + "\"><code>" +
            escaped(chain.asked_id) + "</code></a></p>\n";
  return html + make_notes(chain) + "</header>\n";
}

/* ---- The page ------------------------------------------------------------------------------------------------------ */

static std::string make_choice_box(const char* name, const char* label, const choice_t& choice) {
  std::string html = formatted("<label>%s <select name=%s><option value=\"\">all", label, name);
  for (size_t at = 0; at < choice.texts.size() && at < OPTIONS_MAX; ++at)
    html += formatted("<option value=%zu>", at) + (choice.texts[at].empty() ? "none" : escaped(choice.texts[at]));
  return html + "</select></label>\n";
}

/* What only the script brings to life. */
static std::string make_tools(const page_t& page) {
  return std::string(
             "<form class=ask role=search hidden>\n<label>Find <input type=search name=q autocomplete=off "
             "spellcheck=false placeholder=\"words in anything recorded\"></label>\n") +
         (page.nodes.texts.size() > 1 ? make_choice_box("node", "Node", page.nodes) : "") +
         (page.processes.texts.size() > 1 ? make_choice_box("process", "Process", page.processes) : "") +
         (page.products.texts.size() > 1 ? make_choice_box("product", "Product", page.products) : "") +
         "<output class=count></output>\n</form>\n";
}

static constexpr char ZOOM[] =
    "<div class=zoom hidden><button type=button data-do=in title=\"Zoom in (+)\" aria-label=\"Zoom in\">+</button>"
    "<button type=button data-do=out title=\"Zoom out (-)\" aria-label=\"Zoom out\">&minus;</button>"
    "<button type=button data-do=left title=\"Earlier (Shift and arrow)\" aria-label=\"Earlier\">&lsaquo;</button>"
    "<button type=button data-do=right title=\"Later (Shift and arrow)\" aria-label=\"Later\">&rsaquo;</button>"
    "<button type=button data-do=all title=\"Everything (0)\">All</button></div>\n";

static constexpr char HINT[] =
    "<p class=hint>A mark is an incident; a number in a ring says how many. Arrows lead from causes to effects; a "
    "dashed one "
    "comes from a cause that is not here.</p>\n";

/* The newest of too many incidents. */
static chain_t newest_of(const chain_t& chain) {
  const auto first = chain.incidents.end() - INCIDENTS_MAX;
  chain_t newest;
  newest.incidents.assign(first, chain.incidents.end());
  newest.notes = chain.notes;
  newest.left_out = chain.left_out;
  newest.left_out_ids = chain.left_out_ids;
  newest.is_part = chain.is_part;
  newest.asked_id = chain.asked_id;
  for (auto old = chain.incidents.begin(); old != first; ++old) leave_out(&newest, old->id);
  newest.notes.push_back("only the newest 20,000 of " +
                         count_of(chain.incidents.size(), "incident is", "incidents are") + " shown");
  find_causes(&newest);
  find_lanes(&newest);
  return newest;
}

std::string make_html(const chain_t& chain) {
  if (chain.incidents.size() > INCIDENTS_MAX) return make_html(newest_of(chain));
  const page_t page = make_page(chain);
  const bool is_empty = chain.incidents.empty();
  const std::string kind =
      std::string(page.has_milliseconds ? "fine " : "") + (chain.incidents.size() > PRINTED_RECORDS_MAX ? "large" : "");
  std::string html =
      "<!DOCTYPE html>\n<html lang=en>\n<head>\n<meta charset=utf-8>\n"
      "<meta http-equiv=Content-Security-Policy content=\"default-src 'none'; style-src 'unsafe-inline'; "
      "script-src 'sha256-";
  html += base64({PAGE_SCRIPT_SHA256, 32}) +
          "'\">\n<meta name=viewport content=\"width=device-width, initial-scale=1\">\n" +
          "<meta name=color-scheme content=\"light dark\">\n<title>" + title_of(page) + "</title>\n<style>" +
          PAGE_STYLE + "</style>\n</head>\n<body class=\"" + kind + "\">\n";
  if (!is_empty) html += std::string("<a class=skip href=#") + TREE_ID + ">To the incidents</a>\n";
  html += make_head(page);
  if (!is_empty) {
    html += "<main>\n<section class=timeline>\n<div class=title><h2>Time line</h2>\n" + std::string(ZOOM) + "</div>\n" +
            make_time_line(page) + HINT + "</section>\n<section class=list>\n<h2 id=" + TREE_ID +
            " tabindex=-1>Causes and effects</h2>\n" + make_tools(page);
    html += "<noscript class=rows>";
    html += make_tree(page);
    html += "</noscript>\n</section>\n</main>\n";
  }
  return html + "<script>" + PAGE_SCRIPT + "</script>\n</body>\n</html>\n";
}
