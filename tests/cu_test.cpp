/* cu_test.cpp - the text of an incident's message: conversions, catalogs, what stands in for a bad catalog.
 */
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
  char disk[] = "disk";
  const args some = {{CU_ERROR_ARG_INT, {.cu_arg_int = -7}},
                     {CU_ERROR_ARG_CHAR_STR, {.cu_arg_char_str = disk}},
                     {CU_ERROR_ARG_DOUBLE, {.cu_arg_double = 2.5}},
                     {CU_ERROR_ARG_LONG_LONG, {.cu_arg_long_long = -1}},
                     {CU_ERROR_ARG_VOID_PTR, {.cu_arg_void_ptr = reinterpret_cast<void*>(0x1f)}}};
  const args odd = {{CU_ERROR_ARG_LONG, {.cu_arg_long = 65}},
                    {CU_ERROR_ARG_RESERVED, {}},
                    {99, {}},
                    {-1, {}},
                    {CU_ERROR_ARG_CHAR_STR, {.cu_arg_char_str = nullptr}},
                    {CU_ERROR_ARG_VOID_PTR, {.cu_arg_void_ptr = nullptr}},
                    {CU_ERROR_ARG_INT, {}}};
  const std::string wide(1022, ' ');
  const struct {
    const args& arguments;
    std::string format, text;
  } rows[] = {
      /* in order, numbered, both */
      {some, "", ""},
      {some, "%d %s %g %lld %p", "-7 disk 2.5 -1 0x1f"},
      {some, "%2$s %d %2$s %s %1$d%%", "disk -7 disk disk -7%"},
      {some, "%1$05d|%2$-6s|%2$.2s|%2$6.1s|%3$+.3f", "-0007|disk  |di|     d|+2.500"},
      {some, "%1$u %1$x %1$#o %4$X", "4294967289 fffffff9 037777777771 FFFFFFFFFFFFFFFF"},
      {some, "%hhd %ls %Lf %hu %lp", "-7 disk 2.500000 18446744073709551615 0x1f"},
      {some, "%5$p|%5$010.3p|%1$-+ #0'-+ #0'5d|", "0x1f|     0x01f|-7   |"},
      {some, "%1$1024d%2$1026s", wide + "-7%2$1026s"},
      {odd, "%1$c|%1$3c|%1$-3c|%1$03c|%7$c%7$3c|%7$-3c|", "A|  A|A  |  A|  |  |"},
      {odd, "%5$s|%5$7s|%5$.5s|%6$p|%6$-7p|%6$07p", "(null)| (null)||(nil)|(nil)  |  (nil)"},
      /* not of the argument's type */
      {some, "%1$s|%1$08.3f|%1$+p", "-7|-0000007|-7"},
      {some, "%2$d|%2$06d|%2$.1x|%2$-6p|%2$c", "disk|  disk|disk|disk  |disk"},
      {some, "%3$d|%3$6.1s|%3$06x|%3$c", "2.5|   2.5|0002.5|2.5"},
      {some, "%4$s|%4$5.1e|%5$d|%5$08.7d|%5$s", "-1|   -1|0x1f|    0x1f|0x1f"},
      /* as they stand; the next one takes the next argument */
      {some, "%6$s %0$d %4294967297$d %d", "%6$s %0$d %4294967297$d -7"},
      {some, "%1025d %.1025d %99999999999d %p %p", "%1025d %.1025d %99999999999d -1 0x1f"},
      {odd, "%d %s %-5d %x %s %p %d %d", "65 %s %-5d %x (null) (nil) 0 %d"},
      /* as they stand; the next one takes the same argument */
      {some, "%*d %.*s %*1$d %.*1$s %1$*2$d %d", "%*d %.*s %*1$d %.*1$s %1$*2$d -7"},
      {some, "%n %hhn %2$n %m %y %\xc3\xa9 %-1$d %d", "%n %hhn %2$n %m %y %\xc3\xa9 %-1$d -7"},
      {some, "%5% %1$% %l% %*1$% %-%d%%d %d 100%", "%5% %1$% %l% %*1$% %-%d%d -7 100%"},
      {some, "%1$-0 +#'12.3ll", "%1$-0 +#'12.3ll"},
  };
  for (const auto& row : rows) EXPECT_EQ(message(row.format, row.arguments), row.text);
  for (size_t size = 250; size < 260; ++size)
    EXPECT_EQ(message(std::string(size, 'x')), std::string(size, 'x'));
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
    const std::string letter(1, letters[random() % strlen(letters)]);
    std::string head = "%";
    for (const char* flag = flags; *flag != '\0'; ++flag)
      if (random() % 3 == 0) head += *flag;
    if (random() % 2 == 0) head += std::to_string(random() % 40);
    if (random() % 2 == 0) head += "." + std::to_string(random() % 30);

    const int64_t bits = static_cast<int64_t>(random() >> random() % 64);
    cu_error_arg_t argument = {CU_ERROR_ARG_LONG_LONG, {.cu_arg_long_long = bits}};
    char expected[512];
    if (*letters == 'a' || *letters == 'f') {
      argument = {CU_ERROR_ARG_DOUBLE, {.cu_arg_double = std::bit_cast<double>(bits)}};
      snprintf(expected, sizeof(expected), (head + letter).c_str(), argument.cu_arg_value.cu_arg_double);
    } else {
      snprintf(expected, sizeof(expected), (head + "ll" + letter).c_str(), bits);
    }
    EXPECT_EQ(message(head + letter, {argument}), expected) << head << letter << " " << bits;
  }
}
#pragma GCC diagnostic pop

