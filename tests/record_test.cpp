/* The routines that take records apart, list them and look for them, called one by one. Records stand in
 * memory of their exact size with the one zero byte behind them, so that a memory checker sees what is read
 * outside. */
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>

#include "support.h"
#include "zk_trace.h"

static const nl_catd none = reinterpret_cast<nl_catd>(-1); /* no catalog */

/* Bytes in memory, `shift` bytes off its alignment, and a cursor over them. */
struct cursor {
  explicit cursor(const std::string& bytes, size_t shift = 0)
      : memory(new char[shift + bytes.size() + 1]), at(memory.get() + shift), unread(bytes.size()) {
    std::memcpy(at, bytes.c_str(), bytes.size() + 1);
  }
  std::unique_ptr<char[]> memory;
  void* at;
  size_t unread;
};

static cursor record_of(const std::string& body) {
  return cursor(image(static_cast<int32_t>(body.size())) + body);
}

/* Lists are never released by the routines that make them. */
static std::vector<void*>& kept = *new std::vector<void*>;

/* ---- Texts and arguments ---------------------------------------------------------------------------------
 */

TEST(text, ends_within_the_count_and_one_byte) {
  const std::string longest(1024, 'x');
  const struct {
    std::string bytes;
    size_t count;
    int length, taken; /* a text that starts past the record's end is taken as empty */
  } rows[] = {{"", 0, 0, 0},
              {"", 1024, 0, 0},
              {"", 1025, -1, -1},
              {"", SIZE_MAX, 0, 0},
              {"abc", 3, 3, 3},
              {"abc", 2, -1, -1},
              {"abc", SIZE_MAX, -1, 0},
              {text("ab") + "c", 1024, 2, 2},
              {"", INT_MAX, -1, -1},
              {longest, 1024, 1024, 1024},
              {longest, 1023, -1, -1}};
  EXPECT_EQ(zk_obtain_strlen(nullptr, 3), -1);
  for (const auto& row : rows) {
    cursor body(row.bytes);
    body.unread = row.count;
    std::string taken(1025, '\0');
    EXPECT_EQ(zk_obtain_strlen(body.at, row.count), row.length) << row.bytes << row.count;
    EXPECT_EQ(zk_get_rec_substring(0, nullptr, &body.at, taken.data(), &body.unread), row.taken < 0 ? -35 : 0);
    EXPECT_STREQ(taken.c_str(), row.bytes.substr(0, static_cast<size_t>(std::max(row.taken, 0))).c_str());
    EXPECT_EQ(body.at, body.memory.get() + row.taken + 1);
    EXPECT_EQ(body.unread, row.count - static_cast<size_t>(row.taken + 1));
  }
}

