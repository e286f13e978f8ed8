/* SPDX-License-Identifier: MIT */
/* export_html.cpp - one page that shows incidents on a time line and as a tree of causes and effects. It runs no script,
 * and the only ids on it are those of incidents: what was recorded cannot meet another one. */
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <unordered_set>

#include "chain.h"
#include "text.h"
#include "utc_time.h"

/* ---- Texts --------------------------------------------------------------------------------------------------------- */

/* A text within the page's own, also within an attribute. */
static std::string escaped(std::string_view text) {
  std::string made;
  for (char character : readable(text)) {
    switch (character) {
      case '&':
        made += "&amp;";
        break;
      case '<':
        made += "&lt;";
        break;
      case '>':
        made += "&gt;";
        break;
      case '"':
        made += "&quot;";
        break;
      case '\'':
        made += "&#39;";
        break;
      default:
        made += character;
    }
  }
  return made;
}

/* A recorded text, which cannot turn what stands around it. */
static std::string recorded(std::string_view text) {
  return "<bdi>" + escaped(text) + "</bdi>";
}

/* Where a link to an anchor leads. */
static std::string fragment(std::string_view anchor) {
  static constexpr std::string_view PLAIN = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789./-_";
  static constexpr char DIGITS[] = "0123456789ABCDEF";
  std::string made = "#";
  for (char character : readable(anchor)) {
    const auto byte = static_cast<unsigned char>(character);
    if (PLAIN.find(character) != PLAIN.npos)
      made += character;
    else
      made += {'%', DIGITS[byte >> 4], DIGITS[byte & 0xF]};
  }
  return made;
}

static std::string count_of(size_t count, const char* one, const char* many) {
  return std::to_string(count) + " " + (count == 1 ? one : many);
}

/* A time for the eye: the date, the time of day. */
static std::string date_of(int64_t microseconds) {
  return utc_time(microseconds / SECOND).substr(0, 10);
}
static std::string clock_of(int64_t microseconds) {
  return utc_time(microseconds / SECOND).substr(11, 8);
}

/* ---- What is shown ------------------------------------------------------------------------------------------------- */

/* The incidents with what the page needs of each, by index. */
struct page_t {
  const chain_t* chain;
  std::vector<std::string> anchors; /* the Error ID; of two with the same the first has it */
  std::vector<std::vector<size_t>> effects;
  std::vector<size_t> order;  /* each behind its cause */
  std::vector<size_t> depths; /* in the tree */
  std::vector<int> colours;   /* one for all that goes back to the same incident, 0 for what stands alone */
  int chain_count;
  bool has_milliseconds; /* they matter where everything happens within a minute */
};

static constexpr int COLOURS = 6;
static constexpr size_t DEPTH_MAX = 150; /* browsers do not nest elements deeper than 512 */

/* Puts an incident and all that it led to behind what has been placed. */
static void place(page_t* page, size_t root, std::vector<bool>* is_placed) {
  struct step_t {
    size_t index, depth;
  };
  std::vector<step_t> steps = {{root, 0}};
  const int colour = page->effects[root].empty() ? 0 : 1 + page->chain_count++ % COLOURS;
  while (!steps.empty()) {
    const step_t step = steps.back();
    steps.pop_back();
    if ((*is_placed)[step.index]) continue;
    (*is_placed)[step.index] = true;
    page->order.push_back(step.index);
    page->depths[step.index] = std::min(step.depth, DEPTH_MAX);
    page->colours[step.index] = colour;
    const std::vector<size_t>& effects = page->effects[step.index];
    for (auto effect = effects.rbegin(); effect != effects.rend(); ++effect) steps.push_back({*effect, step.depth + 1});
  }
}

static page_t make_page(const chain_t& chain) {
  const size_t count = chain.incidents.size();
  page_t page = {};
  page.chain = &chain;
  page.effects.resize(count);
  page.depths.resize(count);
  page.colours.resize(count);
  page.has_milliseconds =
      count > 0 && exact_time(chain.incidents.back()) - exact_time(chain.incidents.front()) < 60 * SECOND;
  std::unordered_set<std::string> used;
  for (size_t index = 0; index < count; ++index) {
    const incident_t& incident = chain.incidents[index];
    const std::string id = readable(incident.id);
    const bool has_id = !id.empty() && used.insert(id).second;
    /* The other one is longer than any Error ID. */
    page.anchors.push_back(has_id ? id
                                  : "incident-that-has-no-error-identifier-of-its-own-" + std::to_string(index + 1));
    if (chain.causes[index] != NO_CAUSE) page.effects[chain.causes[index]].push_back(index);
  }
  std::vector<bool> is_placed(count);
  for (size_t index = 0; index < count; ++index)
    if (chain.causes[index] == NO_CAUSE) place(&page, index, &is_placed);
  for (size_t index = 0; index < count; ++index) /* those that cause each other */
    if (!is_placed[index]) place(&page, index, &is_placed);
  return page;
}

