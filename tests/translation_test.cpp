/* SPDX-License-Identifier: MIT */
/* Translations: the catalogs made of catalogs/, each held against the English one. */
#include <algorithm>
#include <array>
#include <climits>
#include <filesystem>
#include <regex>
#include <set>
#include <span>
#include <sstream>

#include "cu_format.h"
#include "support.h"
#include "zk_msg.h"

namespace fs = std::filesystem;

static const fs::path BUILD = fs::path(PROGRAM_FOLDER).parent_path();

/* The catalogs, by the folder that holds each: LANGUAGE.CODESET. */
static std::vector<std::string> catalogs() {
  std::vector<std::string> names;
  std::error_code missing;
  for (const auto& entry : fs::recursive_directory_iterator(BUILD / "catalogs", missing))
    if (entry.path().extension() == ".cat") names.push_back(entry.path().parent_path().filename());
  return names;
}
/* The texts of a catalog by set and number. */
static std::map<std::pair<int, int>, std::string> texts_of(const fs::path& folder) {
  std::map<std::pair<int, int>, std::string> texts;
  const nl_catd catalog = catopen((folder / "zelk.cat").c_str(), 0);
  for (int set : {int{ZK_MSG_SET}, ZK_MSG_SET + 1, ZK_MSG_SET + 2})
    for (int n = 1; n < 1000; ++n)
      if (const char* text = catgets(catalog, set, n, nullptr)) texts[{set, n}] = text;
  catclose(catalog);
  return texts;
}
static std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream rest(text);
  for (std::string line; std::getline(rest, line);) lines.push_back(line);
  return lines;
}
/* What a text says to programs, or as users type it: the line between records, a command to copy, the options of the usage;
 * then each once, numbers of messages, commands, options, formats, what stands for a value, and per cent signs. */
static std::vector<std::string> fixed_parts(const std::string& text) {
  static const std::regex NAME(
      R"((%%)+|\d\d+|\bzk\w+|\B--?[a-z][-a-z]*|\b(json|tree|dot|html|auto|always|never|FILE|FORMAT|N)\b)");
  std::vector<std::string> parts;
  for (const std::string& line : lines_of(text)) {
    if (line.starts_with("-----") || line.starts_with("\t\t zkdecode")) parts.push_back(line);
    if (line.starts_with("\t -")) parts.push_back(line.substr(0, sizeof "\t -a \t " - 1));
  }
  for (std::sregex_iterator name(text.begin(), text.end(), NAME), behind; name != behind; ++name)
    if (std::ranges::count(parts, name->str()) == 0) parts.push_back(name->str());
  return parts;
}
/* The tabs and blanks that lines begin with. */
static std::set<std::string> indents(const std::string& text) {
  std::set<std::string> found;
  for (const std::string& line : lines_of(text)) found.insert(line.substr(0, line.find_first_not_of("\t ")));
  return found;
}
/* The columns that a line takes; in UTF-8 a character has one byte that does not go on with another. */
static size_t columns(const std::string& line, bool is_utf8) {
  size_t column = 0;
  for (char byte : line) {
    if (byte == '\t')
      column += 8 - column % 8;
    else if (!is_utf8 || (static_cast<unsigned char>(byte) & 0xC0) != 0x80)
      ++column;
  }
  return column;
}

/* The arguments of each kind, as the text shows them first. Nothing but their order tells two of a kind apart: where a
 * language has to turn them round, it gets an exception here. */
static std::map<char, std::vector<size_t>> order_of_arguments(const std::string& text) {
  std::map<char, std::vector<size_t>> order;
  std::array<cu_piece_t, 64> pieces;
  for (const cu_piece_t& piece : std::span(pieces).first(cu_parse_format(text.c_str(), pieces)))
    if (piece.kind == CU_PIECE_ARGUMENT && std::ranges::count(order[piece.letter], piece.argument) == 0)
      order[piece.letter].push_back(piece.argument);
  return order;
}

struct each_catalog : testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(translation, each_catalog, testing::ValuesIn(catalogs()),
                         [](const auto& made) { return replaced(replaced(made.param, "-", "_"), ".", "_"); });

TEST_P(each_catalog, has_every_message_with_its_arguments) {
  const auto english = texts_of(BUILD);
  auto translated = texts_of(BUILD / "catalogs" / GetParam());
  std::map<std::pair<int, std::string>, std::string> originals;
  for (const auto& [key, original] : english) {
    const std::string text = translated[key];
    SCOPED_TRACE("set " + std::to_string(key.first) + ", message " + std::to_string(key.second) + ": " + text);
    EXPECT_FALSE(text.empty());
    EXPECT_TRUE(cu_takes_same_arguments(text.c_str(), original.c_str()));
    EXPECT_EQ(order_of_arguments(text), order_of_arguments(original));
    EXPECT_EQ(originals.emplace(std::pair(key.first, text), original).first->second, original) << "it says the same";
    EXPECT_EQ(text.ends_with('\n'), original.ends_with('\n'));
    EXPECT_EQ(fixed_parts(text), fixed_parts(original));
  }
  EXPECT_EQ(translated.size(), english.size()) << "there are messages that English lacks";
}

