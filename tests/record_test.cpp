/* SPDX-License-Identifier: MIT */
/* The routines that take records apart, called one by one. Records stand in memory of their exact size with the one zero
 * byte behind them, so that a memory checker sees what is read outside. */
#include <climits>
#include <cstring>
#include <memory>
#include <span>

#include "support.h"

namespace {

const nl_catd none = reinterpret_cast<nl_catd>(-1); /* no catalog */

/* Bytes in memory and a cursor over them. */
struct cursor {
  explicit cursor(const std::string& bytes)
      : memory(new char[bytes.size() + 1]), at(memory.get()), unread(bytes.size()) {
    std::memcpy(at, bytes.c_str(), bytes.size() + 1);
  }
  ptrdiff_t moved() const { return static_cast<char*>(at) - memory.get(); }
  ptrdiff_t left() const { return static_cast<ptrdiff_t>(unread); }
  std::unique_ptr<char[]> memory;
  void* at;
  size_t unread;
};
cursor record_of(const std::string& body) {
  return cursor(image(static_cast<int32_t>(body.size())) + body);
}

TEST(text, is_taken_with_its_end_and_is_empty_past_that_of_the_record) {
  cursor body(text("two"));
  std::string taken(1025, '\0');
  EXPECT_EQ(zk_get_rec_substring(0, nullptr, &body.at, taken.data(), &body.unread), 0);
  EXPECT_STREQ(taken.c_str(), "two");
  EXPECT_EQ(zk_get_rec_substring(0, nullptr, &body.at, taken.data(), &body.unread), 0);
  EXPECT_STREQ(taken.c_str(), "two") << "nothing is added";
  EXPECT_EQ(body.left(), -1);
  EXPECT_EQ(body.moved(), 5);
}

/* ---- Arguments ----------------------------------------------------------------------------------------------- */

/* Takes arguments from `bytes`, as a record would hold them, and lists them; the bytes that are left then. */
std::string take(const std::string& bytes, ptrdiff_t left) {
  cursor body(bytes);
  int count = 0;
  cu_error_arg_t* all = nullptr;
  const int result = zk_extract_arg_values(0, nullptr, &body.at, &body.unread, &count, &all);
  EXPECT_EQ(body.left(), left);
  EXPECT_EQ(body.moved(), std::ssize(bytes) - left);
  std::string text;
  for (const auto& [type, value] : std::span(all, static_cast<size_t>(count))) {
    text += type == 5 ? string_arg(value.cu_arg_char_str) : image(type) + image(value.cu_arg_long_long);
    if (type == 5) free(value.cu_arg_char_str);
  }
  free(all);
  return result == 0 ? text : "result " + std::to_string(result);
}
const std::string CORRUPT = "result -35";

TEST(arguments, are_copied_as_recorded) {
  const std::string mixed = int_arg(1, 99) + string_arg("two") + wide_arg(2, int64_t{-3});
  EXPECT_EQ(take(image(3) + mixed + "tail", 4), mixed);
  EXPECT_EQ(take(image(0) + int_arg(1), 12), "");
  EXPECT_EQ(take(image(-3) + int_arg(1), 12), "");
}

TEST(arguments, that_the_record_ends_in_are_filled_with_zeros) {
  EXPECT_EQ(take(image(1) + image(0) + "ab", -6), image(0) + "ab" + std::string(6, '\0'));
  EXPECT_EQ(take(image(1) + image(5) + "end", -1), string_arg("end")); /* one byte behind the record */
  EXPECT_EQ(take(image(1) + image(5), -1), string_arg(""));
  EXPECT_EQ(take(image(1) + "\7", -11), "\7" + std::string(11, '\0'));
}

TEST(arguments, that_would_start_at_the_end_or_behind_it_are_refused) {
  EXPECT_EQ(take(image(2) + int_arg(1), 16), CORRUPT);
  EXPECT_EQ(take(image(2) + image(5) + "end", 11), CORRUPT);
  EXPECT_EQ(take(image(1), 4), CORRUPT);
}

TEST(arguments, are_not_more_than_the_record_can_hold) {
  for (int32_t count : {3, 0x10000001, INT_MAX}) /* times 16 the second is 16 in 32 bits */
    EXPECT_EQ(take(image(count) + int_arg(1) + "12345", 21), CORRUPT) << count;
}

TEST(arguments, are_refused_with_a_text_that_does_not_end) {
  const std::string x1024(1024, 'x'), two = image(2) + string_arg("released") + image(5) + x1024 + "x";
  EXPECT_EQ(take(image(1) + image(5) + x1024, -1), string_arg(x1024));
  EXPECT_EQ(take(two, std::ssize(two)), CORRUPT);
}

/* ---- Descriptions -------------------------------------------------------------------------------------------- */

TEST(description, that_is_damaged_leaves_the_cursor) {
  const std::string texts = text("catalog") + image(3) + image(14) + text("%s");
  for (const std::string& damaged :
       {"x" + std::string(1030, 'x'), text("") + std::string(1040, 'x'), texts + image(9)}) {
    cursor body(damaged);
    char* description = nullptr;
    EXPECT_EQ(zk_get_description(0, nullptr, &description, &body.at, &body.unread), -35);
    EXPECT_EQ(description, nullptr);
    EXPECT_EQ(body.moved(), 0);
    const std::string out =
        printed([&] { EXPECT_EQ(zk_print_description(0, nullptr, none, &body.at, &body.unread), -35); });
    EXPECT_TRUE(out.starts_with("Remaining record contents appear to be corrupted.")) << out;
  }
}

/* ---- Whole records ------------------------------------------------------------------------------------------- */

/* Wherever a record ends, what is missing counts as zeros, and nothing outside is read. */
TEST(record, may_end_anywhere) {
  const std::string body = incident{.arg_count = 1, .args = string_arg("two")}.body();
  for (size_t length = 1; length <= body.size(); ++length) {
    cursor record = record_of(body.substr(0, length));
    zk_proc_list_t head = {}, *process = nullptr;
    zk_stack_rec_t *table = nullptr, *related = nullptr;
    /* A name must end 4 bytes before the record does; where none is left, it is empty. */
    EXPECT_EQ(zk_find_proc_in_list(0, nullptr, record.at, &head, &process), length > 94 && length < 102 ? -35 : 0);
    EXPECT_EQ(zk_add_unrelated_rec(0, nullptr, record.at, &table), 0);
    EXPECT_EQ(zk_find_related_rec(0, nullptr, record.at, table, &related), -1) << length;
    EXPECT_EQ(table->fid, eid("one").substr(0, length < 4 ? 0 : length - 4));
    printed([&] {
      const int brief = zk_print_brief_stack_record(0, nullptr, nullptr, 0, none, table->record);
      EXPECT_EQ(zk_print_full_stack_record(0, nullptr, "", none, record.at), brief) << length;
    });
    keep(table);
    keep(head.next);
  }
}

}  // namespace