/* The time of day, with milliseconds where they matter and are known. */
static std::string fine_clock_of(const page_t& page, size_t index) {
  const incident_t& incident = page.chain->incidents[index];
  if (!page.has_milliseconds || incident.node.empty()) return clock_of(exact_time(incident));
  return utc_time_of_microseconds(incident.id_time).substr(11, 12);
}

/* ---- Time line ----------------------------------------------------------------------------------------------------- */

/* Measures of the drawing, in pixels. */
static constexpr int LANE_HEIGHT = 48;
static constexpr int FIRST_LANE = 64; /* below the times */
static constexpr int RADIUS = 10;
static constexpr int STEP_MIN = 30;   /* from one incident to the next, */
static constexpr int STEP_MAX = 110;  /* however long it takes */
static constexpr int TIME_WIDTH = 92; /* of a time and a blank */
static constexpr size_t TITLE_LIMIT = 200;

struct place_t {
  int x, y;
};

template <typename... Numbers>
static std::string formatted(const char* format, Numbers... numbers) {
  std::array<char, 512> text;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  const int size = std::snprintf(text.data(), text.size(), format, numbers...);
#pragma GCC diagnostic pop
  return {text.data(), static_cast<size_t>(std::clamp(size, 0, int{sizeof text} - 1))};
}

/* Where each incident stands. Pauses are drawn by their logarithm. */
static std::vector<place_t> place_incidents(const chain_t& chain) {
  std::vector<place_t> places;
  int x = 2 * STEP_MIN;
  for (size_t index = 0; index < chain.incidents.size(); ++index) {
    if (index > 0) {
      const int64_t pause = exact_time(chain.incidents[index]) - exact_time(chain.incidents[index - 1]);
      const double milliseconds = std::max(0.0, static_cast<double>(pause) / 1000);
      x += std::min(STEP_MIN + static_cast<int>(5 * std::log2(1 + milliseconds)), STEP_MAX);
    }
    places.push_back({x, FIRST_LANE + static_cast<int>(chain.lanes[index]) * LANE_HEIGHT});
  }
  return places;
}

/* An arrow that leaves its cause and meets its effect from above or below; within a lane, an arc above it. */
static std::string make_arrow(place_t from, place_t to, int colour) {
  const bool is_arc = from.y == to.y;
  const int side = is_arc || to.y > from.y ? 1 : -1; /* from above, or from below */
  const int tip = to.y - side * (RADIUS + 1);
  const int start = is_arc ? from.y - RADIUS : from.y + side * RADIUS;
  const int arc_height = std::clamp(std::abs(to.x - from.x) / 4, 12, 26);
  const int first = is_arc ? from.y - RADIUS - arc_height : (start + tip) / 2;
  const int second = is_arc ? to.y - RADIUS - arc_height : (start + tip) / 2;
  return formatted("<path class=\"arrow c%d\" d=\"M%d %dC%d %d %d %d %d %d\"/>", colour, from.x, start, from.x, first,
                   to.x, second, to.x, tip - side * 5) +
         formatted("<path class=\"tip c%d\" d=\"M%d %dl-4 %dh8z\"/>", colour, to.x, tip, -7 * side);
}

static std::string make_arrows(const page_t& page, const std::vector<place_t>& places) {
  const chain_t& chain = *page.chain;
  std::string svg;
  for (size_t index = 0; index < places.size(); ++index) {
    const place_t to = places[index];
    const size_t cause = chain.causes[index];
    if (cause != NO_CAUSE && cause != index)
      svg += make_arrow(places[cause], to, page.colours[index]);
    else if (cause == NO_CAUSE && !chain.incidents[index].cause.empty()) /* it comes from elsewhere */
      svg +=
          formatted("<path class=\"arrow elsewhere\" d=\"M%d %dL%d %d\"/>", to.x - 16, to.y - 24, to.x - 7, to.y - 9);
  }
  return svg;
}

