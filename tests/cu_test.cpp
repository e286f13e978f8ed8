/* cu_test.cpp - the text of an incident's message: conversions, catalogs, and what stands in for a bad
 * catalog. */
#include <gtest/gtest.h>
#include <nl_types.h>
#include <sys/stat.h>

#include <bit>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "qx_cu.h"

using args = std::vector<cu_error_arg_t>;

static cu_error_arg_t wide(int64_t value, int kind = CU_ERROR_ARG_LONG_LONG) {
  return {kind, {.cu_arg_long_long = value}};
}
static cu_error_arg_t narrow(int32_t value, int kind = CU_ERROR_ARG_INT) {
  cu_error_arg_t made = wide(-1, kind); /* the rest of the 8 bytes is not to be looked at */
  made.cu_arg_value.cu_arg_int = value;
  return made;
}
static cu_error_arg_t real(double value) {
  return {CU_ERROR_ARG_DOUBLE, {.cu_arg_double = value}};
}
static cu_error_arg_t string(const char* value) {
  return {CU_ERROR_ARG_CHAR_STR, {.cu_arg_char_str = const_cast<char*>(value)}};
}
static cu_error_arg_t address(uintptr_t value) {
  return {CU_ERROR_ARG_VOID_PTR, {.cu_arg_void_ptr = reinterpret_cast<void*>(value)}};
}

/* The text of a message whose default is `text`. */
static std::string message(const std::string& text, args arguments = {}, const std::string& catalog = "",
                           int set = 1, int number = 1) {
  const uint32_t count = static_cast<uint32_t>(arguments.size());
  cu_error_t error = {1, "", catalog.c_str(), set, number, text.c_str(), count, arguments.data()};
  char* made = nullptr;
  EXPECT_EQ(cu_get_errmsg_1(&error, &made), 0);
  std::string copy = made != nullptr ? made : "no text";
  free(made);
  return copy;
}

