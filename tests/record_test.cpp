/* The routines that take records apart, list them and look for them, called one by one. Records stand in memory of their
 * exact size with the one zero byte behind them, so that a memory checker sees whatever is read outside. */
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <cstring>
#include <functional>
#include <memory>

#include "support.h"
#include "zk_msg.h"

static const nl_catd NO_CATALOG = reinterpret_cast<nl_catd>(-1);

/* Bytes in memory, `shift` bytes off its alignment, and a cursor over them. */
struct cursor {
  explicit cursor(const std::string& bytes, size_t shift = 0)
      : memory(new char[shift + bytes.size() + 1]), start(memory.get() + shift), at(start), unread(bytes.size()) {
    std::memcpy(start, bytes.c_str(), bytes.size() + 1);
  }
  ptrdiff_t moved() const { return static_cast<char*>(at) - start; }
  std::unique_ptr<char[]> memory;
  char* start;
  void* at;
  size_t unread;
};

static cursor record_of(const std::string& body) {
  return cursor(image(static_cast<int32_t>(body.size())) + body);
}

static void release(zk_stack_rec_t* element) {
  if (element == nullptr) return;
  release(element->related);
  release(element->next);
  free(element->record);
  free(element);
}

static void release(zk_proc_list_t* process) {
  if (process == nullptr) return;
  release(process->next);
  release(process->records);
  free(process);
}

/* ---- Texts ----------------------------------------------------------------------------------------------------- */

TEST(text, ends_within_the_count_and_one_byte) {
  const struct {
    std::string bytes;
    size_t count;
    int length;
  } rows[] = {
      {"", 0, 0},
      {"", 1024, 0},
      {"", 1025, -1},
      {"", SIZE_MAX, 0},
      {"abc", 3, 3},
      {"abc", 2, -1},
      {"abc", SIZE_MAX, -1},
      {text("ab") + "c", 1024, 2},
      {text("ab") + "c", size_t{INT_MAX}, -1},
      {std::string(1024, 'x'), 1024, 1024},
      {std::string(1024, 'x'), 1023, -1},
      {std::string(1024, 'x'), 1025, -1},
  };
  EXPECT_EQ(zk_obtain_strlen(nullptr, 3), -1);
  for (const auto& row : rows) {
    EXPECT_EQ(zk_obtain_strlen(cursor(row.bytes).at, row.count), row.length) << row.bytes << " " << row.count;
    cursor body(row.bytes);
    body.unread = row.count;
    std::string taken(1025, '\0');
    const bool past_end = row.count == SIZE_MAX; /* a text that starts there is empty */
    const bool found = past_end || row.length >= 0;
    ASSERT_EQ(zk_get_rec_substring(0, nullptr, &body.at, taken.data(), &body.unread), found ? 0 : ZELK_REC_CORRUPT);
    const size_t length = past_end || !found ? 0 : static_cast<size_t>(row.length);
    EXPECT_EQ(taken, row.bytes.substr(0, length) + std::string(1025 - length, '\0'));
    EXPECT_EQ(body.moved(), found ? static_cast<ptrdiff_t>(length) + 1 : 0);
    EXPECT_EQ(body.unread, row.count - static_cast<size_t>(body.moved()));
  }
}

TEST(text, is_printed_under_the_message_of_its_number) {
  const std::string bad_id = "Bad message id for message set zkview_cmd", longest(1024, 'n');
  for (auto [number, expected] : {std::pair{7, "\t Process Name: " + longest + "\n"}, {17, "\nDetails:\n" + longest + "\n"},
                                  {0, bad_id}, {48, bad_id}, {-1, bad_id}, {INT_MIN, bad_id}, {INT_MAX, bad_id}}) {
    cursor body(longest);
    EXPECT_EQ(printed([&] { zk_print_rec_substring(0, nullptr, NO_CATALOG, number, &body.at, &body.unread); }), expected);
    EXPECT_EQ(body.moved(), 1025);
  }
}

/* ---- Arguments ------------------------------------------------------------------------------------------------- */

