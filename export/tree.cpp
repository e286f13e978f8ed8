/* SPDX-License-Identifier: MIT */
/* tree.cpp - shows incidents in the terminal, each chain as a tree with its first cause at the top. */
#include <langinfo.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <clocale>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <cwchar>
#include <cwctype>
#include <map>
#include <tuple>

#include "command.h"
#include "gather.h"
#include "text.h"
#include "utc_time.h"

/* Columns of a process name, at most, where a line has an end. */
static constexpr size_t PROCESS_WIDTH = 32;
static constexpr size_t LEVELS_MAX = 20; /* that are indented; deeper ones say their number */
static constexpr size_t UNLIMITED = static_cast<size_t>(-1) / 2;

/* What a row of the tree shows: an incident with its repeats, or a cause that is not here. */
struct tree_row_t {
  std::vector<size_t> members; /* incidents, the first one first */
  std::string missing;         /* Error ID of the cause */
  std::vector<size_t> effects; /* incidents that go below a missing cause */
  size_t depth;
  bool is_last; /* of the rows below the same one */
};

/* How the tree is drawn. */
struct tree_drawing_t {
  const chain_t* chain;
  const export_request_t* request;
  std::vector<std::vector<size_t>> effects; /* of each incident */
  std::vector<bool> is_drawn;
  std::vector<bool> is_last; /* by depth, of the row that is drawn and those above it */
  size_t width;              /* of the terminal; UNLIMITED elsewhere */
  bool is_utf8;
  bool has_nodes;   /* the incidents come from several */
  std::string node; /* of the incident above, and the day it was recorded on */
  std::string date;
  std::string text; /* what is drawn */
};

/* ---- Lines --------------------------------------------------------------------------------------------------------- */

/* A line that is cut at the right edge. */
struct tree_line_t {
  std::string* text; /* what is drawn, and goes on behind the lines above */
  size_t left;       /* columns that are free */
};

struct glyph_t {
  std::string_view bytes;
  size_t columns;
};

/* Whether it is a character of one column by itself. A lambda, as algorithms call no function by its address so quickly. */
static constexpr auto is_plain = [](char character) { return character >= ' ' && character <= '~'; };

/* Splits the first character, as it may be shown, off a text. */
static glyph_t next_glyph(std::string_view* text) {
  if (is_plain(text->front())) {
    const std::string_view byte = text->substr(0, 1);
    text->remove_prefix(1);
    return {byte, 1};
  }
  std::mbstate_t state = {};
  wchar_t character = 0;
  const size_t size = std::mbrtowc(&character, text->data(), text->size(), &state);
  const bool is_character = size >= 1 && size <= text->size();
  const std::string_view bytes = text->substr(0, is_character ? size : 1);
  text->remove_prefix(bytes.size());
  if (is_character && (character == L'\n' || character == L'\t')) return {" ", 1};
  const bool is_shown = is_character && std::iswprint(static_cast<wint_t>(character)) != 0 &&
                        !turns_text(static_cast<char32_t>(character));
  const int columns = is_shown ? wcwidth(character) : -1;
  return columns < 0 ? glyph_t{"?", 1} : glyph_t{bytes, static_cast<size_t>(columns)};
}

static bool is_plain_text(std::string_view text) {
  return std::all_of(text.begin(), text.end(), is_plain); /* nearly always */
}

static size_t columns_of(std::string_view text) {
  if (is_plain_text(text)) return text.size();
  size_t columns = 0;
  while (!text.empty()) columns += next_glyph(&text).columns;
  return columns;
}