TEST(arguments, are_taken_as_recorded_or_not_at_all) {
  const std::string wide = wide_arg(CU_ERROR_ARG_LONG_LONG, int64_t{-3}), far_end(1100, 'x'), cut_off(6, '\0');
  const std::string mixed = int_arg(1, 99) + string_arg("") + int_arg(2, -1);
  const struct {
    std::string bytes, taken;
    size_t moved; /* 0: a corrupt record */
  } rows[] = {
      {image(0) + "rest", "", 4},
      {image(-3) + int_arg(1), "", 4},
      {image(INT_MIN), "", 4},
      {image(int16_t{0}), "", 4},
      {image(3) + int_arg(1) + string_arg("two") + wide, int_arg(1) + string_arg("two") + wide, 36},
      {image(3) + mixed + "tail", mixed, 33},
      {image(1) + image(5) + "end", string_arg("end"), 12}, /* the NUL is the byte behind the record */
      {image(1) + image(5), string_arg(""), 9},
      {image(1) + image(0) + "ab", image(0) + "ab" + cut_off, 16}, /* what is missing is zeros */
      {image(2) + image(5) + "end", "", 0},
      {image(2) + int_arg(1), "", 0},
      {image(1), "", 0},
      {image(INT_MAX) + int_arg(1), "", 0},
      {image(0x10000001) + int_arg(1), "", 0},         /* times 16 it fits 32 bits */
      {image(1) + string_arg("far") + far_end, "", 0}, /* more than 1024 bytes are left */
      {image(2) + string_arg("released") + image(5) + far_end, "", 0},
  };
  for (const auto& row : rows)
    for (size_t shift = 0; shift < 4; ++shift) {
      cursor body(row.bytes, shift);
      int count = 77;
      cu_error_arg_t mark = {}, *arguments = &mark;
      const int result = zk_extract_arg_values(0, nullptr, &body.at, &body.unread, &count, &arguments);
      EXPECT_EQ(result, row.moved == 0 ? ZELK_REC_CORRUPT : 0);
      EXPECT_EQ(body.at, body.memory.get() + shift + row.moved);
      EXPECT_EQ(body.unread, row.bytes.size() - row.moved);
      EXPECT_EQ(count == 77, row.taken.empty());
      std::string taken;
      for (int i = 0; i < count && count != 77; ++i) {
        const auto& [type, value] = arguments[i];
        const bool is_text = type == CU_ERROR_ARG_CHAR_STR;
        taken += is_text ? string_arg(value.cu_arg_char_str) : image(type) + image(value.cu_arg_long_long);
        if (is_text) free(value.cu_arg_char_str);
      }
      EXPECT_EQ(taken, row.taken);
      if (arguments != &mark) free(arguments);
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
    /* A name must end 4 bytes before the record does; where none is left, it is empty. */
    ASSERT_EQ(zk_find_proc_in_list(0, nullptr, record.at, &head, &process),
              length > 94 && length < 102 ? ZELK_REC_CORRUPT : 0);
    if (process != nullptr && length != 102) {
      EXPECT_EQ(process->process_id, length < 95 ? 0 : 100);
      EXPECT_EQ(zk_add_rec_to_proc(0, nullptr, record.at, process), length < 95 ? ZELK_INV_PARAM4 : 0);
    }
    EXPECT_EQ(zk_add_unrelated_rec(0, nullptr, record.at, &table), 0);
    EXPECT_EQ(zk_find_related_rec(0, nullptr, record.at, table, &related), ZELK_FAILURE);
    EXPECT_EQ(zk_add_related_rec(0, nullptr, record.at, table), 0);
    EXPECT_EQ(table->fid, eid("one").substr(0, length < 4 ? 0 : length - 4));
    printed([&] {
      const int brief = zk_print_brief_stack_record(0, nullptr, nullptr, 0, none, table->record);
      EXPECT_TRUE(brief == 0 || brief == ZELK_REC_CORRUPT);
      EXPECT_EQ(zk_print_full_stack_record(0, nullptr, "", none, record.at), brief);
    });
    kept.insert(kept.end(), {table, head.next});
  }
}

/* ---- What each check answers, and what it traces ---------------------------------------------------------
 */

/* One traced call, its result, and what it traces. Entries end with NEXT; those of
 * another routine start with its name and a bar; "%s(%d)" stands for the result's name and number. */
struct call {
  std::function<int(const char* trace_file)> make;
  std::string routine;
  int result;
  std::string texts;
};
#define CALL(routine, ...) [&](const char* f) { return routine(1, f, __VA_ARGS__); }, #routine
#define NEXT "\1"
#define RC "eturning %s(%d)"

static void expect_calls(const std::vector<call>& calls) {
  const std::string path = scratch() + "/trace";
  for (const call& row : calls) {
    std::vector<std::string> expected;
    for (size_t start = 0, end; start < row.texts.size(); start = end + 1) {
      end = std::min(row.texts.find(NEXT, start), row.texts.size());
      std::string text = row.texts.substr(start, end - start), routine = row.routine;
      if (size_t bar = text.find('|'); bar != text.npos) routine = text.substr(0, bar), text.erase(0, bar + 1);
      if (size_t at = text.find("%s(%d)"); at != text.npos)
        text.replace(at, 6, zk_result_name(row.result) + std::string("(") + std::to_string(row.result) + ")");
      expected.push_back(traced(routine, text));
    }
    unlink(path.c_str());
    ASSERT_EQ(zk_create_debug_file(path.c_str()), 0);
    printed([&] { EXPECT_EQ(row.make(path.c_str()), row.result) << row.routine << row.texts; });
    EXPECT_EQ(trace_entries(path), expected);
  }
}