TEST(arguments, are_taken_as_recorded_or_not_at_all) {
  const std::string none = "none", wide = wide_arg(CU_ERROR_ARG_LONG_LONG, int64_t{-3}), long_text(1100, 'x');
  const struct {
    std::string bytes, taken; /* "none": success without arguments; "": a corrupt record */
    ptrdiff_t moved;
  } rows[] = {
      {image(0) + "rest", none, 4},
      {image(-3) + int_arg(1), none, 4},
      {image(INT_MIN), none, 4},
      {image(int16_t{0}), none, 4},
      {"", none, 4},
      {image(3) + int_arg(1) + string_arg("two") + wide, int_arg(1) + string_arg("two") + wide, 36},
      {image(3) + int_arg(1, 99) + int_arg(2, -1) + string_arg("") + "tail",
       int_arg(1, 99) + int_arg(2, -1) + string_arg(""), 33},
      {image(1) + image(5) + "end", string_arg("end"), 12}, /* the NUL is the byte behind the record */
      {image(1) + image(5), string_arg(""), 9},
      {image(1) + image(0) + "ab", image(0) + "ab" + std::string(6, '\0'), 16}, /* what is missing is zeros */
      {image(2) + image(5) + "end", "", 0},
      {image(2) + int_arg(1), "", 0},
      {image(1), "", 0},
      {image(INT_MAX) + int_arg(1) + int_arg(2), "", 0},
      {image(0x10000001) + int_arg(1) + int_arg(2), "", 0}, /* times 16 it fits 32 bits */
      {image(1) + string_arg("far") + long_text, "", 0},    /* more than 1024 bytes are left */
      {image(2) + string_arg("released") + image(5) + long_text, "", 0},
  };
  for (const auto& row : rows)
    for (size_t shift = 0; shift < 4; ++shift) {
      cursor body(row.bytes, shift);
      int count = 77;
      cu_error_arg_t mark = {}, *arguments = &mark;
      const int result = zk_extract_arg_values(0, nullptr, &body.at, &body.unread, &count, &arguments);
      EXPECT_EQ(body.moved(), row.moved);
      EXPECT_EQ(body.unread, row.bytes.size() - static_cast<size_t>(row.moved));
      EXPECT_EQ(result, row.taken.empty() ? ZELK_REC_CORRUPT : 0);
      if (row.taken.empty() || row.taken == none) {
        EXPECT_EQ(count, 77);
        EXPECT_EQ(arguments, row.taken.empty() ? &mark : nullptr);
        continue;
      }
      std::string taken;
      for (int i = 0; i < count; ++i) {
        const bool is_text = arguments[i].cu_arg_type == CU_ERROR_ARG_CHAR_STR;
        char* characters = arguments[i].cu_arg_value.cu_arg_char_str;
        taken += is_text ? string_arg(characters)
                         : image(arguments[i].cu_arg_type) + image(arguments[i].cu_arg_value.cu_arg_long_long);
        if (is_text) free(characters);
      }
      free(arguments);
      EXPECT_EQ(taken, row.taken);
    }
}

/* Wherever a record ends, what is missing counts as zeros, and nothing outside is read. */
TEST(record, may_end_anywhere) {
  incident what = {.arg_count = 2, .args = int_arg(1) + string_arg("two")};
  what.related = eid("cause");
  const std::string body = what.body();
  for (size_t length = 1; length <= body.size(); ++length) {
    SCOPED_TRACE(length);
    cursor record = record_of(body.substr(0, length));
    zk_proc_list_t head = {}, *process = nullptr;
    zk_stack_rec_t *table = nullptr, *related = nullptr;

    const int found = zk_find_proc_in_list(0, nullptr, record.at, &head, &process);
    /* The name must end 4 bytes before the record does, but a record that has no name at all has an empty one. */
    ASSERT_EQ(found, length > 94 && length < 102 ? ZELK_REC_CORRUPT : 0);
    if (length <= 94) EXPECT_EQ(process->process_id, 0);
    if (length >= 103) {
      EXPECT_EQ(process->process_id, 100);
      EXPECT_EQ(zk_add_rec_to_proc(0, nullptr, record.at, process), 0);
      EXPECT_EQ(zk_display_recs_by_proc(0, nullptr, &head, 2, NO_CATALOG), 0); /* 2: no heading, brief */
    }
    EXPECT_EQ(zk_add_unrelated_rec(0, nullptr, record.at, &table), 0);
    EXPECT_EQ(zk_find_related_rec(0, nullptr, record.at, table, &related), ZELK_FAILURE);
    EXPECT_EQ(zk_add_related_rec(0, nullptr, record.at, table), 0);
    EXPECT_EQ(std::string(table->fid), eid("one").substr(0, std::min<size_t>(std::max<size_t>(length, 4) - 4, 42)));
    printed([&] {
      int brief = zk_print_brief_stack_record(0, nullptr, nullptr, 0, NO_CATALOG, table->record);
      int full = zk_print_full_stack_record(0, nullptr, "", NO_CATALOG, record.at);
      EXPECT_TRUE(brief == 0 || brief == ZELK_REC_CORRUPT);
      EXPECT_EQ(full, brief);
    });
    release(table);
    release(head.next);
  }
}
