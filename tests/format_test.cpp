/* SPDX-License-Identifier: MIT */
/* The text of a message: its conversions, filled with typed arguments. */
#include <sys/resource.h>

#include <bit>
#include <clocale>
#include <random>

#include "qx_cu.h"
#include "support.h"

using arguments = std::vector<cu_error_arg_t>;

static cu_error_arg_t integer(int32_t value, int32_t type = 0) {
  cu_error_arg_t argument = {type, {.cu_arg_long_long = 0x0000004100000000}}; /* the other 4 bytes do not count */
  argument.cu_arg_value.cu_arg_int = value;
  return argument;
}
static cu_error_arg_t wide(int64_t value, int32_t type = 2) {
  return {type, {.cu_arg_long_long = value}};
}
static cu_error_arg_t real(double value) {
  return {3, {.cu_arg_double = value}};
}
static cu_error_arg_t string(const char* value) {
  return {5, {.cu_arg_char_str = const_cast<char*>(value)}};
}
static cu_error_arg_t pointer(uintptr_t value) {
  return {6, {.cu_arg_void_ptr = reinterpret_cast<void*>(value)}};
}

static std::string made(const std::string& format, const arguments& given) {
  arguments copy = given;
  const cu_error_t error = {1, "", "", 1, 1, format.c_str(), static_cast<uint32_t>(copy.size()), copy.data()};
  char* text = nullptr;
  EXPECT_EQ(cu_get_errmsg_1(&error, &text), 0);
  const std::string result = text != nullptr ? text : "no text";
  free(text);
  return result;
}

TEST(format, takes_arguments_in_order_or_by_number) {
  const arguments three = {integer(-7), string("disk"), real(2.5)};
  EXPECT_EQ(made("%d %s %f%%", three), "-7 disk 2.500000%");
  EXPECT_EQ(made("%2$s %d %2$s %s %1$d", three), "disk -7 disk disk -7");
  EXPECT_EQ(made("%1$05d|%2$-6s|%2$.2s|%2$6.1s|%3$+.3f|", three), "-0007|disk  |di|     d|+2.500|");
}

TEST(format, shows_32_bits_of_types_0_and_1_and_64_of_type_2) {
  EXPECT_EQ(made("%d %u %x %o %X %i", arguments(6, integer(-1))), "-1 4294967295 ffffffff 37777777777 FFFFFFFF -1");
  EXPECT_EQ(made("%d %u", arguments(2, integer(-2, 1))), "-2 4294967294");
  EXPECT_EQ(made("%d %u %x", arguments(3, wide(-1))), "-1 18446744073709551615 ffffffffffffffff");
  EXPECT_EQ(made("%d %d", {wide(INT64_MIN), integer(INT32_MIN)}), "-9223372036854775808 -2147483648");
  EXPECT_EQ(made("%hhd %lld %Lf %hs %zu", {integer(300), integer(-3), real(0.5), string("s"), integer(9)}),
            "300 -3 0.500000 s 9");
}

TEST(format, pads_characters_strings_and_pointers_with_blanks) {
  EXPECT_EQ(made("%c|%3c|%-3c|%03c|", arguments(4, integer(65))), "A|  A|A  |  A|");
  EXPECT_EQ(made("%c|%3c|%-3c|", arguments(3, integer(0))), "|  |  |"); /* a character of 0 is left out */
  EXPECT_EQ(made("%s|%7s|%.5s|%.6s|%5.5s|", arguments(5, string(nullptr))), "(null)| (null)||(null)|     |");
  EXPECT_EQ(made("%p|%-7p|%07p|", arguments(3, pointer(0))), "(nil)|(nil)  |  (nil)|");
  EXPECT_EQ(made("%p|%06p|%-6p|%08.3p|%+p|", arguments(5, pointer(0x1f))), "0x1f|  0x1f|0x1f  |   0x01f|+0x1f|");
  EXPECT_EQ(made("%07s|%07.2s|", arguments(2, string("disk"))), "   disk|     di|");
}

TEST(format, shows_an_argument_plainly_where_the_conversion_is_not_its_own) {
  EXPECT_EQ(made("%s|%08.3f|%+p|%-5e|", arguments(4, integer(-7))), "-7|-0000007|-7|-7   |");
  EXPECT_EQ(made("%d|%06d|%.1x|%-6p|%c|", arguments(5, string("disk"))), "disk|  disk|disk|disk  |disk|");
  EXPECT_EQ(made("%d|%6.1s|%06x|%c|", arguments(4, real(2.5))), "2.5|   2.5|0002.5|2.5|");
  EXPECT_EQ(made("%s|%5.1e|", arguments(2, wide(-4294967297))), "-4294967297|-4294967297|");
  EXPECT_EQ(made("%d|%08.7d|%s|", arguments(3, pointer(0x1f))), "0x1f|    0x1f|0x1f|");
}

TEST(format, leaves_what_it_cannot_fill_as_it_stands_and_takes_its_argument) {
  const arguments three = {integer(-7), integer(8), integer(9)};
  EXPECT_EQ(made("%4$d %0$d %4294967297$d %d", three), "%4$d %0$d %4294967297$d -7");
  EXPECT_EQ(made("%1025d %.1025d %d %d", three), "%1025d %.1025d 9 %d");
  EXPECT_EQ(made("%1$1024d", three), std::string(1022, ' ') + "-7");
  EXPECT_EQ(made("%.1024d", three), "-" + std::string(1023, '0') + "7");
  EXPECT_EQ(made("%d %s %x %d", {wide(1, 4), wide(1, 7), wide(1, -1), integer(8)}), "%d %s %x 8");
}