TEST(lists, check_in_order_and_trace) {
  const std::string one = eid("one"), two = eid("two"), no_record = "record parameter is invalid - r" RC;
  const std::string no_head = "head parameter is invalid - r" RC, bad_list = "proc_list parameter is invalid - r" RC;
  const std::string bad_head = "head parameter not initialized correctly  - r" RC;
  const std::string process_100 = "Proc ID 100 and Parent Proc ID 100 obtained from record" NEXT;
  cursor cause = record_of(incident{}.body()), effect = record_of(incident{.id = two, .related = one}.body());
  cursor unended = record_of(std::string(200, 'x')), empty(image(0));
  void *a = cause.at, *b = effect.at, *bad = empty.at, *open_end = unended.at;
  zk_stack_rec_t any = {}, *table = nullptr, *loc = nullptr;
  zk_proc_list_t head = {}, dirty[] = {{5, 0, nullptr, nullptr}, {0, 1, nullptr, nullptr}, {0, 0, &any, nullptr}};
  zk_proc_list_t odd = {100, 5, nullptr, nullptr}, odd_head = {0, 0, nullptr, &odd};
  zk_proc_list_t *list = &odd, *node = nullptr, *again = nullptr;
  expect_calls({
      {CALL(zk_find_proc_in_list, nullptr, nullptr, nullptr), -4, no_record},
      {CALL(zk_find_proc_in_list, bad, nullptr, nullptr), -5, no_head},
      {CALL(zk_find_proc_in_list, bad, &dirty[0], nullptr), -5, bad_head},
      {CALL(zk_find_proc_in_list, bad, &dirty[1], nullptr), -5, bad_head},
      {CALL(zk_find_proc_in_list, bad, &dirty[2], nullptr), -5, bad_head},
      {CALL(zk_find_proc_in_list, bad, &head, nullptr), -6, bad_list},
      {CALL(zk_find_proc_in_list, bad, &head, &list), -6, bad_list},
      {CALL(zk_find_proc_in_list, open_end, &head, &node), -35, "Error scanning rec for a char string - r" RC},
      {CALL(zk_find_proc_in_list, a, &odd_head, &node), -35,
       process_100 + "Found an entry for proc ID 100, but parent ID in list (5) does not agree with 100 from rec\n"
                     "Returining %s(%d)"},
      {CALL(zk_find_proc_in_list, a, &head, &node), 0,
       process_100 + "Allocated list entry for proc ID 100 (parent 100) - r" RC},
      {CALL(zk_find_proc_in_list, b, &head, &again), 0, process_100 + "Found an entry for proc ID 100\nR" RC},
      {CALL(zk_add_rec_to_proc, nullptr, nullptr), -4, no_record},
      {CALL(zk_add_rec_to_proc, bad, nullptr), -5, no_head},
      {CALL(zk_add_rec_to_proc, bad, &head), -5, "head parameter not properly initialized - r" RC},
      {CALL(zk_add_rec_to_proc, a, node), 0, "Record added to list for process 100 - r" RC},
      {CALL(zk_find_related_rec, nullptr, nullptr, nullptr), -4, no_record},
      {CALL(zk_find_related_rec, b, nullptr, nullptr), -6, "loc parameter is invalid - r" RC},
      {CALL(zk_find_related_rec, b, nullptr, &loc), -1, "rec_table is empty - r" RC},
      {CALL(zk_add_unrelated_rec, nullptr, nullptr), -4, no_record},
      {CALL(zk_add_unrelated_rec, bad, nullptr), -5, "table parameter is invalid - r" RC},
      {CALL(zk_add_unrelated_rec, a, &table), 0, "Added ZELK ID " + one + " as first in table\nR" RC},
      {CALL(zk_add_unrelated_rec, b, &table), 0, "Added ZELK ID " + two + " to list\nafter " + one + "\nR" RC},
      {CALL(zk_find_related_rec, a, table, &loc), -1,
       "Rec for ZELK ID " + one + "\ndoes not have a related record\nR" RC},
      {CALL(zk_find_related_rec, b, table, &loc), 0, "Entry for related record " + one + " found\nR" RC},
      {CALL(zk_add_related_rec, nullptr, nullptr), -4, no_record},
      {CALL(zk_add_related_rec, bad, nullptr), -5, "related parameter is invalid - r" RC},
      {CALL(zk_add_related_rec, b, loc), 0, "Added ZELK ID " + two + " to list as\nrelated to " + one + "\nR" RC},
  });
  EXPECT_EQ(loc, table);
  EXPECT_EQ(again, node);
  again = nullptr;
  for (int32_t length : {0, -1, INT_MIN, 1025, INT_MAX}) {
    const cursor sized(image(length));
    const std::string text = "size obtained from record (" + std::to_string(length) + ") is invalid - r" RC;
    expect_calls({{CALL(zk_find_proc_in_list, sized.at, &head, &again), -35, text},
                  {CALL(zk_add_rec_to_proc, sized.at, node), -35, text},
                  {CALL(zk_add_related_rec, sized.at, table), -35, text},
                  {CALL(zk_add_unrelated_rec, sized.at, &table), -35, text}});
  }
  kept.insert(kept.end(), {table, head.next});
}

