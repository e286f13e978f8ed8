/* SPDX-License-Identifier: MIT */
/* page_timeline.cpp - the incidents on a time line: where each stands, and the drawing that needs no script. page.js draws
 * the same, by the same measures, which the page hands to it, for any part of the time and of the incidents. */
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <numeric>
#include <set>

#include "page.h"
#include "text.h"
#include "utc_time.h"

/* Measures of the drawing, in pixels. */
static constexpr double WIDTH = 1024;
static constexpr double LANE_HEIGHT = 32;
static constexpr double NODE_HEIGHT = 24;   /* of the line that names a node, where there are several */
static constexpr double FIRST_LANE = 44;    /* below the dates and times */
static constexpr double NAMES = -150;       /* left end of the names on paper, which stand beside the drawing */
static constexpr double RADIUS = 9;         /* of a mark with a number or a count, */
static constexpr double SMALL_RADIUS = 5.5; /* of one without */
static constexpr double DIGIT_WIDTH = 6.5;
static constexpr double MARK_GAP = 2;
static constexpr double TIP = 5;          /* height of an arrow's */
static constexpr double CORNER = 5;       /* radius of an arrow's bends */
static constexpr double BREAK_WIDTH = 52; /* of a pause that is left out */
static constexpr double BURST_PAD = 26;   /* before the first and behind the last incident of a burst */
static constexpr double TICK_WIDTH = 84;  /* of a time and a blank */
static constexpr double DATE_WIDTH = 100;
static constexpr int DETOUR_MAX = 96; /* around marks; beyond, arrows pass below them */
static constexpr size_t BAND_MIN = 5; /* so many arrows of one cause into one lane become a band */
static constexpr size_t CROWDED = 80; /* so many arrows are drawn faint, straight, and without tips */
static constexpr size_t ARROWS_MAX = 400;

/* Steps between two times of the axis, in milliseconds. */
static constexpr int64_t STEPS[] = {1,      2,      5,       10,      20,      50,       100,      200,      500,
                                    1000,   2000,   5000,    10000,   15000,   30000,    60000,    120000,   300000,
                                    600000, 900000, 1800000, 3600000, 7200000, 10800000, 21600000, 43200000, 86400000};

/* The measures by the names that the script has for them. */
static constexpr struct {
  const char* name;
  double value;
} MEASURES[] = {{"LANE", LANE_HEIGHT},      {"NODE", NODE_HEIGHT},  {"AXIS", FIRST_LANE},
                {"NAMES", NAMES},           {"RADIUS", RADIUS},     {"SMALL", SMALL_RADIUS},
                {"DIGIT", DIGIT_WIDTH},     {"GAP", MARK_GAP},      {"TIP", TIP},
                {"CORNER", CORNER},         {"TICK", TICK_WIDTH},   {"DATE", DATE_WIDTH},
                {"DETOUR_MAX", DETOUR_MAX}, {"BAND_MIN", BAND_MIN}, {"CROWDED", CROWDED},
                {"ARROWS_MAX", ARROWS_MAX}};

static std::string measures_for_script() {
  std::string json = "{";
  for (const auto& [name, value] : MEASURES) json += std::string("\"") + name + "\":" + formatted("%g", value) + ",";
  json += "\"STEPS\":[";
  for (int64_t step : STEPS) json += (step == STEPS[0] ? "" : ",") + std::to_string(step);
  return json + "]}";
}

/* ---- Time ---------------------------------------------------------------------------------------------------------- */

/* A part of the time in which places are proportional to it. */
struct burst_t {
  int64_t from, to;
  size_t incidents;
  double x, width;
};

static std::vector<int64_t> sorted_times(const chain_t& chain) {
  std::vector<int64_t> times;
  times.reserve(chain.incidents.size());
  for (const incident_t& incident : chain.incidents) times.push_back(exact_time(incident));
  std::sort(times.begin(), times.end());
  return times;
}