/* Adds a text, of which `limit` columns may be seen; where there are more, it ends in an ellipsis. */
static void put(tree_line_t* line, std::string_view text, bool is_utf8, size_t limit = UNLIMITED) {
  limit = std::min(limit, line->left);
  if (text.size() <= limit && is_plain_text(text)) {
    *line->text += text;
    line->left -= line->left == UNLIMITED ? 0 : text.size();
    return;
  }
  const size_t whole = limit == UNLIMITED ? 0 : columns_of(text);
  const std::string_view ellipsis = is_utf8 ? "\xE2\x80\xA6" : "~";
  const size_t room = whole <= limit ? limit : limit - std::min(limit, size_t{1});
  size_t columns = 0;
  while (!text.empty()) {
    const glyph_t glyph = next_glyph(&text);
    if (columns + glyph.columns > room) break;
    *line->text += glyph.bytes;
    columns += glyph.columns;
  }
  if (whole > limit && limit > 0) {
    *line->text += ellipsis;
    ++columns;
  }
  line->left -= line->left == UNLIMITED ? 0 : columns;
}

static void put_coloured(tree_line_t* line, std::string_view text, const tree_drawing_t& drawing, const char* colour,
                         size_t limit = UNLIMITED) {
  const bool is_coloured = drawing.request->has_colours;
  if (is_coloured) *line->text += std::string("\033[") + colour + "m";
  put(line, text, drawing.is_utf8, limit);
  if (is_coloured) *line->text += "\033[0m";
}

/* The colour of a process, always the same for a name. */
static const char* colour_of(std::string_view process) {
  static constexpr const char* COLOURS[] = {"36", "32", "33", "35", "34", "96"};
  size_t sum = 0;
  for (char letter : process) sum = sum * 31 + static_cast<unsigned char>(letter);
  return COLOURS[sum % std::size(COLOURS)];
}

/* ---- Rows ---------------------------------------------------------------------------------------------------------- */

/* What repeats have in common. */
static auto repeat_key(const incident_t& incident) {
  return std::tie(incident.node, incident.process, incident.process_id, incident.catalog, incident.message_set,
                  incident.message_number, repeated_text(incident), incident.cause);
}

/* Makes rows of incidents below the same row: repeats become one. */
static std::vector<tree_row_t> make_rows(const tree_drawing_t& drawing, const std::vector<size_t>& incidents,
                                         size_t depth) {
  using repeat_key_t = decltype(repeat_key(incident_t()));
  std::vector<tree_row_t> rows;
  std::map<repeat_key_t, size_t> known;
  for (size_t index : incidents) {
    const incident_t& incident = drawing.chain->incidents[index];
    if (!incident.id.empty() && incident.id == drawing.request->id) { /* is no one's repeat: it is looked for */
      rows.push_back({{index}, "", {}, depth, false});
      continue;
    }
    const auto [row, is_new] = known.try_emplace(repeat_key(incident), rows.size());
    if (is_new) rows.push_back({{}, "", {}, depth, false});
    rows[row->second].members.push_back(index);
  }
  if (!rows.empty()) rows.back().is_last = true;
  return rows;
}

/* The rows at the top, in the order of their first incidents: first causes, and causes that are not here. */
static std::vector<tree_row_t> make_top(const tree_drawing_t& drawing) {
  const chain_t& chain = *drawing.chain;
  std::vector<size_t> first_causes;
  std::map<std::string, tree_row_t> missing;
  for (size_t index = 0; index < chain.incidents.size(); ++index) {
    if (chain.causes[index] != NO_CAUSE && chain.causes[index] != index) continue;
    const std::string& cause = chain.incidents[index].cause;
    if (cause.empty() || chain.causes[index] == index) {
      first_causes.push_back(index);
    } else {
      tree_row_t& row = missing.try_emplace(cause, tree_row_t{{}, cause, {}, 0, false}).first->second;
      row.effects.push_back(index);
    }
  }
  std::vector<tree_row_t> rows = make_rows(drawing, first_causes, 0);
  for (const auto& [cause, row] : missing) rows.push_back(row);
  auto first_of = [](const tree_row_t& row) { return row.members.empty() ? row.effects.front() : row.members.front(); };
  std::sort(rows.begin(), rows.end(),
            [&](const tree_row_t& one, const tree_row_t& other) { return first_of(one) < first_of(other); });
  return rows;
}

/* ---- Drawing ------------------------------------------------------------------------------------------------------- */