static std::string make_points(const page_t& page, const std::vector<place_t>& places) {
  std::string svg;
  for (size_t index = 0; index < places.size(); ++index) {
    const incident_t& incident = page.chain->incidents[index];
    const std::string title = std::to_string(index + 1) + ": " + utc_time(incident.time) + " " + incident.process +
                              ": " + short_description(incident, TITLE_LIMIT);
    svg += "<a href=\"" + fragment(page.anchors[index]) + "\" aria-label=\"" + escaped(title) + "\">" +
           formatted("<circle class=\"c%d\" cx=\"%d\" cy=\"%d\" r=\"%d\"/><text x=\"%d\" y=\"%d\">%d</text>",
                     page.colours[index], places[index].x, places[index].y, RADIUS, places[index].x,
                     places[index].y + 4, static_cast<int>(index) + 1) +
           "<title>" + escaped(title) + "</title></a>\n";
  }
  return svg;
}

/* The times at the top, as many as have room. */
static std::string make_times(const page_t& page, const std::vector<place_t>& places, int height) {
  std::string svg, date;
  int free_from = 0;
  for (size_t index = 0; index < places.size(); ++index) {
    const int64_t time = exact_time(page.chain->incidents[index]);
    const int x = places[index].x;
    if (x < free_from) continue;
    free_from = x + TIME_WIDTH;
    svg += formatted("<path class=\"grid\" d=\"M%d 34V%d\"/>", x, height) +
           formatted("<text class=\"time\" x=\"%d\" y=\"28\">%s</text>", x, fine_clock_of(page, index).c_str());
    if (date != date_of(time)) {
      date = date_of(time);
      svg += formatted("<text class=\"time\" x=\"%d\" y=\"13\">%s</text>", x, date.c_str());
    }
  }
  return svg;
}

static std::string lane_title(const lane_t& lane) {
  return recorded(lane.process) + " <small>" + std::to_string(lane.process_id) + " in " + recorded(lane.stack) +
         "</small>";
}

static std::string make_time_line(const page_t& page) {
  const chain_t& chain = *page.chain;
  const std::vector<place_t> places = place_incidents(chain);
  const int width = places.empty() ? 0 : places.back().x + 2 * STEP_MIN;
  const int height = FIRST_LANE + static_cast<int>(chain.lane_names.size()) * LANE_HEIGHT - LANE_HEIGHT / 2;
  std::string html =
      "<div class=\"timeline\" tabindex=\"0\" role=\"region\" aria-label=\"Time line\">\n<ol class=\"lanes\">";
  for (const lane_t& lane : chain.lane_names) html += "<li>" + lane_title(lane) + "</li>\n";
  html += "</ol>\n" + formatted(
                          "<svg role=\"group\" aria-label=\"Incidents in order of time\" width=\"%d\" height=\"%d\" "
                          "viewBox=\"0 0 %d %d\">\n",
                          width, height, width, height);
  html += make_times(page, places, height);
  for (size_t lane = 0; lane < chain.lane_names.size(); ++lane) {
    const int y = FIRST_LANE + static_cast<int>(lane) * LANE_HEIGHT;
    html += formatted("<path class=\"lane\" d=\"M0 %dH%d\"/><text class=\"name\" x=\"2\" y=\"%d\">", y, width, y + 22) +
            escaped(chain.lane_names[lane].process) + " " + std::to_string(chain.lane_names[lane].process_id) +
            "</text>\n";
  }
  return html + make_arrows(page, places) + "\n" + make_points(page, places) + "</svg>\n</div>\n";
}

/* ---- Tree ---------------------------------------------------------------------------------------------------------- */

static std::string row(const char* label, const std::string& value) {
  return std::string("<dt>") + label + "</dt><dd>" + value + "</dd>\n";
}

static std::string make_cause(const page_t& page, size_t index) {
  const size_t cause = page.chain->causes[index];
  const std::string id = "<code>" + recorded(page.chain->incidents[index].cause) + "</code>";
  if (cause == NO_CAUSE) return id + " (not recorded here)";
  return "<a href=\"" + fragment(page.anchors[cause]) + "\">" + id + "</a> (" + std::to_string(cause + 1) + ")";
}

static std::string make_arguments(const incident_t& incident) {
  std::string html = "<ol>";
  for (const argument_t& argument : incident.arguments)
    html += "<li>" + recorded(argument.value) + " <small>" + recorded(argument.type) + "</small></li>";
  return html + "</ol>";
}

