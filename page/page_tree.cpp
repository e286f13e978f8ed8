/* SPDX-License-Identifier: MIT */
/* page_tree.cpp - the incidents as rows, each below its cause, and all that is recorded of them. The script takes the rows
 * apart again: each begins behind a newline, which no recorded text can bring before a "<". */
#include <map>

#include "page.h"
#include "text.h"
#include "utc_time.h"

static constexpr size_t SHORT_DESCRIPTION = 200; /* characters */
static constexpr size_t DEEP = 12;               /* from here on rows are not indented further: they say their depth */

/* What many incidents have in common: rows that their records refer to, numbered from 1. */
struct table_t {
  std::map<std::string, size_t> numbers;
  std::vector<std::string> rows;
};

static size_t number_in(table_t* table, const std::string& row) {
  const auto [known, is_new] = table->numbers.try_emplace(row, table->numbers.size() + 1);
  if (is_new) table->rows.push_back(row);
  return known->second;
}

/* ---- Records ------------------------------------------------------------------------------------------------------- */

static std::string field(const char* label, const std::string& value) {
  return std::string("<dt>") + label + "<dd>" + value;
}

static std::string both_times(int64_t microseconds, bool is_exact) {
  std::string utc = is_exact ? utc_time_of_microseconds(microseconds) : utc_time(microseconds / SECOND);
  const std::string zone = local_zone(microseconds);
  if (local_offset(microseconds) == 0) return utc;
  return local_date(microseconds) + " " + local_clock(microseconds, is_exact) + " " + escaped(zone) + " (" + utc + ")";
}

static std::string id_field(const incident_t& incident) {
  return field("Error ID", incident.id.empty() ? "none" : "<code>" + escaped(incident.id) + "</code>");
}

static std::string cause_field(const page_t& page, size_t index) {
  const incident_t& incident = page.chain->incidents[index];
  if (incident.cause.empty()) return "";
  const size_t cause = page.chain->causes[index];
  const std::string id = "<code>" + escaped(incident.cause) + "</code>";
  if (cause == NO_CAUSE)
    return field("Cause",
                 id + (may_be_recorded(*page.chain, incident.cause) ? " (not shown here)" : " (not recorded here)"));
  return field("Cause",
               "<a href=\"" + fragment(page.anchors[cause]) + "\">" + id + "</a> (" + std::to_string(cause + 1) + ")");
}

static std::string argument_fields(const incident_t& incident, bool has_types) {
  std::string html;
  for (const argument_t& argument : incident.arguments)
    html += "<dd>" + escaped(argument.value) + (has_types ? " <small>" + escaped(argument.type) + "</small>" : "");
  return html.empty() ? html : "<dt>Arguments" + html;
}

static std::string argument_types(const incident_t& incident) {
  std::string html;
  for (const argument_t& argument : incident.arguments) html += (html.empty() ? "" : ", ") + recorded(argument.type);
  return html.empty() ? html : field("Arguments are", html);
}

/* What a description is filled in from. */
static std::string message_field(const incident_t& incident) {
  const std::string catalog = incident.catalog.empty() ? "no catalog" : "catalog " + recorded(incident.catalog);
  return field("Message", recorded(incident.default_message) + "<br>" + catalog + ", set " +
                              std::to_string(incident.message_set) + ", number " +
                              std::to_string(incident.message_number));
}

/* What incidents of one place in a process have in common. */
static std::string place_fields(const incident_t& incident) {
  const std::string node = incident.node.empty() ? "" : ", on " + recorded(incident.node);
  return field("Detected in", recorded(incident.file) + " line " + std::to_string(incident.line) + ", version " +
                                  recorded(incident.file_version) + ", product " + recorded(incident.product)) +
         field("Process", recorded(incident.process) + " " + std::to_string(incident.process_id) + ", parent " +
                              std::to_string(incident.parent_id) + ", thread " + std::to_string(incident.thread_id)) +
         field("Stack", recorded(incident.stack) + node);
}

/* Whether the time of the row leaves out something of what is recorded. */
static bool has_other_time(const incident_t& incident) {
  return incident.id_time != NO_ID_TIME && incident.id_time / SECOND != incident.time;
}

/* All that is recorded of an incident. The Error ID is that of its row, where it has one. */
static std::string make_record(const page_t& page, size_t index, table_t* common) {
  const incident_t& incident = page.chain->incidents[index];
  const bool is_cut = short_description(incident, SHORT_DESCRIPTION).size() != incident.description.size() ||
                      incident.description.find_first_of("\n\t") != std::string::npos;
  std::string html = "<dl>";
  if (is_cut) html += field("Description", escaped(incident.description));
  if (!incident.details.empty()) html += field("Details", escaped(incident.details));
  if (page.is_brief) {
    const size_t number =
        number_in(common, place_fields(incident) + message_field(incident) + argument_types(incident));
    if (page.anchors[index] != incident.id) html += id_field(incident);
    if (page.chain->causes[index] == NO_CAUSE) html += cause_field(page, index);
    html += argument_fields(incident, false);
    if (has_other_time(incident)) html += field("Recorded", utc_time(incident.time));
    return html +
           formatted("<dt>Record<dd>offset %lld, table row %zu</dl>", static_cast<long long>(incident.offset), number);
  }
  html += id_field(incident) + cause_field(page, index);
  html += field("Time", both_times(exact_time(incident), incident.id_time != NO_ID_TIME));
  if (has_other_time(incident)) html += field("Recorded", both_times(incident.time * SECOND, false));
  return html + place_fields(incident) + ", offset " + std::to_string(incident.offset) + "</dl><dl class=more>" +
         argument_fields(incident, true) + message_field(incident) + "</dl>";
}