TEST(message, needs_something_to_work_on) {
  char* made = const_cast<char*>("stale");
  EXPECT_EQ(cu_get_errmsg_1(nullptr, &made), -1);
  EXPECT_EQ(made, nullptr);
  cu_error_t error = {};
  EXPECT_EQ(cu_get_errmsg_1(&error, nullptr), -1);
  ASSERT_EQ(cu_get_errmsg_1(&error, &made), 0);
  EXPECT_STREQ(made, "");
  free(made);
  error.cu_msg_default = "%1$s";
  error.cu_arg_cnt = UINT32_MAX;
  ASSERT_EQ(cu_get_errmsg_1(&error, &made), 0);
  EXPECT_STREQ(made, "%1$s");
  free(made);
}

/* ---- Catalogs, in a folder of their own ---------------------------------------------------------------- */

static const struct scratch {
  char path[24] = "/tmp/cu_test.XXXXXX";
  scratch() { EXPECT_NE(mkdtemp(path), nullptr); }
  ~scratch() { std::filesystem::remove_all(path); }
} folder;
static const std::string here = folder.path;

static std::string stored(const std::string& name, const std::string& bytes) {
  std::ofstream(here + "/" + name, std::ios::binary) << bytes;
  return here + "/" + name;
}

/* Makes a catalog of gencat's input `source`, and returns its bytes. */
static std::string catalog(const std::string& name, const std::string& source) {
  const std::string command = "gencat --new " + here + "/" + name + " " + stored("source", source);
  EXPECT_EQ(system(command.c_str()), 0);
  std::ifstream file(here + "/" + name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

TEST(catalog, gives_the_texts_that_catgets_finds) {
  const int numbers[] = {1, 2, 3, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX};
  std::string source;
  for (int set : {1, 2, 7, 250, 70000}) {
    source += "$set " + std::to_string(set) + "\n";
    for (int number : numbers)
      source += std::to_string(number) + " " + std::to_string(set + number / 2) + "\n";
  }
  std::string swapped = catalog("many", source); /* as a host of the other byte order writes it */
  for (int word = 0; word < 12; word += 4) std::reverse(swapped.begin() + word, swapped.begin() + word + 4);
  stored("swapped", swapped);
  nl_catd reference = catopen((here + "/many").c_str(), 0);
  ASSERT_NE(reference, reinterpret_cast<nl_catd>(-1));
  for (int set : {INT32_MIN, -1, 0, 1, 2, 3, 7, 250, 70000})
    for (int number : {-1, 0, 1, 2, 3, 4, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX})
      for (const char* name : {"/many", "/swapped"})
        EXPECT_EQ(message("none", {}, here + name, set, number), catgets(reference, set, number, "none"))
            << name << " " << set << " " << number;
  catclose(reference);

  const std::string longest(65535, 'x');
  catalog("large", "1 " + longest + "\n2 " + longest + "x\n3 \n4 %2$d of %1$d\n");
  const args two = {{CU_ERROR_ARG_INT, {.cu_arg_int = 2}}, {CU_ERROR_ARG_INT, {.cu_arg_int = 1}}};
  const std::string texts[] = {"no 2", longest, "no 2", "", "1 of 2", "no 2"};
  for (int number = 0; number < 6; ++number)
    EXPECT_EQ(message("no %d", two, here + "/large", 1, number), texts[number]);
}

TEST(catalog, is_looked_for_along_nlspath) {
  ASSERT_EQ(chdir(here.c_str()), 0);
  for (const char* name : {"C", "de_DE.UTF-8"}) ASSERT_EQ(mkdir(name, 0700), 0);
  catalog("plain.cat", "1 plain\n");
  catalog("C/both", "1 of the locale\n");
  catalog("de_DE.UTF-8/both", "1 of the other locale\n");
  catalog("de_DE.UTF-8/lang", "1 of LANG\n");
  catalog("de-DE-UTF-8%lang", "1 of the parts\n");
  stored("C/plain.cat", "not a catalog");
  setenv("LANG", "de_DE.UTF-8", 1); /* the locale of the messages stays "C" */
  const struct {
    std::string nlspath, name, text;
  } rows[] = {
      {here + "/%N", "plain.cat", "plain"},
      {"%t:" + here + "/%q%N:" + here + "/%N%:" + here + "/%L/%N.cat:" + here + "/%N.cat", "plain", "plain"},
      {here + "/%L/%N", "both", "of the locale"},
      {here + "/%L/%N", "lang", "of LANG"},
      {here + "/%l-%t-%c%%%N", "lang", "of the parts"},
      {"/none:", "plain.cat", "plain"}, /* an empty element: in the current directory */
      {here + "/%L/%N", "plain.cat", "default"},
      {here + "/%Nplain.cat", "", "default"},
      {here + "/%N", "..", "default"},
      {std::string(5000, '/') + here + "/%N", "plain.cat", "default"},
      {"", "plain.cat", "default"},
  };
  for (const auto& row : rows) {
    setenv("NLSPATH", row.nlspath.c_str(), 1);
    EXPECT_EQ(message("default", {}, row.name), row.text) << row.nlspath << " " << row.name;
  }
  ASSERT_EQ(chdir("/"), 0);
}

TEST(catalog, that_is_no_good_counts_as_absent) {
  ASSERT_EQ(mkfifo((here + "/fifo").c_str(), 0600), 0);
  for (const std::string& path : {here + "/fifo", here, here + "/none", stored("empty", "")})
    EXPECT_EQ(message("default", {}, path), "default") << path;

  /* Whichever bit is turned, wherever the file ends: what comes out is the default or stands in the file. */
  const std::string good = catalog("good", "$set 1\n1 one\n9 nine\n$set 4\n1 four\n7 \n");
  for (size_t damage = 0; damage < 9 * good.size(); ++damage) {
    std::string bytes = good.substr(0, damage < good.size() ? damage : good.npos);
    const size_t bit = damage - good.size();
    if (damage >= good.size()) bytes[bit / 8] = static_cast<char>(bytes[bit / 8] ^ 1 << bit % 8);
    stored("damaged", bytes);
    for (auto [set, number] : {std::pair{1, 1}, {1, 9}, {4, 1}}) {
      const std::string text = message("default", {}, here + "/damaged", set, number);
      EXPECT_TRUE(text == "default" || bytes.find(text + '\0') != bytes.npos) << damage << " " << text;
    }
  }
}