TEST_P(each_catalog, keeps_the_shape_of_lines) {
  const bool is_utf8 = GetParam().ends_with("UTF-8");
  auto translated = texts_of(BUILD / "catalogs" / GetParam());
  for (const auto& [key, original] : texts_of(BUILD)) {
    if (key.first != ZK_MSG_SET) continue; /* the others are parts of lines */
    const std::string text = translated[key];
    EXPECT_EQ(indents(text), indents(original)) << text;
    for (const std::string& line : lines_of(text)) EXPECT_LE(columns(line, is_utf8), 79U) << line;
  }
}

TEST_P(each_catalog, keeps_the_columns_of_the_brief_report) {
  const bool is_utf8 = GetParam().ends_with("UTF-8");
  const fs::path path = BUILD / "catalogs" / GetParam() / "zelk.cat";
  const nl_catd catalog = zk_open_catalog(path.c_str());
  const std::string heading = printed([&] { zk_print_message(stdout, catalog, ZK_MSG_HEADING); });
  const std::vector<std::string> labels = words(heading);
  EXPECT_EQ(columns(heading.substr(0, heading.find(labels.at(1))), is_utf8), 13U) << heading;
  EXPECT_EQ(columns(heading.substr(0, heading.find(labels.at(2))), is_utf8), 30U) << heading;
  const std::pair<const char*, std::string> names[] = {{"proc", "proc            "},
                                                       {"a_name_of_21_letters.", "a_name_of_21_let"}};
  for (const auto& [name, shown] : names) {
    const cu_error_arg_t process = zk_msg_arg(name);
    const std::string brief = printed([&] {
      zk_print_message(
          stdout, catalog, ZK_MSG_BRIEF_LINE,
          {zk_msg_arg(1), zk_msg_arg(2), zk_msg_arg(3), zk_msg_arg(4), zk_msg_arg(2026), process, zk_msg_arg("what")});
    });
    EXPECT_EQ(brief, "010203042026 " + shown + " what\n");
  }
  zk_close_catalog(catalog);
}

TEST(translation, is_not_made_in_a_character_set_that_lacks_a_letter) {
  if (catalogs().empty() || !has("native")) GTEST_SKIP() << "no catalogs are made here, or not by this machine";
  const std::string source = new_file("$ codeset=UTF-8\n$set 7\n1 \u0141adowanie\n") + ".msg", made = source + ".cat";
  fs::rename(fs::path(source).replace_extension(), source);
  const auto make = [&](const std::string& codeset) {
    return run({GOLDEN_FOLDER "/../../catalogs/make-catalog", made, codeset, source}, {{"PATH", "/usr/bin:/bin"}})
        .status;
  };
  EXPECT_NE(make("ISO-8859-1"), 0);
  EXPECT_FALSE(fs::exists(made));
  EXPECT_EQ(make("UTF-8"), 0);
}

TEST(translation, that_does_not_fit_is_not_used_by_the_companions) {
  if (!fs::exists(program("zkdecode")) || catalogs().empty()) GTEST_SKIP() << "no companions, or no catalogs";
  const std::string unfit = scratch() + "/unfit.cat";
  run({"/usr/bin/gencat", unfit, new_file("$set 7\n61 %1$d %s%n\n")});
  EXPECT_TRUE(run({program("zkdecode"), std::string(42, '!')}, {{"NLSPATH", unfit}})
                  .err.ends_with("its character 1 is outside the alphabet\n"));
}

TEST(translation, is_there_of_the_texts_of_result_codes) {
  const std::pair<std::string, std::string> rows[] = {
      {new_file("no catalog"), GOLDEN_FOLDER "/routines/results"},
      {BUILD / "catalogs/de.UTF-8/zelk.cat", GOLDEN_FOLDER "/routines/results_german"}};
  for (const auto& row : rows)
    in_child([&] {
      setenv("NLSPATH", row.first.c_str(), 1);
      std::vector<int> codes = {1, INT_MIN, ZELK_UNSUPPORTED};
      for (int code = 0; code >= -38; --code) codes.push_back(code);
      std::string texts;
      errno = EDOM;
      for (int code : codes) texts += std::to_string(code) + " " + zk_result_text(code) + "\n";
      EXPECT_EQ(errno, EDOM);
      expect_golden(row.second, texts);
    });
}