/* ---- Rows ---------------------------------------------------------------------------------------------------------- */

static std::string depth_of(const row_t& row) {
  return row.depth == 0 ? "" : " style=--d:" + std::to_string(row.depth);
}

static std::string classes_of(const page_t& page, const row_t& row) {
  const incident_t& incident = page.chain->incidents[row.index];
  std::string names;
  auto add = [&](const std::string& name) { names += (names.empty() ? "" : " ") + name; };
  if (row.repeats > 0) add("all");
  if (page.colours[row.index] != 0) add("c" + std::to_string(page.colours[row.index]));
  if (row.depth > DEEP) add("deep");
  if (page.chain->causes[row.index] == NO_CAUSE && !incident.cause.empty()) add("elsewhere");
  if (!page.chain->asked_id.empty() && incident.id == page.chain->asked_id) add("asked");
  return names.empty() ? "" : " class=" + (names.find(' ') == names.npos ? names : '"' + names + '"');
}

static std::string clock_of(const page_t& page, int64_t time) {
  return local_clock(time, page.has_milliseconds);
}

static std::string node_of(const page_t& page, size_t index) {
  const std::string& node = page.chain->incidents[index].node;
  return page.nodes.texts.size() > 1 && !node.empty() ? " <u>" + escaped(node) + "</u>" : "";
}

static std::string make_summary(const page_t& page, size_t index) {
  const incident_t& incident = page.chain->incidents[index];
  const int64_t time = exact_time(incident);
  const std::string utc = incident.id_time == NO_ID_TIME ? utc_time(incident.time) : utc_time_of_microseconds(time);
  const bool is_asked = !page.chain->asked_id.empty() && incident.id == page.chain->asked_id;
  return "<summary><b>" + std::to_string(index + 1) + "</b> <time datetime=" + utc + ">" + clock_of(page, time) +
         "</time> <i>" + escaped(incident.process) + "</i> " +
         recorded(short_description(incident, SHORT_DESCRIPTION)) + (is_asked ? " <mark>asked for</mark>" : "") +
         node_of(page, index) + "</summary>";
}

/* A row; its numbers are for the script: lane, node, process, product, and number of the cause. */
static std::string make_row(const page_t& page, const row_t& row, table_t* common) {
  const size_t index = row.index, cause = page.chain->causes[index];
  return "\n<li id=" + attribute(page.anchors[index]) + classes_of(page, row) + depth_of(row) +
         formatted(" data-r=\"%zu %zu %zu %zu %zu\">", page.bars[page.chain->lanes[index]], page.nodes.chosen[index],
                   page.processes.chosen[index], page.products.chosen[index], cause == NO_CAUSE ? 0 : cause + 1) +
         "<details>" + make_summary(page, index) + make_record(page, index, common) + "</details>";
}

/* The row that stands for its repeats. */
static std::string make_repeats(const page_t& page, const row_t& row, size_t last) {
  const incident_t& incident = page.chain->incidents[row.index];
  const int64_t first_time = exact_time(incident), last_time = exact_time(page.chain->incidents[last]);
  const bool is_one_day = local_date(first_time) == local_date(last_time);
  const std::string until = (is_one_day ? "" : local_date(last_time) + " ") + clock_of(page, last_time);
  return "\n<li" + classes_of(page, row) + depth_of(row) + "><details><summary><b>\xC3\x97" +
         std::to_string(row.repeats) + "</b> <time>" + clock_of(page, first_time) + "</time> <i>" +
         escaped(incident.process) + "</i> " + recorded(short_description(incident, SHORT_DESCRIPTION)) + " <u>until " +
         until + "</u>" + node_of(page, row.index) + "</summary>\n<ul>";
}

static std::string make_table(const table_t& table) {
  std::string html = "\n<h2>What many have in common</h2>\n<ol class=table>";
  for (const std::string& row : table.rows) html += "\n<li><dl>" + row + "</dl>";
  return html + "</ol>";
}

std::string make_tree(const page_t& page) {
  table_t common;
  std::string html = "<ul class=tree>", date;
  size_t repeats = 0; /* that are still to come */
  for (size_t at = 0; at < page.rows.size(); ++at) {
    const row_t& row = page.rows[at];
    const std::string new_date = local_date(exact_time(page.chain->incidents[row.index]));
    if (new_date != date && repeats == 0) html += "\n<li class=date>" + new_date;
    if (repeats == 0) date = new_date;
    html += row.repeats > 0 ? make_repeats(page, row, page.rows[at + row.repeats].index) : make_row(page, row, &common);
    if (row.repeats > 0)
      repeats = row.repeats;
    else if (repeats > 0 && --repeats == 0)
      html += "\n</ul></details>";
  }
  html += "\n</ul>";
  return page.is_brief ? html + make_table(common) : html;
}
