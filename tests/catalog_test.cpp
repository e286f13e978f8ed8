/* SPDX-License-Identifier: MIT */
/* The message catalog that a message names: where it is looked for, what is read, what stands in for a bad one. */
#include "faults.h"

#include <nl_types.h>
#include <sys/mount.h>

#include "qx_cu.h"

#include <clocale>
#include <filesystem>
#include <fstream>

#include "support.h"

static const std::string here = scratch() + "/";

static std::string message_of(const std::string& catalog, int set = 1, int number = 1) {
  const cu_error_t error = {1, "", catalog.c_str(), set, number, "default", 0, nullptr};
  char* made = nullptr;
  EXPECT_EQ(cu_get_errmsg_1(&error, &made), 0);
  const std::string text = made;
  free(made);
  return text;
}

static std::string stored(const std::string& name, const std::string& bytes) {
  std::filesystem::create_directories(std::filesystem::path(here + name).parent_path());
  std::ofstream(here + name, std::ios::binary) << bytes;
  return here + name;
}
/* Makes a catalog of the text that stands behind message number 1, or of gencat's input. */
static std::string catalog(const std::string& name, const std::string& source) {
  const std::string path = stored(name, "");
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
  const std::string many = catalog("many", source);
  std::string swapped = contents(many);
  for (int word = 0; word < 12; word += 4) std::reverse(swapped.begin() + word, swapped.begin() + word + 4);
  const nl_catd reference = catopen(many.c_str(), 0);
  for (const std::string& path : {many, stored("swapped", swapped)})
    for (int set : {INT32_MIN, -1, 0, 1, 2, 3, 7, 250, 70000})
      for (int number : {-1, 0, 1, 2, 3, 4, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX})
        EXPECT_EQ(message_of(path, set, number), catgets(reference, set, number, "default")) << set << " " << number;
  catclose(reference);
}

TEST(catalog, gives_the_message_of_a_set_and_a_number) {
  const std::string path = catalog("sets", "$set 3\n14 right\n3 wrong\n$set 14\n3 wrong\n");
  EXPECT_EQ(message_of(path, 3, 14), "right");
}

TEST(catalog, gives_texts_below_64_kib) {
  const std::string longest(65535, 'x'), path = catalog("large", "1 " + longest + "\n2 " + longest + "x\n3 \n");
  EXPECT_EQ(message_of(path, 1, 1), longest);
  EXPECT_EQ(message_of(path, 1, 2), "default");
  EXPECT_EQ(message_of(path, 1, 3), "");
}

TEST(catalog, is_read_in_pieces_and_after_interruptions_and_closed) {
  const std::string path = catalog("plain.cat", "1 plain\n");
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
  EXPECT_EQ(message_of(stored("short", "too short for one")), "default");
  EXPECT_EQ(open_descriptors(), open_files);
}

/* ---- Finding one -------------------------------------------------------------------------------------------------- */

/* The message of a name looked for along a path, with LANG. */
static std::string found(const std::string& nlspath, const std::string& name, const char* lang = "") {
  setenv("NLSPATH", nlspath.c_str(), 1);
  setenv("LANG", lang, 1);
  return message_of(name);
}

TEST(catalog, is_looked_for_along_nlspath) {
  catalog("plain.cat", "1 plain\n");
  catalog("C/both", "1 of C\n");
  ASSERT_EQ(chdir(here.c_str()), 0);
  EXPECT_EQ(found(here + "%N", "plain.cat"), "plain");
  EXPECT_EQ(found("/none/%N:" + here + "%N.cat", "plain"), "plain");
  EXPECT_EQ(found(here + "%q%N:" + here + "%N%:" + here + "%N", "plain.cat"), "plain");
  EXPECT_EQ(found(here + "plain.cat%q:" + here + "plain.cat%", "x"), "default");
  EXPECT_EQ(found(std::string(5000, '/') + here + "%N:" + here + "%N", "plain.cat"), "plain");
  const std::string longest = std::string(4095 - here.size() - 9, '/') + here + "plain.cat";
  EXPECT_EQ(found(longest, "x"), "plain");
  EXPECT_EQ(found(longest + "x", "x"), "default");
  EXPECT_EQ(found("/none:", "plain.cat"), "plain"); /* an empty element: the current folder */
  EXPECT_EQ(found(here + "%L/%N", "both"), "of C");
  stored("C/plain.cat", "not a catalog");
  EXPECT_EQ(found(here + "%L/%N:" + here + "%N", "plain.cat"), "plain");
  EXPECT_EQ(found(here + "plain.cat", ""), "default");
  EXPECT_EQ(found(here + "%N", "./C/both"), "of C"); /* a path is not looked for */
  EXPECT_EQ(found("", "plain.cat"), "default");
}