/* The pauses that are left out, by the index of the time behind them: those that are long, compared with the rest. */
static std::set<size_t> find_breaks(const std::vector<int64_t>& times) {
  static constexpr size_t BREAKS_MAX = 8;
  static constexpr double SHORTEST = 30.0 * SECOND;
  std::vector<size_t> order(times.size() > 1 ? times.size() - 1 : 0);
  std::iota(order.begin(), order.end(), size_t{1});
  auto pause = [&](size_t at) { return static_cast<double>(times[at]) - static_cast<double>(times[at - 1]); };
  std::stable_sort(order.begin(), order.end(), [&](size_t one, size_t other) { return pause(one) > pause(other); });
  double left = order.empty() ? 0 : static_cast<double>(times.back()) - static_cast<double>(times.front());
  std::set<size_t> breaks;
  for (size_t rank = 0; rank + 1 < order.size() && breaks.size() < BREAKS_MAX; ++rank) {
    const double longest = pause(order[rank]), others = left - longest;
    const double mean = others / static_cast<double>(order.size() - rank - 1);
    if (longest < SHORTEST || longest < left / 10 || longest < 6 * mean) break;
    breaks.insert(order[rank]);
    left = others;
  }
  return breaks;
}

/* Parts with more incidents are wider. */
static double weight_of(const burst_t& burst) {
  return burst.from == burst.to ? 0 : std::sqrt(static_cast<double>(burst.incidents));
}

static std::vector<burst_t> make_bursts(const chain_t& chain) {
  const std::vector<int64_t> times = sorted_times(chain);
  const std::set<size_t> breaks = find_breaks(times);
  std::vector<burst_t> bursts;
  for (size_t at = 0; at < times.size(); ++at) {
    if (at == 0 || breaks.contains(at)) bursts.push_back({times[at], times[at], 0, 0, 0});
    bursts.back().to = times[at];
    ++bursts.back().incidents;
  }
  double weights = 0, free = WIDTH + BREAK_WIDTH;
  for (const burst_t& burst : bursts) {
    weights += weight_of(burst);
    free -= BREAK_WIDTH + 2 * BURST_PAD;
  }
  double x = 0;
  for (burst_t& burst : bursts) {
    burst.x = x + BURST_PAD;
    burst.width = weights > 0 ? free * weight_of(burst) / weights : 0;
    x += burst.width + 2 * BURST_PAD + BREAK_WIDTH;
  }
  return bursts;
}

static double place_of(const std::vector<burst_t>& bursts, int64_t time) {
  auto after = std::upper_bound(bursts.begin(), bursts.end(), time,
                                [](int64_t moment, const burst_t& burst) { return moment < burst.from; });
  const burst_t& burst = *(after == bursts.begin() ? after : after - 1);
  if (burst.to == burst.from) return burst.x;
  const double part = (static_cast<double>(time) - static_cast<double>(burst.from)) /
                      (static_cast<double>(burst.to) - static_cast<double>(burst.from));
  return burst.x + std::clamp(part, 0.0, 1.0) * burst.width;
}

/* ---- Marks --------------------------------------------------------------------------------------------------------- */

/* One or more incidents of a lane that would overlap. */
struct timeline_mark_t {
  size_t lane;
  double x, half; /* its middle, and half its width */
  std::vector<size_t> incidents;
};

struct drawing_t {
  const page_t* page;
  std::vector<burst_t> bursts;
  std::vector<double> lanes; /* their places, from above */
  double height;
  std::vector<timeline_mark_t> marks;
  std::vector<std::vector<size_t>> lane_marks; /* in order of their places */
  std::vector<size_t> mark_of;                 /* each incident */
};

static const lane_t& lane_of(const page_t& page, size_t bar) {
  return page.chain->lane_names[page.chain->lanes[page.bar_firsts[bar]]];
}

static bool is_shared(const page_t& page, size_t bar) {
  return page.other_lanes > 0 && bar + 1 == page.bar_firsts.size();
}

static bool is_other_node(const page_t& page, size_t bar) {
  return page.nodes.texts.size() > 1 && !is_shared(page, bar) &&
         (bar == 0 || lane_of(page, bar).node != lane_of(page, bar - 1).node);
}

static double half_width(const page_t& page, const timeline_mark_t& mark) {
  if (mark.incidents.size() == 1) return page.has_numbers ? RADIUS : SMALL_RADIUS;
  return std::max(RADIUS + 1, 5 + DIGIT_WIDTH * static_cast<double>(std::to_string(mark.incidents.size()).size()));
}

/* Half the height of a mark. */
static double reach_of(const timeline_mark_t& mark) {
  return std::min(mark.half, RADIUS);
}