static void put_branches(tree_line_t* line, const tree_drawing_t& drawing, const tree_row_t& row) {
  const char* const through = drawing.is_utf8 ? "\xE2\x94\x82  " : "|  ";
  const char* const next = drawing.is_utf8 ? "\xE2\x94\x9C\xE2\x94\x80 " : "|- ";
  const char* const last = drawing.is_utf8 ? "\xE2\x94\x94\xE2\x94\x80 " : "`- ";
  const size_t levels = std::min(LEVELS_MAX, drawing.width / 10);
  for (size_t depth = 1; depth < std::min(row.depth, levels); ++depth)
    put(line, drawing.is_last[depth] ? "   " : through, drawing.is_utf8);
  if (row.depth > 0) put(line, row.is_last ? last : next, drawing.is_utf8);
  if (row.depth > levels) put(line, "[" + std::to_string(row.depth) + "] ", drawing.is_utf8);
}

struct local_time_t {
  std::string date, clock;
};
static local_time_t local_time(int64_t seconds) {
  const time_t time = seconds;
  std::tm parts = {};
  localtime_r(&time, &parts);
  return {date_text(parts), clock_text(parts)};
}

static bool is_asked_for(const tree_drawing_t& drawing, const tree_row_t& row) {
  const std::string& id = drawing.request->id;
  auto has_id = [&](size_t index) { return drawing.chain->incidents[index].id == id; };
  return !id.empty() && (row.missing == id || std::any_of(row.members.begin(), row.members.end(), has_id));
}

static void draw_incident(tree_drawing_t* drawing, const tree_row_t& row, tree_line_t* line) {
  const incident_t& incident = drawing->chain->incidents[row.members.front()];
  const bool is_utf8 = drawing->is_utf8;
  if (drawing->has_nodes && !incident.node.empty() && incident.node != drawing->node)
    put(line, (drawing->node = incident.node) + " ", is_utf8);
  put_coloured(line, incident.process, *drawing, colour_of(incident.process),
               line->left == UNLIMITED ? UNLIMITED : PROCESS_WIDTH);
  put(line, "[" + std::to_string(incident.process_id) + "]: ", is_utf8);

  std::string repeats;
  if (row.members.size() > 1) {
    const incident_t& last = drawing->chain->incidents[row.members.back()];
    const local_time_t time = local_time(last.time);
    const bool is_same_day = time.date == local_time(incident.time).date;
    const std::string last_time = is_same_day ? time.clock : time.date + " " + time.clock;
    repeats = " (" + message_text(TOOL_MSG_REPEATED, {std::to_string(row.members.size()), last_time}) + ")";
  }
  put(line, incident.description, is_utf8, line->left - std::min(line->left, columns_of(repeats)));
  put(line, repeats, is_utf8);
  const size_t id_size = columns_of(incident.id);
  if (id_size == 0 || line->left < id_size + 2) return;
  const size_t blanks = line->left == UNLIMITED ? 2 : line->left - id_size; /* at the right edge */
  put(line, std::string(blanks, ' '), is_utf8);
  put(line, incident.id, is_utf8);
}

static std::string missing_text(const chain_t& chain, const std::string& cause) {
  return message_text(may_be_recorded(chain, cause) ? TOOL_MSG_NOT_SHOWN : TOOL_MSG_NOT_RECORDED, {cause});
}

static void draw_row(tree_drawing_t* drawing, const tree_row_t& row) {
  tree_line_t line = {&drawing->text, drawing->width};
  drawing->is_last.resize(row.depth + 1);
  drawing->is_last[row.depth] = row.is_last;
  local_time_t time = {"", "        "};
  if (row.missing.empty()) time = local_time(drawing->chain->incidents[row.members.front()].time);
  const bool is_new_day = !time.date.empty() && time.date != drawing->date;
  if (is_new_day) drawing->date = time.date;
  put(&line, (is_new_day ? time.date : "          ") + " " + time.clock + "  ", drawing->is_utf8);
  put_branches(&line, *drawing, row);
  if (is_asked_for(*drawing, row)) put_coloured(&line, "* ", *drawing, "1;31");
  if (row.missing.empty())
    draw_incident(drawing, row, &line);
  else
    put_coloured(&line, missing_text(*drawing->chain, row.missing), *drawing, "2");
  drawing->text += '\n';
}

