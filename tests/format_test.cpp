/* cu_test.cpp - the text of an incident's message: conversions, catalogs, what stands in for a bad catalog. */
#include <nl_types.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <fstream>
#include <random>

#include "support.h"

using args = std::vector<cu_error_arg_t>;

/* The text of a message whose default is `text`. */
static std::string made_of(const std::string& text, args arguments = {}, const std::string& catalog = "", int set = 1,
                           int number = 1) {
  const cu_error_t error = {
      1, "", catalog.c_str(), set, number, text.c_str(), static_cast<uint32_t>(arguments.size()), arguments.data()};
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
  args odd;
  for (int32_t type : std::vector<int32_t>{CU_ERROR_ARG_LONG, CU_ERROR_ARG_RESERVED, 99, -1, CU_ERROR_ARG_CHAR_STR,
                                           CU_ERROR_ARG_VOID_PTR, CU_ERROR_ARG_INT})
    odd.push_back({type, {.cu_arg_long_long = 0}});
  odd[0].cu_arg_value.cu_arg_long = 65;
  const std::tuple<const args&, std::string, std::string> rows[] = {
      /* in order, numbered, both */
      {some, "%2$s %d %2$s %s %1$d%%", "disk -7 disk disk -7%"},
      {some, "%1$05d|%2$-6s|%2$.2s|%2$6.1s|%3$+.3f", "-0007|disk  |di|     d|+2.500"},
      {some, "%hhd %ls %Lf %hu %lp", "-7 disk 2.500000 18446744073709551615 0x1f"},
      {some, "%5$p|%5$010.3p|%1$-+ #0'-+ #0'5d|", "0x1f|     0x01f|-7   |"},
      {some, "%1$1024d%2$1026s", std::string(1022, ' ') + "-7%2$1026s"},
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
  for (const auto& [arguments, format, text] : rows) EXPECT_EQ(made_of(format, arguments), text);
  for (size_t size = 250; size < 260; ++size) EXPECT_EQ(made_of(std::string(size, 'x')), std::string(size, 'x'));
}

TEST(conversions, that_fit_are_those_of_printf) {
  const char* const kinds[] = {"d-+ 0'", "i-+ 0'", "u-0'",   "o-#0",   "x-#0",   "X-#0", "a-+ #0",
                               "A-+ #0", "e-+ #0", "E-+ #0", "g-+ #0", "G-+ #0", "f'",   "F'"};
  int (*const print)(char*, size_t, const char*, ...) = snprintf; /* whose formats need not be literals */
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937_64 random(seed);
  for (int round = 0; round < 20000 && !testing::Test::HasFailure(); ++round) {
    const std::string kind = kinds[random() % std::size(kinds)], letter = kind.substr(0, 1);
    std::string head = "%";
    for (char flag : kind.substr(1))
      if (random() % 3 == 0) head += flag;
    if (random() % 2 == 0) head += std::to_string(random() % 40);
    if (random() % 2 == 0) head += "." + std::to_string(random() % 30);

    const int64_t bits = static_cast<int64_t>(random() >> random() % 64);
    const int32_t type = kind.find_first_of("aAeEfFgG") == 0 ? CU_ERROR_ARG_DOUBLE : CU_ERROR_ARG_LONG_LONG;
    char expected[512];
    if (type == CU_ERROR_ARG_DOUBLE)
      print(expected, sizeof(expected), (head + letter).c_str(), std::bit_cast<double>(bits));
    else
      print(expected, sizeof(expected), (head + "ll" + letter).c_str(), static_cast<long long>(bits));
    EXPECT_EQ(made_of(head + letter, {{type, {.cu_arg_long_long = bits}}}), expected) << head << letter << " " << bits;
  }
}

TEST(message, needs_something_to_work_on) {
  const cu_error_t nothing = {}, no_arguments = {1, "", "", 1, 1, "%1$s", UINT32_MAX, nullptr};
  char* made = const_cast<char*>("stale");
  EXPECT_EQ(cu_get_errmsg_1(&nothing, nullptr), -1);
  EXPECT_EQ(cu_get_errmsg_1(nullptr, &made), -1);
  EXPECT_EQ(made, nullptr);
  for (const cu_error_t* error : {&nothing, &no_arguments}) {
    ASSERT_EQ(cu_get_errmsg_1(error, &made), 0);
    EXPECT_STREQ(made, error == &nothing ? "" : "%1$s");
    free(made);
  }
}

/* ---- Catalogs ------------------------------------------------------------------------------------------------------- */

static const std::string here = scratch() + "/";

static std::string stored(const std::string& name, const std::string& bytes) {
  std::ofstream(here + name, std::ios::binary) << bytes;
  return here + name;
}

/* Makes a catalog of gencat's input `source`, and returns its bytes. */
static std::string catalog(const std::string& name, const std::string& source) {
  EXPECT_EQ(system(("gencat --new " + here + name + " " + new_file(source)).c_str()), 0);
  return contents(here + name);
}

TEST(catalog, gives_the_texts_that_catgets_finds) {
  std::string source;
  for (int set : {1, 2, 7, 250, 70000})
    for (int number : {1, 2, 3, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX})
      source +=
          "$set " + std::to_string(set) + "\n" + std::to_string(number) + " " + std::to_string(set + number / 2) + "\n";
  std::string swapped = catalog("many", source); /* as a host of the other byte order writes it */
  for (int word = 0; word < 12; word += 4) std::reverse(swapped.begin() + word, swapped.begin() + word + 4);
  stored("swapped", swapped);
  nl_catd reference = catopen((here + "many").c_str(), 0);
  for (int set : {INT32_MIN, -1, 0, 1, 2, 3, 7, 250, 70000})
    for (int number : {-1, 0, 1, 2, 3, 4, 60, 600, 6000, 1 << 29, 1 << 30, INT32_MAX - 1, INT32_MAX})
      for (const char* name : {"many", "swapped"})
        EXPECT_EQ(made_of("none", {}, here + name, set, number), catgets(reference, set, number, "none"))
            << name << " " << set << " " << number;
  catclose(reference);

  const std::string longest(65535, 'x');
  catalog("large", "1 " + longest + "\n2 " + longest + "x\n3 \n4 %2$d of %1$d\n");
  const args two = {{CU_ERROR_ARG_INT, {.cu_arg_int = 2}}, {CU_ERROR_ARG_INT, {.cu_arg_int = 1}}};
  const std::string texts[] = {"no 2", longest, "no 2", "", "1 of 2", "no 2"};
  for (int number = 0; number < 6; ++number) EXPECT_EQ(made_of("no %d", two, here + "large", 1, number), texts[number]);
}

TEST(catalog, is_looked_for_along_nlspath) {
  ASSERT_EQ(chdir(here.c_str()), 0);
  for (const char* name : {"C", "de_DE.UTF-8"}) ASSERT_EQ(mkdir(name, 0700), 0);
  catalog("plain.cat", "1 plain\n");
  catalog("C/both", "1 of the locale\n");
  catalog("de_DE.UTF-8/both", "1 of the other locale\n");
  catalog("de-DE-UTF-8%lang", "1 of the parts of LANG\n");
  stored("C/plain.cat", "not a catalog");
  setenv("LANG", "de_DE.UTF-8", 1); /* the locale of the messages stays "C" */
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {here + "%N", "plain.cat", "plain"},
      {"%t:" + here + "%q%N:" + here + "%N%:" + here + "%L/%N.cat:" + here + "%N.cat", "plain", "plain"},
      {here + "%L/%N", "both", "of the locale"},
      {here + "%l-%t-%c%%%N", "lang", "of the parts of LANG"},
      {"/none:", "plain.cat", "plain"}, /* an empty element: in the current directory */
      {here + "%L/%N", "plain.cat", "default"},
      {here + "%Nplain.cat", "", "default"},
      {std::string(5000, '/') + here + "%N", "plain.cat", "default"},
      {"", "plain.cat", "default"},
  };
  for (const auto& [nlspath, name, text] : rows) {
    setenv("NLSPATH", nlspath.c_str(), 1);
    EXPECT_EQ(made_of("default", {}, name), text) << nlspath << " " << name;
  }
}