/* Adds the marks of a lane: what would overlap the one before becomes one with it. */
static void add_marks(drawing_t* drawing, size_t lane, const std::vector<std::pair<double, size_t>>& places) {
  std::vector<timeline_mark_t> marks;
  for (const auto& [x, index] : places) {
    timeline_mark_t mark = {lane, x, 0, {index}};
    mark.half = half_width(*drawing->page, mark);
    while (!marks.empty() && mark.x - mark.half < marks.back().x + marks.back().half + MARK_GAP) {
      timeline_mark_t& before = marks.back();
      const auto count = static_cast<double>(mark.incidents.size());
      const auto count_before = static_cast<double>(before.incidents.size());
      mark.x = (mark.x * count + before.x * count_before) / (count + count_before);
      before.incidents.insert(before.incidents.end(), mark.incidents.begin(), mark.incidents.end());
      mark.incidents = std::move(before.incidents);
      mark.half = half_width(*drawing->page, mark);
      marks.pop_back();
    }
    marks.push_back(std::move(mark));
  }
  for (timeline_mark_t& mark : marks) {
    for (size_t index : mark.incidents) drawing->mark_of[index] = drawing->marks.size();
    drawing->lane_marks[lane].push_back(drawing->marks.size());
    drawing->marks.push_back(std::move(mark));
  }
}

static drawing_t make_drawing(const page_t& page) {
  const chain_t& chain = *page.chain;
  drawing_t drawing = {};
  drawing.page = &page;
  drawing.bursts = make_bursts(chain);
  drawing.mark_of.resize(chain.incidents.size());
  std::vector<std::vector<std::pair<double, size_t>>> places(page.bar_firsts.size());
  for (size_t index = 0; index < chain.incidents.size(); ++index)
    places[page.bars[chain.lanes[index]]].emplace_back(place_of(drawing.bursts, exact_time(chain.incidents[index])),
                                                       index);
  drawing.height = FIRST_LANE;
  drawing.lane_marks.resize(places.size());
  for (size_t bar = 0; bar < places.size(); ++bar) {
    if (is_other_node(page, bar)) drawing.height += NODE_HEIGHT;
    drawing.lanes.push_back(drawing.height + LANE_HEIGHT / 2);
    drawing.height += LANE_HEIGHT;
    std::sort(places[bar].begin(), places[bar].end());
    add_marks(&drawing, bar, places[bar]);
  }
  return drawing;
}

/* ---- Arrows -------------------------------------------------------------------------------------------------------- */

struct point_t {
  double x, y;
};

/* A line of horizontal and vertical pieces, with round bends. */
static std::string bent_line(std::vector<point_t> points) {
  const auto same = [](point_t one, point_t other) { return std::hypot(one.x - other.x, one.y - other.y) < 0.5; };
  points.erase(std::unique(points.begin(), points.end(), same), points.end());
  std::string path = formatted("M%.0f %.0f", points[0].x, points[0].y);
  for (size_t at = 1; at < points.size(); ++at) {
    const point_t from = points[at - 1], here = points[at];
    if (at + 1 == points.size()) return path + formatted("L%.0f %.0f", here.x, here.y);
    const point_t next = points[at + 1];
    auto toward =
        [](point_t start,
           point_t end) { /* along the piece, at most half of it */
                          const double length = std::hypot(end.x - start.x, end.y - start.y);
                          const double part = length > 0 ? std::min(CORNER, length / 2) / length : 0;
                          return point_t{start.x + (end.x - start.x) * part, start.y + (end.y - start.y) * part};
        };
    const point_t in = toward(here, from), out = toward(here, next);
    path += formatted("L%.0f %.0fQ%.0f %.0f %.0f %.0f", in.x, in.y, here.x, here.y, out.x, out.y);
  }
  return path;
}

/* Whether a vertical line at x meets no mark of the lanes from `first` to before `last`. */
static bool is_free(const drawing_t& drawing, double x, size_t first, size_t last) {
  for (size_t lane = first; lane < last; ++lane) {
    const std::vector<size_t>& marks = drawing.lane_marks[lane];
    auto near = std::lower_bound(marks.begin(), marks.end(), x,
                                 [&](size_t mark, double at) { return drawing.marks[mark].x < at - 40; });
    for (; near != marks.end() && drawing.marks[*near].x < x + 40; ++near)
      if (std::abs(drawing.marks[*near].x - x) < drawing.marks[*near].half + 3) return false;
  }
  return true;
}

/* Where an arrow passes the lanes between its ends: at its cause, at its effect, or wherever there is room. */
static double find_passage(const drawing_t& drawing, const timeline_mark_t& cause, const timeline_mark_t& effect) {
  const size_t first = std::min(cause.lane, effect.lane) + 1, last = std::max(cause.lane, effect.lane);
  if (is_free(drawing, cause.x, first, last)) return cause.x;
  if (is_free(drawing, effect.x, first, last)) return effect.x;
  for (int step = 8; step <= DETOUR_MAX; step += 8) {
    if (cause.x + step < WIDTH && is_free(drawing, cause.x + step, first, last)) return cause.x + step;
    if (cause.x - step > 0 && is_free(drawing, cause.x - step, first, last)) return cause.x - step;
  }
  return cause.x; /* marks are drawn over it */
}