/* Draws rows and all that is below them. */
static void draw_rows(tree_drawing_t* drawing, std::vector<tree_row_t> rows) {
  std::reverse(rows.begin(), rows.end());
  while (!rows.empty()) { /* the next one is the last: chains may be longer than a stack of calls */
    const tree_row_t row = std::move(rows.back());
    rows.pop_back();
    draw_row(drawing, row);
    std::vector<size_t> below = row.effects;
    for (size_t index : row.members) {
      drawing->is_drawn[index] = true;
      below.insert(below.end(), drawing->effects[index].begin(), drawing->effects[index].end());
    }
    std::erase_if(below, [&](size_t index) { return bool{drawing->is_drawn[index]}; }); /* they go round in a circle */
    std::sort(below.begin(), below.end());
    for (size_t index : below) drawing->is_drawn[index] = true;
    std::vector<tree_row_t> effects = make_rows(*drawing, below, row.depth + 1);
    rows.insert(rows.end(), std::make_move_iterator(effects.rbegin()), std::make_move_iterator(effects.rend()));
  }
}

static bool is_all_ascii(const chain_t& chain) {
  auto is_ascii = [](const std::string& text) {
    return std::none_of(text.begin(), text.end(), [](char byte) { return (byte & 0x80) != 0; });
  };
  return std::all_of(chain.incidents.begin(), chain.incidents.end(), [&](const incident_t& incident) {
    return is_ascii(incident.process) && is_ascii(incident.description) && is_ascii(incident.id);
  });
}

/* The terminal's width, or what COLUMNS says. */
static size_t find_width() {
  if (isatty(STDOUT_FILENO) != 1) return UNLIMITED;
  const char* const columns = std::getenv("COLUMNS");
  const long asked = columns != nullptr ? std::strtol(columns, nullptr, 10) : 0;
  if (asked > 0) return static_cast<size_t>(asked);
  winsize size = {};
  const bool is_known = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
  return is_known ? size.ws_col : 80;
}

int give_tree(const zk_trace_t& trace, const export_request_t& request) {
  chain_t chain;
  std::string other_lines;
  const int status = gather(trace, request, &chain, &other_lines);
  find_causes(&chain);
  const size_t count = chain.incidents.size();
  tree_drawing_t drawing = {.chain = &chain,
                            .request = &request,
                            .effects = std::vector<std::vector<size_t>>(count),
                            .is_drawn = std::vector<bool>(count),
                            .is_last = {},
                            .width = find_width(),
                            .is_utf8 = std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0,
                            .has_nodes = false,
                            .node = "",
                            .date = "",
                            .text = ""};
  /* Terminals are UTF-8 where the locale says nothing of characters. */
  const bool is_ascii_locale = std::strcmp(nl_langinfo(CODESET), "ANSI_X3.4-1968") == 0;
  if (is_ascii_locale && !is_all_ascii(chain)) std::setlocale(LC_CTYPE, "C.UTF-8");
  tzset(); /* localtime_r need not */
  for (size_t index = 0; index < count; ++index) {
    if (chain.causes[index] != NO_CAUSE) drawing.effects[chain.causes[index]].push_back(index);
    const std::string& node = chain.incidents[index].node;
    drawing.has_nodes = drawing.has_nodes || (!node.empty() && node != chain.incidents.front().node);
  }
  draw_rows(&drawing, make_top(drawing));
  for (size_t index = 0; index < count; ++index) /* a circle of causes has no first one */
    if (!drawing.is_drawn[index]) draw_rows(&drawing, make_rows(drawing, {index}, 0));
  if (request.is_input)
    for (const std::string& note : chain.notes) drawing.text += "! " + printable(note) + "\n";
  return write_out(drawing.text) ? status : int{STATUS_FAILED};
}