/* All that is recorded of an incident. */
static std::string make_record(const page_t& page, size_t index) {
  const incident_t& incident = page.chain->incidents[index];
  const bool has_catalog = !incident.catalog.empty();
  std::string html = "<dl id=\"" + escaped(page.anchors[index]) + "\">\n";
  html += row("Description", recorded(incident.description));
  if (!incident.details.empty()) html += row("Details", "<pre>" + recorded(incident.details) + "</pre>");
  html += row("Error ID", incident.id.empty() ? "none" : "<code>" + recorded(incident.id) + "</code>");
  if (!incident.cause.empty()) html += row("Caused by", make_cause(page, index));
  html += row("Recorded", utc_time(incident.time));
  if (!incident.node.empty())
    html += row("Identified", utc_time_of_microseconds(incident.id_time) + " on " + recorded(incident.node));
  html += row("Process", recorded(incident.process) + " " + std::to_string(incident.process_id) + ", parent " +
                             std::to_string(incident.parent_id) + ", thread " + std::to_string(incident.thread_id));
  html += row("Detected in", recorded(incident.file) + " line " + std::to_string(incident.line) + ", version " +
                                 recorded(incident.file_version) + ", product " + recorded(incident.product));
  html +=
      row("Message", recorded(incident.default_message) +
                         (has_catalog ? "<br>catalog " + recorded(incident.catalog) : "<br>no catalog") + ", set " +
                         std::to_string(incident.message_set) + ", number " + std::to_string(incident.message_number));
  if (!incident.arguments.empty()) html += row("Arguments", make_arguments(incident));
  html += row("Stack", recorded(incident.stack) + ", offset " + std::to_string(incident.offset));
  return html + "</dl>\n";
}

static std::string make_entry(const page_t& page, size_t index) {
  const incident_t& incident = page.chain->incidents[index];
  const int64_t time = exact_time(incident);
  return "<li><details><summary>" +
         formatted("<b class=\"c%d\">%d</b> <time datetime=\"%s\">%s %s</time> ", page.colours[index],
                   static_cast<int>(index) + 1, utc_time(incident.time).c_str(), date_of(time).c_str(),
                   fine_clock_of(page, index).c_str()) +
         "<i>" + recorded(incident.process) + "</i> " + recorded(short_description(incident, TITLE_LIMIT)) +
         "</summary>\n" + make_record(page, index) + "</details>\n";
}

static std::string make_tree(const page_t& page) {
  std::string html = "<ul class=\"tree\">\n";
  size_t depth = 0;
  for (size_t at = 0; at < page.order.size(); ++at) {
    const size_t index = page.order[at];
    if (page.depths[index] > depth) {
      html += "<ul>\n";
      ++depth;
    } else if (at > 0) {
      html += "</li>\n";
      for (; depth > page.depths[index]; --depth) html += "</ul>\n</li>\n";
    }
    html += make_entry(page, index);
  }
  if (!page.order.empty()) html += "</li>\n";
  for (; depth > 0; --depth) html += "</ul>\n</li>\n";
  return html + "</ul>\n";
}

/* ---- The page ------------------------------------------------------------------------------------------------------ */