TEST(walks_and_reports, check_in_order_and_trace) {
  const std::string no_lock = "Failure to lock stack - error code 9\nR" RC,
                    null_record = "Called with null ZELK Stack Record pointer\nr" RC " to the caller";
  const std::string bad_list = "proc_list parameter invalid or improperly initialized\nR" RC;
  const std::string bad_fid = "Invalid value of 'fid' - r" RC;
  const std::string bad_name = "stack_file parameter is NULL or references NULL value - r" RC " to the caller";
  stack s;
  s.add("old").wrap().add("new");
  const std::string path = s.file(), start = std::to_string(s.header.earliest_rec);
  const int locked_out = open(path.c_str(), O_RDONLY), empty = open(stack().file().c_str(), O_RDWR);
  zk_proc_list_t dirty = {5, 0, nullptr, nullptr}, head = {};
  cursor v4 = record_of(image(4)), v_negative = record_of(image(-1)), zero(image(0)), below(image(-8));
  cursor far_text(std::string(1025, 'x')), many(std::string(2, '\0') + image(int64_t{0}) + image(INT_MAX));
  void* const starts[] = {far_text.at, many.at};
  char* made = nullptr;
  int opened = -1;
  expect_calls({
      {CALL(zk_dump_stack, 0, 0, "", 0, 0, none), -4, "Invalid ZELK Error ID - R" RC},
      {CALL(zk_dump_stack, 0, 0, nullptr, 0, 0, none), -5, "Invalid file descriptor 0\nR" RC},
      {CALL(zk_dump_stack, 0, 0, "x", 1, -7, none), -5, "Invalid file descriptor -7\nR" RC},
      {CALL(zk_dump_stack, 0, 0, "x", 1, locked_out, none), -28, no_lock},
      {CALL(zk_read_stack, 2, 0, none, nullptr, nullptr), -4, "Invalid ordering selected 2  - R" RC},
      {CALL(zk_read_stack, 0, 0, none, nullptr, nullptr), -5, "Invalid file descriptor 0\nR" RC},
      {CALL(zk_read_stack, 0, locked_out, none, nullptr, nullptr), -6, bad_list},
      {CALL(zk_read_stack, 0, locked_out, none, &dirty, nullptr), -6, bad_list},
      {CALL(zk_read_stack, 0, locked_out, none, &head, nullptr), -28, no_lock},
      {CALL(zk_read_stack, 1, empty, none, nullptr, nullptr), 0,
       "zk_read_header|Positioning file pointer to offset 24" NEXT "Saw zero-length ZELK Error Stack entry"},
      {CALL(zk_display_recs_by_proc, nullptr, 0, none), -4, bad_list},
      {CALL(zk_display_recs_by_proc, &dirty, 0, none), -4, bad_list},
      {CALL(zk_display_recs_by_rel, nullptr, 0, none), -4,
       "rec_table parameter invalid or improperly initialized\nR" RC},
      {CALL(zk_print_brief_stack_record, "x", 1, none, nullptr), -5, null_record},
      {CALL(zk_print_brief_stack_record, "x", 1, none, zero.at), -33,
       "Length of record (0) appears invalid\nR" RC " to caller"},
      {CALL(zk_print_brief_stack_record, "x", 1, none, v4.at), -34,
       "Record version (0x4) appears invalid\nR" RC " to caller"},
      {CALL(zk_print_full_stack_record, "x", none, nullptr), -5, null_record},
      {CALL(zk_print_full_stack_record, "x", none, below.at), -33,
       "Length of record (-8) appears invalid\nR" RC " to caller"},
      {CALL(zk_print_full_stack_record, "x", none, v_negative.at), -34,
       "Record version (0xffffffff) appears invalid\nR" RC " to caller"},
      {CALL(zk_get_description, &made, &far_text.at, &far_text.unread), -35,
       "zk_get_rec_substring|Could not find a NULL terminated string in buffer\nR" RC " to caller\n"},
      {CALL(zk_get_description, &made, &many.at, &many.unread), -35,
       "Possible corruption where description args are supposed to be\nR" RC "\n"},
      {CALL(zk_scan_files_for_fid, nullptr, nullptr, 4, &opened, nullptr, none), -4, bad_fid},
      {CALL(zk_scan_files_for_fid, "", nullptr, 4, &opened, nullptr, none), -4, bad_fid},
      {CALL(zk_scan_files_for_fid, "x", nullptr, 4, &opened, nullptr, none), -5,
       "No valid file names detected in array at address 0x0 - r" RC},
      {CALL(zk_scan_files_for_fid, "x", "/", 0, &opened, nullptr, none), -36, "FID \"x\" not found in any file - r" RC},
      {CALL(zk_open_stack_by_name, nullptr, nullptr), -4,
       "Called with NULL value for fildes pointer - r" RC " to caller"},
      {CALL(zk_open_stack_by_name, &opened, nullptr), -5, bad_name},
      {CALL(zk_open_stack_by_name, &opened, ""), -5, bad_name},
      {CALL(zk_open_stack_by_name, &opened, "/nowhere"), -24,
       "Attempting to open ZELK Error Stack file /nowhere" NEXT
       "Unable to open ZELK Error Stack file /nowhere - error code is 2"},
      {CALL(zk_open_stack_by_name, &opened, path.c_str()), 0,
       "Attempting to open ZELK Error Stack file " + path + NEXT "ZELK Error Stack file \"" + path +
           "\" successfully opened"},
      {CALL(zk_dump_stack, 0, 0, nullptr, 0, opened, none), 0,
       "zk_read_header|Positioning file pointer to offset " + start +
           NEXT "Wrapping back to start of Error Stack" NEXT "Read up to current write position."},
  });
  EXPECT_EQ(far_text.at, starts[0]);
  EXPECT_EQ(many.at, starts[1]);
  for (int fildes : {locked_out, empty, opened}) close(fildes);
}