TEST(conversions, follow_the_arguments) {
  const args some = {narrow(-7), string("disk"), real(2.5), wide(-1), address(0x1f)};
  const args odd = {narrow(65, CU_ERROR_ARG_LONG),
                    wide(0, CU_ERROR_ARG_RESERVED),
                    wide(0, 99),
                    wide(0, -1),
                    string(nullptr),
                    address(0),
                    narrow(0)};
  const struct {
    const args& arguments;
    const char *format, *text;
  } rows[] = {
      /* in order, numbered, both */
      {some, "", ""},
      {some, "%d %s %g %lld %p", "-7 disk 2.5 -1 0x1f"},
      {some, "%2$s: %1$d%%", "disk: -7%"},
      {some, "%2$s %d %2$s %s", "disk -7 disk disk"},
      {some, "%1$05d|%2$-6s|%2$.2s|%2$6.1s|%3$+.3f", "-0007|disk  |di|     d|+2.500"},
      {some, "%1$u %1$x %1$#o %4$X", "4294967289 fffffff9 037777777771 FFFFFFFFFFFFFFFF"},
      {some, "%hhd %ls %Lf %hu %lp", "-7 disk 2.500000 18446744073709551615 0x1f"},
      {some, "%5$p|%5$010.3p", "0x1f|     0x01f"},
      {some, "%-+ #0'-+ #0'5d|", "-7   |"},
      {odd, "%1$c|%1$3c|%1$-3c|%1$03c|%7$c%7$3c|%7$-3c|", "A|  A|A  |  A|  |  |"},
      {odd, "%5$s|%5$7s|%5$.5s|%6$p|%6$-7p|%6$07p", "(null)| (null)||(nil)|(nil)  |  (nil)"},
      /* not of the argument's type */
      {some, "%1$s|%1$08.3f|%1$+p", "-7|-0000007|-7"},
      {some, "%2$d|%2$06d|%2$.1x|%2$-6p|%2$c", "disk|  disk|disk|disk  |disk"},
      {some, "%3$d|%3$6.1s|%3$06x|%3$c", "2.5|   2.5|0002.5|2.5"},
      {some, "%4$s|%4$5.1e|%5$d|%5$08.7d|%5$s", "-1|   -1|0x1f|    0x1f|0x1f"},
      /* as they stand; the next one takes the next argument */
      {some, "%6$s %0$d %4294967297$d %d", "%6$s %0$d %4294967297$d -7"},
      {odd, "%d %s %-5d %x %s %p %d %d", "65 %s %-5d %x (null) (nil) 0 %d"},
      {some, "%1025d %.1025d %99999999999d %.4294967297f %p",
       "%1025d %.1025d %99999999999d %.4294967297f 0x1f"},
      /* as they stand; the next one takes the same argument */
      {some, "%*d %.*s %*1$d %.*1$s %1$*2$d %d", "%*d %.*s %*1$d %.*1$s %1$*2$d -7"},
      {some, "%n %hhn %2$n %m %y %\xc3\xa9 %-1$d %d", "%n %hhn %2$n %m %y %\xc3\xa9 %-1$d -7"},
      {some, "%5% %1$% %l% %-%d%%d %d", "%5% %1$% %l% %-%d%d -7"},
      {some, "100%", "100%"},
      {some, "%1$-0 +#'12.3ll", "%1$-0 +#'12.3ll"},
  };
  for (const auto& row : rows) EXPECT_EQ(message(row.format, row.arguments), row.text) << row.format;

  EXPECT_EQ(message("%1$1024d", some), std::string(1022, ' ') + "-7");
  EXPECT_EQ(message("%1$.1024f", {real(-1.7976931348623157e308)}).size(), 1 + 309 + 1 + 1024);
  const std::string big(100000, 'x');
  EXPECT_EQ(message("%1$s%1$s", {string(big.c_str())}), big + big);
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
TEST(conversions, that_fit_are_those_of_printf) {
  const char* const kinds[][2] = {
      {"di", "-+ 0'"}, {"u", "-0'"}, {"oxX", "-#0"}, {"aAeEgG", "-+ #0"}, {"fF", "'"}};
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    const auto& [letters, flags] = kinds[random() % std::size(kinds)];
    const char letter = letters[random() % strlen(letters)];
    std::string head = "%";
    for (const char* flag = flags; *flag != '\0'; ++flag)
      if (random() % 3 == 0) head += *flag;
    if (random() % 2 == 0) head += std::to_string(random() % 40);
    if (random() % 2 == 0) head += "." + std::to_string(random() % 30);

    const uint64_t bits = random() >> random() % 64;
    const auto check = [&](const char* length, auto value, cu_error_arg_t argument) {
      char expected[512];
      snprintf(expected, sizeof(expected), (head + length + letter).c_str(), value);
      EXPECT_EQ(message(head + letter, {argument}), expected) << head << letter << " " << bits;
    };
    if (strchr("aAeEfFgG", letter) != nullptr)
      check("", std::bit_cast<double>(bits), real(std::bit_cast<double>(bits)));
    else if (round % 2 == 0)
      check("", static_cast<int32_t>(bits), narrow(static_cast<int32_t>(bits)));
    else
      check("ll", bits, wide(static_cast<int64_t>(bits)));
  }
}
#pragma GCC diagnostic pop

TEST(message, needs_something_to_work_on) {
  char* made = const_cast<char*>("stale");
  EXPECT_EQ(cu_get_errmsg_1(nullptr, &made), -1);
  EXPECT_EQ(made, nullptr);
  cu_error_t error = {};
  EXPECT_EQ(cu_get_errmsg_1(&error, nullptr), -1);
  error.cu_arg_cnt = UINT32_MAX;
  ASSERT_EQ(cu_get_errmsg_1(&error, &made), 0);
  EXPECT_STREQ(made, "");
  free(made);
}

/* ---- Catalogs
 * ------------------------------------------------------------------------------------------------ */

static const struct scratch {
  char path[24] = "/tmp/cu_test.XXXXXX";
  scratch() { EXPECT_NE(mkdtemp(path), nullptr); }
  ~scratch() { std::filesystem::remove_all(path); }
} here;