TEST(catalog, that_is_no_good_counts_as_absent) {
  ASSERT_EQ(mkfifo((here + "fifo").c_str(), 0600), 0);
  for (const std::string& path : {here + "fifo", here, here + "none", stored("empty", "")})
    EXPECT_EQ(made_of("default", {}, path), "default") << path;

  auto word = [](uint32_t value) { /* least significant byte first, on any host */
                                   std::string bytes;
                                   for (int shift = 0; shift < 32; shift += 8)
                                     bytes += static_cast<char>(value >> shift);
                                   return bytes;
  };
  /* Sizes and offsets that lead out of the file. */
  for (const auto& [size, depth, offset, found] : {std::tuple{1U, 1U, 0U, "found"},
                                                   {0U, 1U, 0U, "default"},
                                                   {1U, 99U, 0U, "default"},
                                                   {1U, UINT32_MAX, 0U, "default"},
                                                   {1U, 1U, 99U, "default"},
                                                   {1U, 1U, UINT32_MAX, "default"}}) {
    const std::string entry = word(2) + word(1) + word(offset);
    stored("damaged", word(0x960408de) + word(size) + word(depth) + entry + entry + text("found"));
    EXPECT_EQ(made_of("default", {}, here + "damaged"), found) << size << " " << depth << " " << offset;
  }
}
