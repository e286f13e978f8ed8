/* SPDX-License-Identifier: MIT */
/* Translations: the catalogs made of catalogs/, each held against the English one. */
#include <filesystem>
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
/* The texts of a catalog by set and number, in each set up to the first that is missing. */
static std::map<std::pair<int, int>, std::string> texts_of(const fs::path& folder) {
  std::map<std::pair<int, int>, std::string> texts;
  const nl_catd catalog = catopen((folder / "zelk.cat").c_str(), 0);
  for (int set : {int{ZK_MSG_SET}, ZK_MSG_SET + 1})
    for (int n = 1; const char* text = catgets(catalog, set, n, nullptr); ++n) texts[{set, n}] = text;
  catclose(catalog);
  return texts;
}
/* What a text says to programs: the number of a message, the line between records, the options of the usage. */
static std::vector<std::string> fixed_parts(const std::string& text) {
  std::vector<std::string> parts;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("2615-")) parts.push_back(line.substr(0, sizeof "2615-701 zkview" - 1));
    if (line.starts_with("-----")) parts.push_back(line);
    if (line.starts_with("\t -")) parts.push_back(line.substr(0, sizeof "\t -a \t " - 1));
  }
  return parts;
}

struct each_catalog : testing::TestWithParam<std::string> {};
INSTANTIATE_TEST_SUITE_P(translation, each_catalog, testing::ValuesIn(catalogs()),
                         [](const auto& made) { return replaced(replaced(made.param, "-", "_"), ".", "_"); });

TEST_P(each_catalog, has_every_message_with_its_arguments) {
  const auto english = texts_of(BUILD), translated = texts_of(BUILD / "catalogs" / GetParam());
  EXPECT_EQ(translated.size(), english.size());
  for (const auto& [key, text] : translated) {
    const std::string original = english.at(key);
    EXPECT_TRUE(cu_takes_same_arguments(text.c_str(), original.c_str())) << text;
    EXPECT_EQ(text.ends_with('\n'), original.ends_with('\n')) << text;
    EXPECT_EQ(fixed_parts(text), fixed_parts(original)) << text;
  }
}

TEST_P(each_catalog, keeps_the_columns_of_the_brief_report) {
  const fs::path path = BUILD / "catalogs" / GetParam() / "zelk.cat";
  const nl_catd catalog = zk_open_catalog(path.c_str());
  std::string heading = printed([&] { zk_print_message(stdout, catalog, ZK_MSG_HEADING); });
  if (GetParam().ends_with("UTF-8")) /* to one byte a character */
    std::erase_if(heading, [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) == 0x80; });
  const std::vector<std::string> labels = words(heading);
  EXPECT_EQ(heading.find(labels.at(1)), 13U) << heading;
  EXPECT_EQ(heading.find(labels.at(2)), 30U) << heading;
  const std::pair<const char*, std::string> names[] = {{"proc", "proc            "},
                                                       {"a_name_of_21_letters.", "a_name_of_21_let"}};
  for (const auto& [name, shown] : names) {
    const cu_error_arg_t two = zk_msg_arg(2), process = zk_msg_arg(name), what = zk_msg_arg("what");
    const std::string brief = printed([&] {
      zk_print_message(stdout, catalog, ZK_MSG_BRIEF_LINE, {two, two, two, two, two, process, what});
    });
    EXPECT_EQ(brief, "020202020002 " + shown + " what\n");
  }
  zk_close_catalog(catalog);
}

static std::string complaint_of_zkdecode(const std::string& catalog) {
  return run({program("zkdecode"), std::string(42, '!')}, {{"NLSPATH", catalog}}).err;
}

TEST(translation, reaches_the_companions_where_it_fits) {
  if (!fs::exists(program("zkdecode")) || catalogs().empty()) GTEST_SKIP() << "no companions, or no catalogs";
  EXPECT_TRUE(complaint_of_zkdecode(BUILD / "catalogs/de.UTF-8/zelk.cat")
                  .ends_with("das Zeichen an Stelle 1 geh??rt nicht zum Zeichenvorrat\n"));
  const std::string unfit = scratch() + "/unfit.cat";
  run({"/usr/bin/gencat", unfit, new_file("$set 7\n61 %1$d %s%n\n")});
  EXPECT_TRUE(complaint_of_zkdecode(unfit).ends_with("its character 1 is outside the alphabet\n"));
}
