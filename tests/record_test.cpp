/* SPDX-License-Identifier: MIT */
/* The routines that take records apart and look for them, called one by one. Records stand in memory of their exact size
 * with the one zero byte behind them, so that a memory checker sees what is read outside. */
#include <fcntl.h>
#include <unistd.h>

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

/* ---- Texts --------------------------------------------------------------------------------------------------- */

TEST(text, ends_within_one_byte_more_than_told) {
  char abc[] = "abc";
  EXPECT_EQ(zk_obtain_strlen(abc, 4), 3);
  EXPECT_EQ(zk_obtain_strlen(abc, 3), 3); /* the byte behind it */
  EXPECT_EQ(zk_obtain_strlen(abc, 2), -1);
  EXPECT_EQ(zk_obtain_strlen(abc + 3, 0), 0);
  EXPECT_EQ(zk_obtain_strlen(nullptr, 4), -1);
}

TEST(text, is_looked_for_in_1024_bytes_at_most) {
  char empty[] = "";
  EXPECT_EQ(zk_obtain_strlen(empty, 1024), 0);
  EXPECT_EQ(zk_obtain_strlen(empty, 1025), -1);
  EXPECT_EQ(zk_obtain_strlen(empty, static_cast<size_t>(-7)), 0); /* less than nothing is left */
  char full[] = "x";
  EXPECT_EQ(zk_obtain_strlen(full, static_cast<size_t>(-7)), -1);
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

TEST(text, is_printed_under_a_message_that_need_not_exist) {
  const std::string catalog = scratch() + "/some.cat", bad = "Bad message id for message set zkview_cmd";
  const std::string make = "gencat " + catalog + " " + new_file("$set 6\n7 name %1$s\n48 <%1$s>\n49 %d\n");
  ASSERT_EQ(system(make.c_str()), 0);
  nl_catd texts = catopen(catalog.c_str(), 0);
  auto shown = [&](nl_catd catfd, int number) {
    cursor name(text("proc"));
    return printed([&] { zk_print_rec_substring(0, nullptr, catfd, number, &name.at, &name.unread); });
  };
  EXPECT_EQ(shown(texts, 7), "name proc");
  EXPECT_EQ(shown(none, 7), "\t Process Name: proc\n");
  EXPECT_EQ(shown(texts, 12), "\t File Version Code: proc\n");
  EXPECT_EQ(shown(texts, 48), "<proc>");
  for (int number : {49, 50, 0, -1, INT_MIN}) EXPECT_EQ(shown(texts, number), bad) << number;
  catclose(texts);
}

/* ---- Arguments ----------------------------------------------------------------------------------------------- */

/* What is taken of `bytes`, as a record would hold it; how far the cursor went, how much is left. */
struct taken {
  int result;
  ptrdiff_t moved, left;
  std::string arguments;
  bool operator==(const taken&) const = default;
};
taken take(const std::string& bytes) {
  cursor body(bytes);
  int count = 0;
  cu_error_arg_t* all = nullptr;
  taken what = {};
  what.result = zk_extract_arg_values(0, nullptr, &body.at, &body.unread, &count, &all);
  what.moved = body.moved();
  what.left = body.left();
  for (const auto& [type, value] : std::span(all, static_cast<size_t>(count))) {
    const bool is_text = type == 5;
    what.arguments += is_text ? string_arg(value.cu_arg_char_str) : image(type) + image(value.cu_arg_long_long);
    if (is_text) free(value.cu_arg_char_str);
  }
  free(all);
  return what;
}
void PrintTo(const taken& what, std::ostream* stream) {
  *stream << what.result << ", moved " << what.moved << ", left " << what.left << ", " << what.arguments.size();
}
const auto refused = [](const std::string& bytes) { return taken{-35, 0, std::ssize(bytes), ""}; };

TEST(arguments, are_copied_as_recorded) {
  const std::string mixed = int_arg(1, 99) + string_arg("two") + wide_arg(2, int64_t{-3});
  EXPECT_EQ(take(image(3) + mixed + "tail"), (taken{0, 36, 4, mixed}));
}

TEST(arguments, may_be_none) {
  EXPECT_EQ(take(image(0) + int_arg(1)), (taken{0, 4, 12, ""}));
  EXPECT_EQ(take(image(-3) + int_arg(1)), (taken{0, 4, 12, ""}));
  cursor body(image(0));
  int count = 77;
  cu_error_arg_t any = {}, *all = &any;
  EXPECT_EQ(zk_extract_arg_values(0, nullptr, &body.at, &body.unread, &count, &all), 0);
  EXPECT_TRUE(count == 77 && all == nullptr);
}

TEST(arguments, that_the_record_ends_in_are_filled_with_zeros) {
  EXPECT_EQ(take(image(1) + image(0) + "ab"), (taken{0, 16, -6, image(0) + "ab" + std::string(6, '\0')}));
  EXPECT_EQ(take(image(1) + image(5) + "end"), (taken{0, 12, -1, string_arg("end")})); /* one byte behind the record */
  EXPECT_EQ(take(image(1) + image(5)), (taken{0, 9, -1, string_arg("")}));
  EXPECT_EQ(take(image(1) + "\7"), (taken{0, 16, -11, "\7" + std::string(11, '\0')}));
}

TEST(arguments, that_would_start_at_the_end_or_behind_it_are_refused) {
  const std::string at_end = image(2) + int_arg(1), behind = image(2) + image(5) + "end";
  EXPECT_EQ(take(at_end), refused(at_end));
  EXPECT_EQ(take(behind), refused(behind));
  EXPECT_EQ(take(image(1)), refused(image(1)));
}

TEST(arguments, are_not_more_than_the_record_can_hold) {
  for (int32_t count : {3, 0x10000001, INT_MAX}) /* times 16 the second is 16 in 32 bits */
    EXPECT_EQ(take(image(count) + int_arg(1) + "12345").result, -35) << count;
}

TEST(arguments, are_refused_with_a_text_that_does_not_end) {
  const std::string long_text = image(2) + string_arg("released") + image(5) + std::string(1025, 'x');
  EXPECT_EQ(take(image(1) + image(5) + std::string(1024, 'x')).moved, 1033);
  EXPECT_EQ(take(long_text), refused(long_text));
}

/* ---- Descriptions -------------------------------------------------------------------------------------------- */

TEST(description, is_taken_from_its_block) {
  const std::string arguments = image(2) + string_arg("disk") + int_arg(-7);
  cursor body(text("") + image(3) + image(14) + text("%2$d of %1$s") + arguments + "rest");
  char* description = nullptr;
  EXPECT_EQ(zk_get_description(0, nullptr, &description, &body.at, &body.unread), 0);
  EXPECT_STREQ(description, "-7 of disk");
  EXPECT_EQ(body.left(), 4);
  free(description);
}

TEST(description, that_is_damaged_leaves_the_cursor) {
  const std::string texts = text("catalog") + image(3) + image(14) + text("%s");
  for (const std::string& damaged :
       {"x" + std::string(1030, 'x'), text("") + std::string(1040, 'x'), texts + image(9)}) {
    cursor body(damaged);
    char* description = nullptr;
    EXPECT_EQ(zk_get_description(0, nullptr, &description, &body.at, &body.unread), -35);
    EXPECT_EQ(description, nullptr);
    EXPECT_EQ(body.moved(), 0);
    EXPECT_EQ(printed([&] { EXPECT_EQ(zk_print_description(0, nullptr, none, &body.at, &body.unread), -35); }),
              RECORD_CORRUPT);
  }
}

TEST(description, fits_the_columns_behind_where_it_starts) {
  char description[] = "0123456789";
  setenv("COLUMNS", "38", 1);
  zk_truncate_description(description, 40); /* below zero: whole */
  EXPECT_STREQ(description, "0123456789");
  zk_truncate_description(description, 28);
  EXPECT_STREQ(description, "0123456789");
  zk_truncate_description(description, 29);
  EXPECT_STREQ(description, "012345678");
  zk_truncate_description(description, 38);
  EXPECT_STREQ(description, "");
  unsetenv("COLUMNS");
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

/* A full report keeps what stands before a text that does not end; a brief one shows nothing of the record. */
TEST(record, is_reported_up_to_the_damage) {
  const std::string body = incident{.description = "filled"}.body();
  const std::string whole =
      printed([&] { EXPECT_EQ(zk_print_full_stack_record(0, nullptr, nullptr, none, record_of(body).at), 0); });
  const std::pair<std::string, std::string> last_and_next[] = {{"proc", "\t Process Name:"}, {"a.c", "Detecting File"},
                                                               {"1.1", "\t File Version"},   {"prod", "\t Licensed"},
                                                               {"filled", "Description:"},   {"details", "\nDetails:"}};
  for (const auto& [last, next] : last_and_next) {
    const size_t size = body.find(last) + last.size();
    /* Nothing but the end of the text is missing: the byte behind it is no NUL either. */
    cursor record(image(static_cast<int32_t>(size)) + body.substr(0, size) + "x");
    const std::string shown = whole.substr(0, whole.find(next)), told = last == "filled" ? RECORD_CORRUPT : "";
    auto full = [&] { EXPECT_EQ(zk_print_full_stack_record(0, nullptr, nullptr, none, record.at), -35); };
    auto brief = [&] { EXPECT_EQ(zk_print_brief_stack_record(0, nullptr, nullptr, 0, none, record.at), -35); };
    EXPECT_EQ(printed(full), shown + told + told) << last;
    EXPECT_EQ(printed(brief), told) << last;
  }
}

/* ---- Looking for an Error ID among candidates ---------------------------------------------------------------- */

/* Searches the files for "wanted": the result, the number of the file that is found, and what is printed. */
struct found {
  int result, number;
  std::string out;
  bool operator==(const found&) const = default;
};
void PrintTo(const found& what, std::ostream* stream) {
  *stream << what.result << ", " << what.number << ", " << what.out;
}
found search(const std::vector<std::string>& files) {
  std::string slots;
  for (const std::string& file : files) slots += file + std::string(256 - file.size(), '\0');
  const std::string id = eid("wanted");
  const size_t before = open_descriptors();
  int fildes = -1, by_name = 0, result = 0;
  char* file = nullptr;
  const std::string out =
      printed([&] { by_name = zk_scan_files_for_fid(0, nullptr, id.c_str(), slots.data(), 4, nullptr, &file, none); });
  EXPECT_EQ(open_descriptors(), before);
  EXPECT_EQ(out, printed([&] {
              result = zk_scan_files_for_fid(0, nullptr, id.c_str(), slots.data(), 4, &fildes, nullptr, none);
            }));
  EXPECT_EQ(open_descriptors(), before + (result == 0 ? 1 : 0)) << "nothing is open but what is handed out";
  EXPECT_EQ(lseek(fildes, 0, SEEK_CUR), result == 0 ? 0 : -1);
  EXPECT_EQ(by_name, result);
  close(fildes);
  return {result, file == nullptr ? -1 : static_cast<int>((file - slots.data()) / 256), out};
}

struct candidates : testing::Test {
  const std::string other = stack().add("other").file(), bad = stack().add_raw(2045, "").file(),
                    hit = stack().add("other").add("wanted").add("later").file();
};

TEST_F(candidates, are_searched_in_order_when_there_are_several) {
  EXPECT_EQ(search({bad}), (found{0, 0, ""}));
  EXPECT_EQ(search({other, hit, "/nowhere"}), (found{0, 1, line("wanted")}));
}

TEST_F(candidates, end_at_an_empty_slot_and_at_the_limit) {
  EXPECT_EQ(search({other, other, "", hit}), (found{-36, -1, ""}));
  EXPECT_EQ(search({other, other, other, other, hit}), (found{-36, -1, ""}));
  EXPECT_EQ(search({other, other, other, hit}), (found{0, 3, line("wanted")}));
}

TEST_F(candidates, that_cannot_be_opened_or_read_end_the_search) {
  EXPECT_EQ(search({other, "/nowhere", hit}), (found{-24, -1, ""}));
  EXPECT_EQ(search({other, other + "/below", hit}), (found{-25, -1, ""}));
  EXPECT_EQ(search({other, "/", hit}), (found{-1, -1, ""}));
  EXPECT_EQ(search({other, "/dev/null", hit}), (found{-1, -1, ""}));
  EXPECT_EQ(search({other, bad, hit}), (found{-1, -1, RECORD_CORRUPT}));
}

TEST_F(candidates, are_searched_past_the_newest_record) {
  stack s;
  s.add("A").add("wanted");
  s.header.write_pos = 24 + (s.header.write_pos - 24) / 2;
  EXPECT_EQ(search({other, s.file()}), (found{0, 1, line("wanted")}));
}

TEST_F(candidates, may_have_names_of_255_characters) {
  const std::string long_name = scratch() + std::string(255 - hit.size(), '/') + hit.substr(scratch().size());
  EXPECT_EQ(search({other, long_name}), (found{0, 1, line("wanted")}));
}

}  // namespace
