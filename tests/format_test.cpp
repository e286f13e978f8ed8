/* SPDX-License-Identifier: MIT */
/* The text of a message, filled with typed arguments: what holds for all of them. Examples stand in
 * golden/description.golden. */
#include <sys/resource.h>

#include <bit>
#include <clocale>
#include <random>

#include "qx_cu.h"
#include "support.h"

static std::string made(const std::string& format, std::vector<cu_error_arg_t> arguments) {
  const cu_error_t error = {1, "", "", 1, 1, format.c_str(), static_cast<uint32_t>(arguments.size()), arguments.data()};
  char* text = nullptr;
  EXPECT_EQ(cu_get_errmsg_1(&error, &text), 0);
  const std::string result = text != nullptr ? text : "no text";
  free(text);
  return result;
}

TEST(format, has_a_text_for_a_null_string) {
  const cu_error_arg_t null = {5, {.cu_arg_char_str = nullptr}};
  EXPECT_EQ(made("%1$s|%1$7s|%1$.5s|%1$.6s|%1$5.5s|", {null}), "(null)| (null)||(null)|     |");
}

TEST(format, takes_arguments_by_numbers_of_any_length) {
  std::vector<cu_error_arg_t> arguments;
  std::string format, expected;
  for (int number = 1; number <= 120; ++number) {
    arguments.push_back({0, {.cu_arg_int = number}});
    format = "%" + std::to_string(number) + "$d " + format;
    expected = std::to_string(number) + " " + expected;
  }
  EXPECT_EQ(made(format, arguments), expected);
}

/* Whatever fits is as printf has it. */
static void expect_what_printf_prints(std::mt19937_64& random, const std::string& letters, const std::string& flags) {
  int (*const print)(char*, size_t, const char*, ...) = snprintf; /* whose formats need not be literals */
  const std::string letter(1, letters[static_cast<size_t>(random()) % letters.size()]);
  std::string head = "%";
  for (char flag : flags)
    if (random() % 3 == 0) head += flag;
  if (random() % 2 == 0) head += std::to_string(random() % 40);
  if (random() % 2 == 0) head += "." + std::to_string(random() % 30);
  const long long value = static_cast<long long>(random() >> random() % 64);
  char expected[512];
  if (letters.starts_with("f")) {
    const double real = std::bit_cast<double>(value);
    print(expected, sizeof expected, (head + letter).c_str(), real);
    EXPECT_EQ(made(head + letter, {{3, {.cu_arg_double = real}}}), expected) << head << letter << " " << value;
  } else if (letters == "s") {
    std::string text(static_cast<size_t>(random() % 40), 't');
    print(expected, sizeof expected, (head + letter).c_str(), text.c_str());
    EXPECT_EQ(made(head + letter, {{5, {.cu_arg_char_str = text.data()}}}), expected) << head << letter;
  } else {
    print(expected, sizeof expected, (head + "ll" + letter).c_str(), value);
    EXPECT_EQ(made(head + letter, {{2, {.cu_arg_long_long = value}}}), expected) << head << letter << " " << value;
  }
}

TEST(format, is_that_of_printf_in_every_locale) {
  const unsigned int seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937_64 random(seed);
  const std::string localedef = "localedef --no-archive -i de_DE -f UTF-8 " + scratch() + "/de_DE.UTF-8 2>/dev/null";
  setenv("LOCPATH", scratch().c_str(), 1);
  if (std::system(localedef.c_str()) != 0) GTEST_SKIP() << "there is nothing to make a locale from";
  for (const char* locale : {"C", "de_DE.UTF-8"}) {
    if (setlocale(LC_ALL, locale) == nullptr) continue; /* made for another host */
    for (int round = 0; round < 5000; ++round) {
      expect_what_printf_prints(random, "di", "-+ 0'");
      expect_what_printf_prints(random, "u", "-0'");
      expect_what_printf_prints(random, "oxX", "-#0");
      expect_what_printf_prints(random, "fFaAeEgG", "-+ #0");
      expect_what_printf_prints(random, "fF", "'");
      expect_what_printf_prints(random, "s", "-");
    }
  }
  setlocale(LC_ALL, "C");
}

TEST(description, grows_as_often_as_it_must) {
  for (size_t size : {0U, 255U, 256U, 257U, 511U, 512U, 5000U, 100000U}) {
    std::string text(size, 't');
    EXPECT_EQ(made(text, {}), text);
    EXPECT_EQ(made("%s", {{5, {.cu_arg_char_str = text.data()}}}), text);
    std::string format, expected; /* in small pieces */
    for (size_t piece = 0; piece < size; piece += 10) format += "%1$-10d", expected += "7         ";
    EXPECT_EQ(made(format, {{0, {.cu_arg_int = 7}}}), expected);
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
  if (!has("faults")) GTEST_SKIP() << "a sanitizer, or an emulator, needs more memory than that";
  std::string format;
  for (int piece = 0; piece < 200000; ++piece) format += "%1$1024d"; /* 200 MB */
  cu_error_arg_t seven = {0, {.cu_arg_int = 7}};
  in_child([&] {
    const rlimit limit = {100 << 20, 100 << 20};
    setrlimit(RLIMIT_AS, &limit);
    const cu_error_t error = {1, "", "", 1, 1, format.c_str(), 1, &seven};
    char* text = const_cast<char*>("stale");
    EXPECT_EQ(cu_get_errmsg_1(&error, &text), -1);
    EXPECT_EQ(text, nullptr);
  });
}