static std::string stored(const std::string& name, const std::string& bytes) {
  const std::string path = std::string(here.path) + "/" + name;
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

/* A catalog made of gencat's input `source`. */
static std::string catalog(const std::string& name, const std::string& source) {
  const std::string path = std::string(here.path) + "/" + name;
  EXPECT_EQ(system(("gencat --new '" + path + "' '" + stored("source", source) + "'").c_str()), 0);
  return path;
}

static std::string content(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(catalog, gives_the_texts_that_catgets_finds) {
  std::string source;
  for (int set : {1, 2, 7, 250, 70000}) {
    source += "$set " + std::to_string(set) + "\n5 \n";
    for (int number : {1, 2, 3, 10, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX})
      source += std::to_string(number) + " " + std::to_string(set + number / 2) + "\n";
  }
  const std::string path = catalog("many", source);
  std::string swapped = content(path); /* as a host of the other byte order writes it */
  for (int word = 0; word < 12; word += 4) std::reverse(swapped.begin() + word, swapped.begin() + word + 4);
  const std::string other = stored("swapped", swapped);
  nl_catd reference = catopen(path.c_str(), 0);
  ASSERT_NE(reference, reinterpret_cast<nl_catd>(-1));
  for (int set : {0, 1, 2, 3, 7, 250, 70000, INT32_MIN})
    for (int number : {-1, 0, 1, 2, 3, 4, 5, 10, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX}) {
      const char* text = catgets(reference, set, number, "none");
      EXPECT_EQ(message("none", {}, path, set, number), text) << set << " " << number;
      EXPECT_EQ(message("none", {}, other, set, number), text) << set << " " << number;
    }
  catclose(reference);
}

TEST(catalog, gives_texts_below_64_KiB) {
  const std::string longest(65535, 'x');
  const std::string path = catalog("large", "1 " + longest + "\n2 " + longest + "x\n3 %2$s has %1$d\n");
  EXPECT_EQ(message("none", {}, path, 1, 1), longest);
  EXPECT_EQ(message("none", {}, path, 1, 2), "none");
  EXPECT_EQ(message("none", {narrow(3), string("disk")}, path, 1, 3), "disk has 3");
  EXPECT_EQ(message("none for %2$s", {narrow(3), string("disk")}, path, 1, 4), "none for disk");
}

TEST(catalog, is_looked_for_along_nlspath) {
  ASSERT_EQ(chdir(here.path), 0);
  for (const char* name : {"C", "de_DE.UTF-8"}) ASSERT_EQ(mkdir(name, 0700), 0);
  catalog("plain.cat", "1 plain\n");
  catalog("C/both", "1 both in C\n");
  catalog("de_DE.UTF-8/both", "1 both in German\n");
  catalog("de_DE.UTF-8/lang", "1 of LANG\n");
  catalog("de-DE-UTF-8%lang", "1 of the parts\n");
  stored("C/plain.cat", "no catalog");
  setenv("LANG", "de_DE.UTF-8", 1); /* the locale of the messages stays "C" */
  const std::string place = here.path;
  const struct {
    std::string nlspath, name, text;
  } rows[] = {
      {place + "/%N", "plain.cat", "plain"},
      {"/none/%N:" + place + "/%q/%N:" + place + "/%N%:" + place + "/%L/%N:" + place + "/%N.cat", "plain",
       "plain"},
      {place + "/%L/%N", "both", "both in C"},
      {place + "/%L/%N", "lang", "of LANG"},
      {place + "/%l-%t-%c%%%N", "lang", "of the parts"},
      {"/none:", "plain.cat", "plain"}, /* an empty element: in the current directory */
      {place + "/%L/%N", "plain.cat", "default"},
      {place + "/%N", "", "default"},
      {place + "/%N", "..", "default"},
      {std::string(5000, '/') + place + "/%N", "plain.cat", "default"},
      {"", "plain.cat", "default"},
  };
  for (const auto& row : rows) {
    setenv("NLSPATH", row.nlspath.c_str(), 1);
    EXPECT_EQ(message("default", {}, row.name), row.text) << row.nlspath << " " << row.name;
  }
  ASSERT_EQ(chdir("/"), 0);
}

TEST(catalog, that_is_no_good_counts_as_absent) {
  const std::string place = here.path;
  ASSERT_EQ(mkfifo((place + "/fifo").c_str(), 0600), 0);
  for (const std::string& path : {place + "/fifo", place, place + "/none", stored("empty", "")})
    EXPECT_EQ(message("default", {}, path), "default") << path;

  /* Whichever bit is turned and wherever the file ends, what comes out is the default or stands in the file.
   */
  const std::string good = content(catalog("good", "$set 1\n1 one\n9 nine\n$set 4\n1 four\n7 \n"));
  for (size_t damage = 0; damage < 9 * good.size(); ++damage) {
    std::string bytes = good;
    if (damage < 8 * good.size())
      bytes[damage / 8] = static_cast<char>(bytes[damage / 8] ^ 1 << damage % 8);
    else
      bytes.resize(damage - 8 * good.size());
    const std::string path = stored("damaged", bytes);
    for (auto [set, number] : {std::pair{1, 1}, {1, 9}, {4, 1}}) {
      const std::string text = message("default", {}, path, set, number);
      EXPECT_TRUE(text == "default" || bytes.find(text + '\0') != bytes.npos) << damage << " " << text;
    }
  }
}