TEST(format, leaves_what_is_no_conversion_as_it_stands_and_takes_nothing) {
  const arguments two = {integer(-7), integer(8)};
  EXPECT_EQ(made("%*d %.*s %*1$d %.*1$s %1$*2$d %d", two), "%*d %.*s %*1$d %.*1$s %1$*2$d -7");
  EXPECT_EQ(made("%n %hhn %2$n %m %y %\xc3\xa9 %-1$d %d", two), "%n %hhn %2$n %m %y %\xc3\xa9 %-1$d -7");
  EXPECT_EQ(made("%5% %1$% %l% %-%d%%d %d 100%", two), "%5% %1$% %l% %-%d%d -7 100%");
  EXPECT_EQ(made("%1$-0 +#'12.3ll", two), "%1$-0 +#'12.3ll");
}

/* Whatever fits is as printf has it, in any locale. */
static void expect_what_printf_prints(std::mt19937_64& random, const std::string& letters, const std::string& flags) {
  int (*const print)(char*, size_t, const char*, ...) = snprintf; /* whose formats need not be literals */
  const std::string letter(1, letters[static_cast<size_t>(random()) % letters.size()]);
  std::string head = "%";
  for (char flag : flags)
    if (random() % 3 == 0) head += flag;
  if (random() % 2 == 0) head += std::to_string(random() % 40);
  if (random() % 2 == 0) head += "." + std::to_string(random() % 30);
  const int64_t value = static_cast<int64_t>(random() >> random() % 64);
  const bool is_real = std::string("aAeEfFgG").find(letter) != std::string::npos;
  char expected[512];
  if (is_real)
    print(expected, sizeof expected, (head + letter).c_str(), std::bit_cast<double>(value));
  else
    print(expected, sizeof expected, (head + "ll" + letter).c_str(), static_cast<long long>(value));
  EXPECT_EQ(made(head + letter, {wide(value, is_real ? 3 : 2)}), expected) << head << letter << " " << value;
}

TEST(format, is_that_of_printf_in_every_locale) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  const std::string localedef = "localedef --no-archive -i de_DE -f UTF-8 " + scratch() + "/de_DE.UTF-8 2>/dev/null";
  setenv("LOCPATH", scratch().c_str(), 1);
  const bool has_german = std::system(localedef.c_str()) == 0 && setlocale(LC_ALL, "de_DE.UTF-8") != nullptr;
  if (has_german) {
    EXPECT_EQ(made("%'d %.1f %d", {integer(1234567), real(2.5), integer(1234567)}), "1.234.567 2,5 1234567");
  }
  for (const char* locale : {"C", "de_DE.UTF-8"}) {
    if (setlocale(LC_ALL, locale) == nullptr) continue;
    for (int round = 0; round < 5000; ++round) {
      expect_what_printf_prints(random, "di", "-+ 0'");
      expect_what_printf_prints(random, "u", "-0'");
      expect_what_printf_prints(random, "oxX", "-#0");
      expect_what_printf_prints(random, "aAeEgGfF", "-+ #0");
      expect_what_printf_prints(random, "fF", "'");
    }
  }
  setlocale(LC_ALL, "C");
  if (!has_german) GTEST_SKIP() << "there is nothing to make a locale from";
}

TEST(description, grows_as_often_as_it_must) {
  for (size_t size : {0U, 255U, 256U, 257U, 511U, 512U, 5000U, 100000U}) {
    const std::string text(size, 't');
    EXPECT_EQ(made(text, {}), text);
    EXPECT_EQ(made("%s", {string(text.c_str())}), text);
    std::string format, expected; /* in small pieces */
    for (size_t piece = 0; piece < size; piece += 10) format += "%1$-10d", expected += "7         ";
    EXPECT_EQ(made(format, {integer(7)}), expected);
  }
}

TEST(description, needs_something_to_work_on) {
  const cu_error_t nothing = {}, no_arguments = {1, "", "", 1, 1, "%1$s", UINT32_MAX, nullptr};
  char* text = const_cast<char*>("stale");
  EXPECT_EQ(cu_get_errmsg_1(&nothing, nullptr), -1);
  EXPECT_EQ(cu_get_errmsg_1(nullptr, &text), -1);
  EXPECT_EQ(text, nullptr);
  for (const auto& [error, expected] : {std::pair(nothing, ""), {no_arguments, "%1$s"}}) {
    ASSERT_EQ(cu_get_errmsg_1(&error, &text), 0);
    EXPECT_STREQ(text, expected);
    free(text);
  }
}

TEST(description, is_null_when_memory_runs_out) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "a sanitizer needs more memory than that";
#endif
  if (*EMULATOR != '\0') GTEST_SKIP() << "an emulator sets no limit";
  std::string format;
  for (int piece = 0; piece < 200000; ++piece) format += "%1024d"; /* 200 MB */
  const arguments none(200000, integer(7));
  in_child([&] {
    const rlimit limit = {100 << 20, 100 << 20};
    setrlimit(RLIMIT_AS, &limit);
    const cu_error_t error = {1, "", "", 1, 1, format.c_str(), 200000, const_cast<cu_error_arg_t*>(none.data())};
    char* text = const_cast<char*>("stale");
    EXPECT_EQ(cu_get_errmsg_1(&error, &text), -1);
    EXPECT_EQ(text, nullptr);
  });
}