/* Arrows run in the space between lanes, and down through lanes where there is no mark. Those of one cause into one lane
 * have their way in common; many of them become a band. */
static std::string make_arrows_between(const drawing_t& drawing, const timeline_mark_t& cause,
                                       const std::set<size_t>& effects, size_t count, bool is_crowded) {
  const timeline_mark_t& first = drawing.marks[*effects.begin()];
  const timeline_mark_t& last = drawing.marks[*effects.rbegin()];
  const double from = drawing.lanes[cause.lane], to = drawing.lanes[first.lane];
  const int colour = drawing.page->colours[cause.incidents[0]];
  const double side = first.lane > cause.lane ? 1 : -1;           /* of the cause on which arrows leave it */
  const double entry = first.lane < cause.lane ? 1 : -1;          /* of the effects on which they come in */
  const double track = 2.5 * static_cast<double>(colour % 3 - 1); /* chains beside each other, not over each other */
  const double start_bus = from + side * LANE_HEIGHT / 2 + track, bus = to + entry * LANE_HEIGHT / 2 + track;
  const bool is_band = effects.size() >= BAND_MIN;
  const double passage = is_crowded ? cause.x : find_passage(drawing, cause, first);
  std::string line, tips;
  for (size_t effect : effects) {
    const timeline_mark_t& mark = drawing.marks[effect];
    const double end = to + entry * ((is_band ? RADIUS : reach_of(mark)) + 1);
    const double x = is_band ? std::clamp(passage, first.x, last.x) : mark.x;
    line += line.empty() ? bent_line({{cause.x, from + side * reach_of(cause)},
                                      {cause.x, start_bus},
                                      {passage, start_bus},
                                      {passage, bus},
                                      {x, bus},
                                      {x, end + entry * TIP}})
                         : bent_line({{passage, bus}, {x, bus}, {x, end + entry * TIP}});
    tips += formatted("M%.1f %.1fl-3.5 %.0fh7z", x, end, entry * TIP);
    if (is_band) break;
  }
  std::string svg = formatted("<path class=\"arrow c%d\" d=\"", colour) + line + "\"/>" +
                    formatted("<path class=\"tip c%d\" d=\"", colour) + tips + "\"/>\n";
  if (is_band)
    svg += formatted("<rect class=\"band c%d\" x=\"%.0f\" y=\"%.0f\" width=\"%.0f\" height=\"5\" rx=\"2.5\"/>", colour,
                     first.x - RADIUS, bus - 2.5, last.x - first.x + 2 * RADIUS) +
           formatted("<text class=\"count\" x=\"%.0f\" y=\"%.0f\">%zu</text>\n", last.x + RADIUS + 3, bus + 3.5, count);
  return svg;
}

static std::string make_arrows(const drawing_t& drawing) {
  const chain_t& chain = *drawing.page->chain;
  struct effects_t {
    std::set<size_t> marks;
    size_t count;
  };
  std::map<std::pair<size_t, size_t>, effects_t> arrows; /* by the cause's mark, and the lane */
  std::string svg;
  for (size_t index = 0; index < chain.causes.size(); ++index) {
    const timeline_mark_t& mark = drawing.marks[drawing.mark_of[index]];
    const size_t cause = chain.causes[index];
    if (cause == NO_CAUSE && !chain.incidents[index].cause.empty() && mark.incidents.size() == 1)
      svg += formatted("<path class=\"arrow from\" d=\"M%.0f %.0fl7 9\"/>", mark.x - 13, drawing.lanes[mark.lane] - 16);
    if (cause == NO_CAUSE || drawing.mark_of[cause] == drawing.mark_of[index]) continue;
    effects_t& effects = arrows[{drawing.mark_of[cause], mark.lane}];
    effects.marks.insert(drawing.mark_of[index]);
    ++effects.count;
  }
  const bool is_crowded = arrows.size() > CROWDED;
  size_t drawn = 0;
  for (const auto& [place, effects] : arrows)
    if (++drawn <= ARROWS_MAX)
      svg += make_arrows_between(drawing, drawing.marks[place.first], effects.marks, effects.count, is_crowded);
  return is_crowded ? "<g class=crowded>" + svg + "</g>" : svg;
}

