/* SPDX-License-Identifier: MIT */
/* The message catalog that a message names: what is read of it, and what stands in for a bad one. Where it is looked for
 * stands in golden/library/catalog.calls. */
#include "faults.h"

#include <nl_types.h>

#include <clocale>
#include <filesystem>

#include "qx_cu.h"

#include "support.h"

static std::string message_of(const std::string& catalog, int set = 1, int number = 1) {
  const cu_error_t error = {1, "", catalog.c_str(), set, number, "default", 0, nullptr};
  char* made = nullptr;
  EXPECT_EQ(cu_get_errmsg_1(&error, &made), 0);
  const std::string text = made;
  free(made);
  return text;
}

/* Makes a catalog of gencat's input. */
static std::string catalog(const std::string& source) {
  const std::string path = new_file("");
  EXPECT_EQ(system(("gencat --new " + path + " " + new_file(source)).c_str()), 0);
  return path;
}

TEST(catalog, gives_the_texts_that_catgets_finds_in_either_byte_order) {
  const int sets[] = {1, 2, 7, 250, 70000},
            numbers[] = {1, 2, 3, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX};
  std::string source;
  for (int set : sets) {
    source += "$set " + std::to_string(set) + "\n";
    for (int number : numbers) source += std::to_string(number) + " " + std::to_string(set + number / 2) + "\n";
  }
  const std::string many = catalog(source);
  std::string swapped = contents(many);
  for (int word = 0; word < 12; word += 4) std::reverse(swapped.begin() + word, swapped.begin() + word + 4);
  const nl_catd reference = catopen(many.c_str(), 0);
  for (const std::string& path : {many, new_file(swapped)})
    for (int set : {INT32_MIN, -1, 0, 1, 2, 3, 7, 250, 70000})
      for (int number : {-1, 0, 1, 2, 3, 4, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX})
        EXPECT_EQ(message_of(path, set, number), catgets(reference, set, number, "default")) << set << " " << number;
  catclose(reference);
}

TEST(catalog, gives_texts_below_64_kib) {
  const std::string longest(65535, 'x'), path = catalog("1 " + longest + "\n2 " + longest + "x\n3 \n");
  EXPECT_EQ(message_of(path, 1, 1), longest);
  EXPECT_EQ(message_of(path, 1, 2), "default");
  EXPECT_EQ(message_of(path, 1, 3), "");
}

TEST(catalog, is_read_in_pieces_and_after_interruptions_and_closed) {
  const std::string path = catalog("1 plain\n");
  const size_t open_files = open_descriptors();
  refuse("read", EINTR, 3);
  most_read = 5;
  EXPECT_EQ(message_of(path), "plain");
  most_read = SIZE_MAX;
  refuse("open", EINTR, 2);
  EXPECT_EQ(message_of(path), "plain");
  for (int reads = 0; reads < 3; ++reads) {
    refuse("read", EIO, 1, reads);
    EXPECT_EQ(message_of(path), "default");
  }
  EXPECT_EQ(open_descriptors(), open_files);
}

TEST(catalog, has_a_path_of_4095_bytes_at_most) {
  const std::string path = catalog("1 plain\n"), longest = std::string(4095 - path.size(), '/') + path;
  const std::pair<std::string, std::string> rows[] = {
      {longest, "plain"}, {"/" + longest, "default"}, {std::string(5000, '/') + ":" + path, "plain"}};
  for (const auto& [nlspath, text] : rows) {
    setenv("NLSPATH", nlspath.c_str(), 1);
    EXPECT_EQ(message_of("x"), text);
  }
}

/* A locale and LANG may each have a catalog of their own. Where LANG says nothing, C has one. */
TEST(catalog, is_that_of_the_locale_then_that_of_lang) {
  if (!has("native")) GTEST_SKIP() << "an emulator has no locales";
  const std::string path = catalog("1 of C\n");
  std::filesystem::rename(path, path + "-C");
  const std::pair<const char*, const char*> rows[] = {{"", "of C"}, {"C", "of C"}, {"C.UTF-8", "default"}};
  in_child([&] {
    ASSERT_NE(setlocale(LC_MESSAGES, "C.UTF-8"), nullptr);
    setenv("NLSPATH", (path + "-%L").c_str(), 1);
    for (const auto& [lang, text] : rows) {
      setenv("LANG", lang, 1);
      EXPECT_EQ(message_of("x"), text) << lang;
    }
  });
}

TEST(catalog, is_not_looked_for_by_the_environment_of_a_set_user_id_program) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  setenv("NLSPATH", catalog("1 mine\n").c_str(), 1);
  for (const bool is_group : {false, true})
    in_child([&] {
      EXPECT_EQ(message_of("x"), "mine");
      EXPECT_EQ(is_group ? setregid(65534, 0) : setreuid(65534, 0), 0);
      EXPECT_EQ(message_of("x"), "default");
    });
}

/* 32 bits, least significant byte first on any host. */
static std::string word(uint32_t value) {
  std::string bytes;
  for (int shift = 0; shift < 32; shift += 8) bytes += static_cast<char>(value >> shift);
  return bytes;
}

TEST(catalog, that_is_damaged_counts_as_absent) {
  auto damaged = [](uint32_t size, uint32_t depth, uint32_t offset, const std::string& behind = text("found")) {
    const std::string entry = word(2) + word(1) + word(offset);
    return message_of(new_file(word(0x960408de) + word(size) + word(depth) + entry + entry + behind));
  };
  EXPECT_EQ(damaged(1, 1, 0), "found");
  EXPECT_EQ(damaged(0, 1, 0), "default");
  EXPECT_EQ(damaged(1, 2, 0), "default"); /* planes that are not there */
  EXPECT_EQ(damaged(1, UINT32_MAX, 0), "default");
  EXPECT_EQ(damaged(1, 1, 6), "default"); /* a text behind the end */
  EXPECT_EQ(damaged(1, 1, UINT32_MAX), "default");
  EXPECT_EQ(damaged(1, 1, 0, "no end"), "default");
  for (const char* short_one : {"", "too short"}) EXPECT_EQ(message_of(new_file(short_one)), "default");
}

TEST(catalog, is_searched_through_1024_planes) {
  for (const uint32_t planes : {1024U, 1025U}) {
    std::string table;
    for (uint32_t plane = 1; plane < planes; ++plane) table += word(2) + word(1 + plane) + word(0);
    table += word(2) + word(1) + word(0); /* the message, in the last one */
    const std::string path = new_file(word(0x960408de) + word(1) + word(planes) + table + table + text("found"));
    EXPECT_EQ(message_of(path), planes == 1024 ? "found" : "default");
  }
}