TEST(header, is_checked_in_order) {
  const std::string assumed = "\nAssuming file is corrupted\nR" RC "\n";
  const std::string range = " is beyond accpetable range of 8192 and 16384" + assumed;
  const int directory = open("/", O_RDONLY | O_DIRECTORY), fildes = open(new_file("").c_str(), O_RDWR);
  int version = 77;
  zk_estack_v1_header_t header = {};
  expect_calls({
      {CALL(zk_read_header, -1, &version, nullptr), -4, "fildes value -1 seems invalid\nR" RC},
      {CALL(zk_read_header, 1000, &version, nullptr), -5, "hbuf ptr value seems invalid\nR" RC},
      {CALL(zk_read_header, 1000, &version, &header), -26,
       "Cannot lseek to position 0 in stack - error code 9\nR" RC "\n"},
      {CALL(zk_read_header, directory, &version, &header), -26,
       "Cannot read from position 0 in stack - error code 21\nR" RC "\n"},
  });
  const struct {
    int32_t code;
    zk_estack_v1_header_t header;
    std::string text; /* none for a good one */
  } rows[] = {{4, {23, 23, 23, 8191, 2}, "Version code from record (0x4) is not supported" + assumed},
              {0, {23, 23, 23, 8191, 2}, "File size 8191" + range},
              {0, {23, 23, 23, 16385, 2}, "File size 16385" + range},
              {0, {23, 23, 23, -8192, 2}, "File size -8192" + range},
              {0, {23, 23, 23, 8192, 2}, "Current recording position 23" + range},
              {0, {23, 16385, 23, 16384, 2}, "Current recording position 16385" + range},
              {0, {23, 24, 23, 8192, 2}, "Earliest record location 23" + range},
              {0, {23, 16384, 16385, 8192, 2}, "Earliest record location 16385" + range},
              {0, {23, -1, 16384, 16384, 2}, "Initial record offset 23" + range},
              {0, {16385, INT_MIN, -1, 16384, 2}, "Initial record offset 16385" + range},
              {0, {24, 24, -1, 8192, 2}, "File wrap indicator 0x2 is not one of 0x1 or 0x0" + assumed},
              {0, {24, 24, -1, 8192, 1}, "Cannot lseek to position -1 in stack - error code 22\nR" RC "\n"},
              {0, {24, 24, 24, 8192, 0}, ""},
              {0, {-1, INT_MIN, 16384, 16384, 1}, ""},
              {0, {16384, 16384, 24, 8192, 0}, ""},
              {56, {23, 23, 100, 8191, 2}, ""}};
  for (const auto& row : rows) {
    const std::string bytes = image(row.code) + image(row.header);
    EXPECT_EQ(pwrite(fildes, bytes.data(), bytes.size(), 0), 24);
    version = header.file_size = 77;
    if (!row.text.empty()) {
      expect_calls({{CALL(zk_read_header, fildes, &version, &header), -26, row.text}});
      EXPECT_EQ(version + header.file_size, 154); /* nothing is handed out for a bad one */
      continue;
    }
    EXPECT_EQ(zk_read_header(0, nullptr, fildes, &version, &header), 0);
    EXPECT_EQ((image(version) + image(header)).substr(0, 21), bytes.substr(0, 21));
    EXPECT_EQ(lseek(fildes, 0, SEEK_CUR), row.header.earliest_rec);
  }
  close(directory);
  close(fildes);
}

