/* SPDX-License-Identifier: MIT */
/* export.cpp - the input is an Error Stack file; zkexport makes lines of JSON, a digraph and a page of it. Whatever was
 * recorded, all are well formed, and the lines are taken back. */
#include <algorithm>
#include <string_view>
#include <vector>

#include "fuzz.h"
#include "gather.h"
#include "json_line.h"
#include "page.h"
#include "stack_reader.h"
#include "text.h"

/* Printable UTF-8 and newlines; the digraph and the page may have tabs too. */
static void expect_printable(std::string_view text, bool has_tabs) {
  for (size_t at = 0; at < text.size();) {
    const character_t character = character_at(text, at);
    const bool is_layout = character.code == '\n' || (has_tabs && character.code == '\t');
    FUZZ_EXPECT(character.is_well_formed && (character.code >= 0x20 || is_layout));
    FUZZ_EXPECT(character.code < 0x7F || character.code >= 0xA0);
    at += character.size;
  }
}

/* The position behind the quoted text at `position`. */
static size_t behind_quoted(std::string_view text, size_t position, bool has_escapes) {
  for (++position; text[position] != '"'; ++position) {
    if (has_escapes && text[position] == '\\') ++position;
    FUZZ_EXPECT(position + 1 < text.size());
  }
  return position + 1;
}

/* Outside quotes, a digraph has nothing but the words of its own. */
static void expect_digraph(std::string_view dot) {
  static constexpr std::string_view WORDS =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_=,;->[]{} \n";
  std::string bare;
  for (size_t at = 0; at < dot.size();) {
    bare += dot[at] == '"' ? ' ' : dot[at];
    at = dot[at] == '"' ? behind_quoted(dot, at, true) : at + 1;
  }
  FUZZ_EXPECT(bare.find_first_not_of(WORDS) == bare.npos);
  FUZZ_EXPECT(std::count(bare.begin(), bare.end(), '{') == std::count(bare.begin(), bare.end(), '}'));
}

/* No element, and no attribute, comes from a record. What is the page's own, its script above all, is not looked at. */
static void expect_page(std::string_view html) {
  static constexpr std::string_view ELEMENTS =
      " a b bdi body br button code dd details div dl dt form g h1 h2 header i input label li main mark noscript ol "
      "option "
      "output p path rect section select small span summary svg text time title u ul ";
  static constexpr std::string_view NAMES = "abcdefghijklmnopqrstuvwxyzB-";
  html = html.substr(html.find("<body"), html.rfind("<script>") - html.find("<body"));
  for (size_t at = 0; (at = html.find('<', at)) != html.npos;) {
    const size_t start = at + (html[at + 1] == '/' ? 2 : 1);
    at = html.find_first_of(" >/", start);
    FUZZ_EXPECT(at != html.npos &&
                ELEMENTS.find(" " + std::string(html.substr(start, at - start)) + " ") != ELEMENTS.npos);
    while (html[at] != '>') {
      const size_t name = html.find_first_not_of(" /\n", at);
      if (html[name] == '>') {
        at = name;
        break;
      }
      at = html.find_first_not_of(NAMES, name);
      FUZZ_EXPECT(at != html.npos && at > name);
      if (html[at] != '=') continue;
      at = html[at + 1] == '"' ? behind_quoted(html, at + 1, false) : html.find_first_of(" >", at);
      FUZZ_EXPECT(at != html.npos);
    }
  }
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fildes = fuzz_file({data, data + size});
  std::string name(data, data + std::min(size, size_t{8})); /* a stack may have any name */
  name.resize(std::min(name.size(), name.find('\0')));
  const zk_trace_t trace = {0, nullptr, "fuzz"};
  chain_t chain, parsed;
  std::string line;
  incident_t incident;
  damage_t damage;
  stack_reader_t reader;
  begin_open_stack(&reader, trace, {fildes, false}, name);
  while (chain.incidents.size() < 200 && next_incident(&reader, &incident)) {
    line.clear();
    write_json(incident, &line);
    expect_printable(line, false);
    FUZZ_EXPECT(line.find('\n') == line.size() - 1);
    chain.incidents.push_back(incident);
    line.pop_back();
    FUZZ_EXPECT(parse_json_line(line, &parsed.incidents.emplace_back(), &damage) == line_kind_t::INCIDENT);
  }
  const damage_t found = end_stack(&reader);
  if (found.code != ZELK_SUCCESS) {
    line.clear();
    write_json_damage(name, found, &line);
    expect_printable(line, false);
    line.pop_back();
    FUZZ_EXPECT(parse_json_line(line, &incident, &damage) == line_kind_t::DAMAGE && damage == found);
    chain.notes.push_back(damage_note(name, found));
  }
  for (chain_t* each : {&chain, &parsed}) {
    find_causes(each);
    find_lanes(each);
    const std::string dot = make_dot(*each), html = make_html(*each);
    expect_printable(dot, true);
    expect_digraph(dot);
    expect_printable(html, true);
    expect_page(html);
  }
  close(fildes);
  return 0;
}