/* ---- The drawing --------------------------------------------------------------------------------------------------- */

static std::string make_mark(const drawing_t& drawing, const timeline_mark_t& mark) {
  const page_t& page = *drawing.page;
  const size_t index = mark.incidents[0], count = mark.incidents.size();
  const incident_t& incident = page.chain->incidents[index];
  const double y = drawing.lanes[mark.lane];
  const bool is_chain = std::all_of(mark.incidents.begin(), mark.incidents.end(),
                                    [&](size_t other) { return page.colours[other] == page.colours[index]; });
  const std::string number = page.has_numbers ? std::to_string(index + 1) + ": " : "";
  const std::string name = (count > 1 ? std::to_string(count) + " incidents from " : number) +
                           local_clock(exact_time(incident), page.has_milliseconds) + " " + incident.process + ": " +
                           short_description(incident, 120);
  std::string svg =
      "<a href=\"" + fragment(page.anchors[index]) + "\" aria-label=\"" + escaped(name) + "\">" +
      formatted("<rect class=\"%s c%d\" x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.0f\" rx=\"%.0f\"/>",
                count > 1 ? "mark bundle" : "mark", is_chain ? page.colours[index] : 0, mark.x - mark.half,
                y - reach_of(mark), 2 * mark.half, 2 * reach_of(mark), reach_of(mark));
  if (count > 1 || page.has_numbers)
    svg += formatted("<text class=\"%s\" x=\"%.1f\" y=\"%.1f\">%zu</text>", count > 1 ? "many" : "number", mark.x,
                     y + 3.5, count > 1 ? count : index + 1);
  return svg + "<title>" + escaped(name) + "</title></a>\n";
}

/* A pause for the eye: its two largest units. */
static std::string pause_text(int64_t microseconds) {
  static constexpr struct {
    int64_t seconds;
    const char* name;
  } UNITS[] = {{int64_t{365} * 86400, "y"}, {86400, "d"}, {3600, "h"}, {60, "min"}, {1, "s"}};
  int64_t seconds = microseconds / SECOND;
  for (size_t at = 0; at + 1 < std::size(UNITS); ++at) {
    if (seconds < UNITS[at].seconds) continue;
    const int64_t rest = seconds % UNITS[at].seconds / UNITS[at + 1].seconds;
    const std::string text = std::to_string(seconds / UNITS[at].seconds) + " " + UNITS[at].name;
    return rest == 0 || at == 3 ? text : text + " " + std::to_string(rest) + (at == 2 ? "" : UNITS[at + 1].name);
  }
  return std::to_string(seconds) + " s";
}

/* The step between two times of the axis: a round one that leaves them room. */
static int64_t find_step(const burst_t& burst) {
  const double span = static_cast<double>(burst.to) - static_cast<double>(burst.from);
  const double least = burst.width > 0 ? span * TICK_WIDTH / burst.width : 0;
  for (int64_t step : STEPS)
    if (static_cast<double>(step) * 1000 >= least) return step * 1000;
  const auto days = static_cast<int64_t>(std::ceil(least / (86400.0 * SECOND)));
  return days * 86400 * SECOND;
}

/* Times and dates at the top, and the pauses that are left out. */
static std::string make_axis(const drawing_t& drawing) {
  std::string svg, date;
  double free_from = 0, date_free_from = 0;
  auto add = [&](int64_t time, double x, int64_t step) {
    const std::string new_date = local_date(time);
    const double at = std::max(x - 24, date_free_from);
    /* A date that would stand nearer to the next time is left out. */
    if (date.empty() || (new_date != date && at <= x - 24 + TICK_WIDTH / 2)) {
      date = new_date;
      date_free_from = at + DATE_WIDTH;
      svg += formatted("<text class=\"day\" x=\"%.0f\" y=\"14\">%s</text>", std::max(at, 2.0), date.c_str());
    }
    if (x < free_from) return;
    free_from = x + TICK_WIDTH - 20;
    std::string clock = local_clock(time, step < SECOND);
    if (step >= 60 * SECOND) clock.resize(5);
    svg += formatted("<path class=\"grid\" d=\"M%.0f 38V%.0f\"/><text class=\"time\" x=\"%.0f\" y=\"32\">%s</text>\n",
                     x, drawing.height, std::max(x, step < SECOND ? 34.0 : 24.0), clock.c_str());
  };
  for (size_t at = 0; at < drawing.bursts.size(); ++at) {
    const burst_t& burst = drawing.bursts[at];
    if (at > 0) {
      const burst_t& before = drawing.bursts[at - 1];
      const double x = before.x + before.width + BURST_PAD;
      svg += formatted(
          "<rect class=\"break\" x=\"%.0f\" y=\"20\" width=\"%.0f\" height=\"%.0f\"/>"
          "<text class=\"pause\" x=\"%.0f\" y=\"32\">%s</text>\n",
          x, BREAK_WIDTH, drawing.height - 20, x + BREAK_WIDTH / 2, pause_text(burst.from - before.to).c_str());
      free_from = std::max(free_from, burst.x - BURST_PAD);
    }
    const int64_t step = find_step(burst), offset = local_offset(burst.from);
    int64_t time = (burst.from + offset) / step * step - offset;
    if (time < burst.from) time += step;
    if (time > burst.to || burst.from == burst.to) add(burst.from, burst.x, SECOND);
    for (; time <= burst.to && burst.from != burst.to; time += step) add(time, place_of(drawing.bursts, time), step);
  }
  return svg;
}