/* ---- Looking for an Error ID among candidates ------------------------------------------------------------
 */

TEST(candidates, are_searched_in_order) {
  const std::string other = stack().add("other").file(), bad = stack().add_raw(2045, "").file(), none_such = "/nowhere";
  const std::string hit = stack().add("other").add("wanted").add("later").file(), id = eid("wanted");
  const std::string full_slot = scratch() + "/./" + std::string(252 - scratch().size(), 'n'); /* 256 with an x */
  std::filesystem::copy_file(hit, full_slot);
  const struct {
    std::vector<std::string> names;
    int limit, result, found;
    std::string out = "";
  } rows[] = {
      {{other}, 4, 0, 0},
      {{bad, hit}, 1, 0, 0},
      {{full_slot + "x", hit}, 1, 0, 0},
      {{none_such}, 4, -24, -1},
      {{hit}, 0, -36, -1},
      {{other, hit, none_such}, 4, 0, 1, line("wanted")},
      {{other, other, "", hit}, 4, -36, -1},
      {{other, other, hit}, 2, -36, -1},
      {{other, none_such, hit}, 4, -24, -1},
      {{other, other + "/x", hit}, 4, -25, -1},
      {{other, "/", hit}, 4, -1, -1},
      {{other, "/dev/null", hit}, 4, -1, -1},
      {{other, bad, hit}, 4, -1, -1, CORRUPT},
  };
  const int lowest = dup(0);
  close(lowest);
  for (const auto& row : rows) {
    std::string slots;
    for (const std::string& name : row.names) slots += name + std::string(ZELK_FILE_SLOT_SIZE - name.size(), '\0');
    SCOPED_TRACE(slots);
    for (bool by_name : {true, false}) {
      char* file = slots.data() + slots.size();
      int fildes = -1;
      auto scan = [&] {
        EXPECT_EQ(zk_scan_files_for_fid(0, nullptr, id.c_str(), slots.data(), row.limit, &fildes,
                                        by_name ? &file : nullptr, none),
                  row.result);
      };
      EXPECT_EQ(printed(scan), row.out);
      EXPECT_EQ(file, slots.data() +
                          (by_name && row.found >= 0 ? size_t{256} * static_cast<size_t>(row.found) : slots.size()));
      EXPECT_EQ(fildes >= 0, !by_name && row.found >= 0);
      if (fildes == -1) continue;
      EXPECT_EQ(lseek(fildes, 0, SEEK_CUR), 0);
      const std::string path = row.names[static_cast<size_t>(row.found)].substr(0, 255);
      in_child([&] { EXPECT_EQ(lockf(open(path.c_str(), O_RDWR), F_TLOCK, 0), 0); });
      close(fildes);
    }
    ASSERT_EQ(dup(0), lowest); /* no descriptor is left open */
    close(lowest);
  }
}