static constexpr char STYLE[] = R"(
:root{--page:#fff;--text:#1b1e24;--faint:#5a616d;--line:#d5d9e0;--box:#f4f5f7;--on:#fff;
--c0:#5a616d;--c1:#1a56c4;--c2:#a8321e;--c3:#1d6b35;--c4:#7a3aa8;--c5:#0b6b73;--c6:#85500a}
@media (prefers-color-scheme:dark){:root{--page:#16181c;--text:#e8eaee;--faint:#a4abb8;--line:#3a3f49;--box:#20242a;
--on:#16181c;--c0:#a4abb8;--c1:#8ab4ff;--c2:#ff9d8a;--c3:#7fd69a;--c4:#d3a6ff;--c5:#6fd3dc;--c6:#f0b866}}
*{box-sizing:border-box}
body{margin:0 auto;max-width:80rem;padding:1rem;background:var(--page);color:var(--text);
font:1rem/1.45 system-ui,sans-serif;overflow-wrap:anywhere}
h1{font-size:1.5rem;margin:0}h2{font-size:1.15rem;margin:1.5rem 0 .5rem}
p{margin:.3rem 0}small,time,.summary,.hint{color:var(--faint)}small,time,.hint{font-size:.85rem}
a{color:var(--c1)}:focus-visible{outline:3px solid var(--c1);outline-offset:2px}
.note{border-left:4px solid var(--c2);padding:.3rem .6rem;background:var(--box)}
.timeline{display:flex;overflow-x:auto;border:1px solid var(--line);border-radius:.4rem}
.lanes{position:sticky;left:0;z-index:1;flex:none;width:12rem;max-width:35vw;margin:0;padding:40px .5rem 0;list-style:none;
background:var(--box);border-right:1px solid var(--line)}
.lanes li{height:48px;line-height:1.2;overflow:hidden;display:flex;flex-direction:column;justify-content:center}
.lanes li>*{white-space:nowrap;overflow:hidden;text-overflow:ellipsis}
svg{flex:none;display:block}svg text{font-size:11px;fill:var(--text)}svg a text{fill:var(--on);text-anchor:middle}
svg .time{fill:var(--faint);text-anchor:middle}svg .name{display:none}
svg a:hover circle,svg a:focus circle{stroke:var(--text);stroke-width:3}
.lane,.grid{stroke:var(--line);fill:none}.grid{stroke-dasharray:2 4}
.arrow{fill:none;stroke:var(--c);stroke-width:1.6}.elsewhere{--c:var(--faint);stroke-dasharray:3 2}
.tip,circle{fill:var(--c)}
.c0{--c:var(--c0)}.c1{--c:var(--c1)}.c2{--c:var(--c2)}.c3{--c:var(--c3)}.c4{--c:var(--c4)}.c5{--c:var(--c5)}.c6{--c:var(--c6)}
.tree,.tree ul{list-style:none;margin:0;padding:0}
.tree ul{margin-left:.7rem;padding-left:.7rem;border-left:2px solid var(--line)}
.tree ul ul ul ul ul ul ul ul{margin-left:0;padding-left:0;border-left:0}
summary{padding:.25rem .3rem;cursor:pointer;border-radius:.3rem}summary:hover{background:var(--box)}
summary b{display:inline-block;min-width:1.6rem;padding:0 .35rem;border-radius:1rem;background:var(--c);color:var(--on);
text-align:center;font-size:.8rem}
summary i{font-style:normal;font-weight:600}
dl{display:grid;grid-template-columns:8rem 1fr;gap:.2rem .8rem;margin:.2rem 0 .8rem 1.2rem;padding:.6rem .8rem;
background:var(--box);border-radius:.4rem}
dl{scroll-margin-top:4rem}dl:target{outline:2px solid var(--c1)}dt{color:var(--faint)}dd{margin:0;white-space:pre-wrap}dd ol{margin:0;padding-left:1.4rem}
pre{margin:0;white-space:pre-wrap;font:.9rem/1.4 ui-monospace,monospace}code{font:.9rem ui-monospace,monospace}
@media (max-width:40rem){dl{grid-template-columns:1fr;gap:0;margin-left:0}dd{margin-bottom:.4rem}}
@media print{body{max-width:none;padding:0}.lanes{display:none}.timeline{display:block;overflow:visible;border:0}
svg{width:100%;height:auto}svg .name{display:block}details::details-content{content-visibility:visible;block-size:auto}
details>*{display:block}dl{display:grid}summary{break-after:avoid}}
)";

static std::string make_header(const page_t& page) {
  const chain_t& chain = *page.chain;
  std::string html = "<header>\n<h1>" + count_of(chain.incidents.size(), "incident", "incidents") + "</h1>\n";
  if (!chain.incidents.empty()) {
    std::vector<int64_t> times;
    for (const incident_t& incident : chain.incidents) times.push_back(exact_time(incident));
    const int64_t first = *std::min_element(times.begin(), times.end()); /* a clock may have been set back */
    const int64_t last = *std::max_element(times.begin(), times.end());
    html += "<p class=\"summary\">" + count_of(chain.lane_names.size(), "process", "processes") + ", from " +
            date_of(first) + " " + clock_of(first) + " to " + date_of(last) + " " + clock_of(last) +
            " UTC. All times are UTC.</p>\n";
  }
  for (const std::string& note : chain.notes) html += "<p class=\"note\">Not complete: " + recorded(note) + "</p>\n";
  return html + "</header>\n";
}

std::string make_html(const chain_t& chain) {
  const page_t page = make_page(chain);
  const std::string title = count_of(chain.incidents.size(), "incident", "incidents");
  return "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
         "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src 'unsafe-inline'\">\n"
         "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
         "<meta name=\"color-scheme\" content=\"light dark\">\n<title>" +
         title + "</title>\n<style>" + STYLE + "</style>\n</head>\n<body>\n" + make_header(page) +
         "<main>\n<section>\n<h2>Time line</h2>\n"
         "<p class=\"hint\">Each disc is an incident, each row a process; an arrow leads from a cause to what it "
         "caused. "
         "Long pauses are drawn shorter. A dashed line comes from a cause that is not recorded here.</p>\n" +
         make_time_line(page) + "</section>\n<section>\n<h2>Causes and effects</h2>\n" +
         "<p class=\"hint\">Below each incident stands what it caused. Open one to see all that is recorded.</p>\n" +
         make_tree(page) + "</section>\n</main>\n</body>\n</html>\n";
}