static std::string node_name(const lane_t& lane) {
  return lane.node.empty() ? "unknown node" : escaped(lane.node);
}

static std::string lane_name(const page_t& page, size_t bar) {
  if (is_shared(page, bar)) return "<i>" + count_of(page.other_lanes, "other process", "other processes") + "</i>";
  const lane_t& lane = lane_of(page, bar);
  const size_t slash = page.has_one_stack ? lane.stack.size() : lane.stack.rfind('/') + 1; /* 0 where there is none */
  return "<i>" + escaped(lane.process) + "</i> <small>" + std::to_string(lane.process_id) + " " +
         escaped(lane.stack.substr(slash)) + "</small>";
}

/* The names beside the drawing, which the script keeps. */
static std::string make_lane_names(const page_t& page) {
  std::string html = "<ol class=lanes>";
  for (size_t bar = 0; bar < page.bar_firsts.size(); ++bar) {
    if (is_other_node(page, bar)) html += "\n<li class=node>" + node_name(lane_of(page, bar));
    html += "\n<li title=\"in " + escaped(lane_of(page, bar).stack) + "\">" + lane_name(page, bar);
  }
  return html + "</ol>\n";
}

static std::string make_svg(const drawing_t& drawing) {
  std::string svg = formatted(
      "<svg role=\"group\" aria-label=\"Incidents in order of time\" width=\"%.0f\" "
      "height=\"%.0f\" viewBox=\"0 0 %.0f %.0f\">\n",
      WIDTH, drawing.height, WIDTH, drawing.height);
  svg += make_axis(drawing);
  for (size_t bar = 0; bar < drawing.lanes.size(); ++bar) {
    const double y = drawing.lanes[bar];
    const lane_t& lane = lane_of(*drawing.page, bar);
    if (is_other_node(*drawing.page, bar))
      svg += formatted("<text class=\"name\" x=\"%.0f\" y=\"%.0f\">", NAMES, y - LANE_HEIGHT / 2 - 8) +
             node_name(lane) + "</text>\n";
    svg += formatted("<path class=\"lane\" d=\"M0 %.0fH%.0f\"/><text class=\"name\" x=\"%.0f\" y=\"%.0f\">", y, WIDTH,
                     NAMES, y + 4) +
           escaped(lane.process) + " " + std::to_string(lane.process_id) + "</text>\n";
  }
  svg += make_arrows(drawing);
  for (const timeline_mark_t& mark : drawing.marks) svg += make_mark(drawing, mark);
  return svg + "</svg>";
}

std::string make_time_line(const page_t& page) {
  const drawing_t drawing = make_drawing(page);
  std::string bursts; /* for the script, with the drawing's whole width in front */
  for (const burst_t& burst : drawing.bursts)
    bursts += formatted(" %lld %lld %.2f %.2f", static_cast<long long>(burst.from), static_cast<long long>(burst.to),
                        burst.x, burst.width);
  return formatted("<div class=pane style=\"--axis:%.0fpx;--lane:%.0fpx;--node:%.0fpx\" data-bursts=\"%.0f", FIRST_LANE,
                   LANE_HEIGHT, NODE_HEIGHT, WIDTH) +
         bursts + "\" data-measures='" + measures_for_script() + "'>\n" + make_lane_names(page) +
         "<noscript><div class=drawing tabindex=0 role=region aria-label=\"Time line\">" + make_svg(drawing) +
         "</div></noscript></div>\n";
}