TEST(catalog, is_looked_for_by_the_locale_of_messages_and_then_by_lang) {
  catalog("%[de_DE.UTF-8][de][DE][UTF-8]", "1 parts of LANG\n");
  catalog("%[fr][fr][][]", "1 a language alone\n");
  catalog("%[fr.UTF-8][fr][][UTF-8]", "1 no territory\n");
  catalog("%[fr_FR][fr][FR][]", "1 no codeset\n");
  const std::string parts = here + "%%[%L][%l][%t][%c]";
  EXPECT_EQ(found(parts, "x", "de_DE.UTF-8"), "parts of LANG");
  EXPECT_EQ(found(parts, "x", "fr"), "a language alone");
  EXPECT_EQ(found(parts, "x", "fr.UTF-8"), "no territory");
  EXPECT_EQ(found(parts, "x", "fr_FR"), "no codeset");
  setenv("LOCPATH", scratch().c_str(), 1);
  const std::string localedef = "localedef --no-archive -i de_DE -f UTF-8 " + here + "de_DE.UTF-8 2>/dev/null";
  if (std::system(localedef.c_str()) != 0 || setlocale(LC_MESSAGES, "de_DE.UTF-8") == nullptr)
    GTEST_SKIP() << "no locale can be made for this host";
  EXPECT_EQ(found(parts, "x", "fr"), "parts of LANG"); /* those of the locale */
  setlocale(LC_MESSAGES, "C");
  ASSERT_NE(setlocale(LC_CTYPE, "de_DE.UTF-8"), nullptr);
  EXPECT_EQ(found(parts, "x", "fr"), "a language alone");
  setlocale(LC_CTYPE, "C");
}

TEST(catalog, is_looked_for_where_the_system_keeps_them) {
  NEEDS_PRIVATE_VAR(); /* so that what follows is seen by nobody else */
  ASSERT_EQ(mount("tmpfs", "/usr/share/locale", "tmpfs", 0, nullptr), 0);
  unsetenv("NLSPATH");
  setenv("LANG", "fr_FR", 1);
  for (const char* place :
       {"fr/LC_MESSAGES/", "fr/", "fr_FR/LC_MESSAGES/", "fr_FR/"}) { /* from the last to the first */
    const std::string path = std::string("/usr/share/locale/") + place + "kept";
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::filesystem::copy(catalog("kept", std::string("1 in ") + place + "\n"), path);
    EXPECT_EQ(message_of("kept"), std::string("in ") + place);
    EXPECT_EQ(found("/none/%N", "kept", "fr_FR"), std::string("in ") + place);
  }
  umount("/usr/share/locale");
}

TEST(catalog, is_not_looked_for_by_the_environment_of_a_set_user_id_program) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can be another user";
  catalog("C/mine", "1 mine\n");
  for (const bool is_group : {false, true})
    in_child([&] {
      EXPECT_EQ(found(here + "C/%N", "mine"), "mine");
      EXPECT_EQ(is_group ? setregid(65534, 0) : setreuid(65534, 0), 0);
      EXPECT_EQ(found(here + "C/%N", "mine"), "default");
    });
}

TEST(catalog, that_is_no_good_counts_as_absent) {
  ASSERT_EQ(mkfifo((here + "fifo").c_str(), 0600), 0);
  for (const std::string& path : {here + "fifo", here, here + "none", stored("empty", "")})
    EXPECT_EQ(message_of(path), "default") << path;
  auto word = [](uint32_t value) { /* least significant byte first, on any host */
                                   std::string bytes;
                                   for (int shift = 0; shift < 32; shift += 8)
                                     bytes += static_cast<char>(value >> shift);
                                   return bytes;
  };
  auto damaged = [&](uint32_t size, uint32_t depth, uint32_t offset, const std::string& behind = text("found")) {
    const std::string entry = word(2) + word(1) + word(offset);
    return message_of(stored("damaged", word(0x960408de) + word(size) + word(depth) + entry + entry + behind));
  };
  EXPECT_EQ(damaged(1, 1, 0), "found");
  EXPECT_EQ(damaged(0, 1, 0), "default");
  EXPECT_EQ(damaged(1, 2, 0), "default"); /* planes that are not there */
  EXPECT_EQ(damaged(1, UINT32_MAX, 0), "default");
  EXPECT_EQ(damaged(1, 1, 6), "default"); /* a text behind the end */
  EXPECT_EQ(damaged(1, 1, UINT32_MAX), "default");
  EXPECT_EQ(damaged(1, 1, 0, "no end"), "default");
}
