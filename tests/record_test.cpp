/* The routines that take records apart, list them and look for them, called one by one. Records stand in
 * memory of their exact size with the one zero byte behind them, so that a memory checker sees what is read
 * outside. */
#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <span>

#include "support.h"
#include "zk_trace.h"

static const nl_catd none = reinterpret_cast<nl_catd>(-1); /* no catalog */

/* Bytes in memory and a cursor over them. */
struct cursor {
  explicit cursor(const std::string& bytes)
      : memory(new char[bytes.size() + 1]), at(memory.get()), unread(bytes.size()) {
    std::memcpy(at, bytes.c_str(), bytes.size() + 1);
  }
  std::unique_ptr<char[]> memory;
  void* at;
  size_t unread;
};
static const auto record_of = [](const std::string& body) {
  return cursor(image(static_cast<int32_t>(body.size())) + body);
};

/* Lists are never released by the routines that make them. */
static std::vector<void*>& kept = *new std::vector<void*>;

/* ---- What a record holds ------------------------------------------------------------------------------ */

TEST(arguments, are_taken_as_recorded_or_not_at_all) {
  const std::string longest(1024, 'x'), cut_off(6, '\0');
  const std::string mixed = int_arg(1, 99) + string_arg("two") + wide_arg(CU_ERROR_ARG_LONG_LONG, int64_t{-3});
  const struct {
    std::string bytes, taken;
    size_t moved; /* 0: a corrupt record */
  } rows[] = {{image(-3) + int_arg(1), "", 4},
              {image(3) + mixed + "tail", mixed, 36},
              {image(1) + image(5) + "end", string_arg("end"), 12}, /* the NUL is the byte behind the record */
              {image(1) + image(5) + longest, string_arg(longest), 1033},
              {image(1) + image(0) + "ab", image(0) + "ab" + cut_off, 16}, /* what is missing is zeros */
              {image(2) + image(5) + "end", "", 0},
              {image(0x10000001) + int_arg(1), "", 0},                                /* times 16 it fits 32 bits */
              {image(2) + string_arg("released") + image(5) + longest + "x", "", 0}}; /* too far from the end */
  for (const auto& row : rows) {
    cursor body(row.bytes);
    int count = 0;
    cu_error_arg_t* arguments = nullptr;
    std::string taken;
    EXPECT_EQ(zk_extract_arg_values(0, nullptr, &body.at, &body.unread, &count, &arguments), row.moved > 0 ? 0 : -35);
    EXPECT_TRUE(body.at == body.memory.get() + row.moved && body.unread == row.bytes.size() - row.moved);
    for (const auto& [type, value] : std::span(arguments, static_cast<size_t>(count))) {
      const bool is_text = type == CU_ERROR_ARG_CHAR_STR;
      taken += is_text ? string_arg(value.cu_arg_char_str) : image(type) + image(value.cu_arg_long_long);
      if (is_text) free(value.cu_arg_char_str);
    }
    EXPECT_EQ(taken, row.taken);
    free(arguments);
  }
}

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
    EXPECT_EQ(zk_find_related_rec(0, nullptr, record.at, table, &related), ZELK_FAILURE) << length;
    EXPECT_EQ(table->fid, eid("one").substr(0, length < 4 ? 0 : length - 4));
    printed([&] {
      const int brief = zk_print_brief_stack_record(0, nullptr, nullptr, 0, none, table->record);
      EXPECT_EQ(zk_print_full_stack_record(0, nullptr, "", none, record.at), brief) << length;
    });
    kept.insert(kept.end(), {table, head.next});
  }
}

/* ---- What each check answers, and what it traces ------------------------------------------------------ */

/* A call behind the two arguments about the trace, its result, and the last entry that it traces where that is of
 * interest; "%s(%d)" stands for the result's name and number. */
template <typename... Arguments>
struct call {
  std::tuple<Arguments...> arguments;
  int result;
  std::string text = "";
};
template <typename... Arguments>
static void expect_calls(const std::string& name, int (*routine)(int, const char*, Arguments...),
                         std::vector<call<Arguments...>> calls) {
  for (call<Arguments...>& row : calls) {
    const std::string path = new_file("ZKTFO=36    ZKTFW=0     ZKTFS=16384\n");
    auto result = [&](int traced) { return std::apply(std::bind_front(routine, traced, path.c_str()), row.arguments); };
    /* A failure changes nothing, so it can be had twice: tracing makes no difference. */
    printed([&] { EXPECT_EQ(row.result < 0 ? result(0) : row.result, row.result) << name; });
    printed([&] { EXPECT_EQ(result(1), row.result) << name << row.text; });
    if (row.text.empty()) continue;
    if (size_t at = row.text.find("%s(%d)"); at != row.text.npos)
      row.text.replace(at, 6, zk_result_name(row.result) + ("(" + std::to_string(row.result)) + ")");
    const std::vector<std::string> entries = trace_entries(path);
    EXPECT_EQ(entries.empty() ? "" : entries.back(), traced(name, row.text));
  }
}
#define EXPECT_CALLS(routine, ...) expect_calls(#routine, routine, {__VA_ARGS__})
#define RC "eturning %s(%d)"

TEST(lists, check_in_order_and_trace) {
  const std::string one = eid("one"), two = eid("two");
  cursor cause = record_of(incident{}.body()), effect = record_of(incident{.id = two, .related = one}.body());
  cursor empty(image(0)), sized(image(1025));
  void *a = cause.at, *b = effect.at, *bad = empty.at, *null = nullptr;
  zk_stack_rec_t any = {}, *table = nullptr, *loc = nullptr;
  zk_proc_list_t head = {}, dirty[] = {{5, 0, nullptr, nullptr}, {0, 1, nullptr, nullptr}, {0, 0, &any, nullptr}};
  zk_proc_list_t odd = {100, 5, nullptr, nullptr}, odd_head = {0, 0, nullptr, &odd};
  zk_proc_list_t *list = &odd, *node = nullptr, *again = nullptr;
  const std::string other = "Found an entry for proc ID 100, but parent ID in list (5) does not agree with 100";
  EXPECT_CALLS(zk_find_proc_in_list, {{null, nullptr, nullptr}, -4}, {{bad, nullptr, nullptr}, -5},
               {{bad, &dirty[0], nullptr}, -5, "head parameter not initialized correctly  - r" RC},
               {{bad, &dirty[1], nullptr}, -5}, {{bad, &dirty[2], nullptr}, -5}, {{bad, &head, nullptr}, -6},
               {{bad, &head, &list}, -6}, {{bad, &head, &node}, -35, "size obtained from record (0) is invalid - r" RC},
               {{sized.at, &head, &node}, -35}, {{a, &odd_head, &node}, -35, other + " from rec\nReturining %s(%d)"},
               {{a, &head, &node}, 0}, {{b, &head, &again}, 0});
  EXPECT_CALLS(zk_add_rec_to_proc, {{null, nullptr}, -4}, {{bad, nullptr}, -5}, {{bad, &head}, -5}, {{bad, node}, -35},
               {{sized.at, node}, -35}, {{a, node}, 0, "Record added to list for process 100 - r" RC});
  EXPECT_CALLS(zk_find_related_rec, {{null, nullptr, nullptr}, -4}, {{b, nullptr, nullptr}, -6},
               {{b, nullptr, &loc}, -1});
  EXPECT_CALLS(zk_add_unrelated_rec, {{null, nullptr}, -4}, {{bad, nullptr}, -5}, {{bad, &table}, -35},
               {{a, &table}, 0}, {{b, &table}, 0, "Added ZELK ID " + two + " to list\nafter " + one + "\nR" RC});
  EXPECT_CALLS(zk_find_related_rec, {{a, table, &loc}, -1}, {{b, table, &loc}, 0});
  EXPECT_TRUE(again == node && loc == table);
  EXPECT_CALLS(zk_add_related_rec, {{null, nullptr}, -4}, {{bad, nullptr}, -5}, {{bad, table}, -35}, {{b, loc}, 0});
  kept.insert(kept.end(), {table, head.next});
}

TEST(walks_and_reports, check_in_order_and_trace) {
  const int locked_out = open(stack().file().c_str(), O_RDONLY);
  zk_proc_list_t dirty = {5, 0, nullptr, nullptr}, head = {};
  cursor v4 = record_of(image(4)), below(image(-8));
  int opened = -1;
  EXPECT_CALLS(zk_dump_stack, {{0, 0, "", 0, 0, none}, -4}, {{0, 0, nullptr, 0, 0, none}, -5},
               {{0, 0, "x", 1, locked_out, none}, -28, "Failure to lock stack - error code 9\nR" RC});
  EXPECT_CALLS(zk_read_stack, {{2, 0, none, nullptr, nullptr}, -4, "Invalid ordering selected 2  - R" RC},
               {{0, 0, none, nullptr, nullptr}, -5}, {{0, locked_out, none, nullptr, nullptr}, -6},
               {{0, locked_out, none, &dirty, nullptr}, -6}, {{0, locked_out, none, &head, nullptr}, -28});
  EXPECT_CALLS(zk_display_recs_by_proc, {{nullptr, 0, none}, -4}, {{&dirty, 0, none}, -4});
  EXPECT_CALLS(zk_print_brief_stack_record, {{"x", 1, none, nullptr}, -5}, {{"x", 1, none, below.at}, -33},
               {{"x", 1, none, v4.at}, -34, "Record version (0x4) appears invalid\nR" RC " to caller"});
  EXPECT_CALLS(
      zk_scan_files_for_fid, {{nullptr, nullptr, 4, &opened, nullptr, none}, -4},
      {{"", nullptr, 4, &opened, nullptr, none}, -4},
      {{"x", nullptr, 4, &opened, nullptr, none}, -5, "No valid file names detected in array at address 0x0 - r" RC});
  EXPECT_CALLS(zk_open_stack_by_name, {{nullptr, nullptr}, -4}, {{&opened, nullptr}, -5}, {{&opened, ""}, -5},
               {{&opened, "/nowhere"}, -24, "Unable to open ZELK Error Stack file /nowhere - error code is 2"});
  close(locked_out);
}

TEST(header, is_checked_in_order) {
  const std::string assumed = "\nAssuming file is corrupted\nR" RC "\n";
  const std::string range = " is beyond accpetable range of 8192 and 16384" + assumed;
  int version = 0;
  zk_estack_v1_header_t header = {};
  EXPECT_CALLS(zk_read_header, {{-1, &version, nullptr}, -4}, {{1000, &version, nullptr}, -5});
  const struct {
    int32_t code;
    zk_estack_v1_header_t header;
    std::string text;
  } rows[] = {{4, {23, 23, 23, 8191, 2}, "Version code from record (0x4) is not supported" + assumed},
              {-8, {23, 23, 23, 8191, 2}, "Version code from record (0xfffffff8) is not supported" + assumed},
              {64, {23, 23, 23, 8191, 2}, "Version code from record (0x40) is not supported" + assumed},
              {0, {23, 23, 23, 8191, 2}, "File size 8191" + range},
              {0, {23, 23, 23, 16385, 2}, "File size 16385" + range},
              {0, {23, 23, 23, 8192, 2}, "Current recording position 23" + range},
              {0, {23, 16384, 16385, 8192, 2}, "Earliest record location 16385" + range},
              {0, {23, -1, 16384, 16384, 2}, "Initial record offset 23" + range},
              {0, {24, 24, -1, 8192, 2}, "File wrap indicator 0x2 is not one of 0x1 or 0x0" + assumed},
              {0, {-1, INT_MIN, 16384, 16384, 1}, "Positioning file pointer to offset 16384"},
              {56, {23, 23, 100, 8191, 2}, "Positioning file pointer to offset 100"}};
  for (const auto& row : rows) {
    const int fildes = open(new_file(image(row.code) + image(row.header)).c_str(), O_RDWR);
    const bool is_good = row.text.starts_with("Position");
    version = 77;
    EXPECT_CALLS(zk_read_header, {{fildes, &version, &header}, is_good ? 0 : -26, row.text});
    EXPECT_EQ(version, is_good ? row.code : 77); /* nothing is handed out for a bad one */
    close(fildes);
  }
}

/* ---- Looking for an Error ID among candidates --------------------------------------------------------- */

TEST(candidates, are_searched_in_order) {
  const std::string other = stack().add("other").file(), bad = stack().add_raw(2045, "").file();
  const std::string hit = stack().add("other").add("wanted").add("later").file(), id = eid("wanted");
  const struct {
    std::vector<std::string> names;
    int result, found;
    std::string out = "";
  } rows[] = {{{bad}, 0, 0}, /* the only one is not searched */
              {{other, hit, "/nowhere"}, 0, 1, line("wanted")},
              {{other, other, "", hit}, -36, -1},
              {{other, other, other, other, hit}, -36, -1}, /* one more than the limit */
              {{other, "/nowhere", hit}, -24, -1},
              {{other, "/dev/null", hit}, -1, -1},
              {{other, bad, hit}, -1, -1, CORRUPT}};
  const int lowest = dup(0);
  close(lowest);
  for (const auto& row : rows)
    for (bool by_name : {true, false}) {
      std::string slots;
      for (const std::string& name : row.names) slots += name + std::string(ZELK_FILE_SLOT_SIZE - name.size(), '\0');
      char *file = nullptr, **name = by_name ? &file : nullptr;
      int fildes = -1, result = 1;
      auto scan = [&] { result = zk_scan_files_for_fid(0, nullptr, id.c_str(), slots.data(), 4, &fildes, name, none); };
      EXPECT_EQ(printed(scan), row.out) << slots;
      EXPECT_EQ(result, row.result) << slots;
      EXPECT_EQ(file, by_name && row.found >= 0 ? slots.data() + ZELK_FILE_SLOT_SIZE * row.found : nullptr);
      EXPECT_EQ(fildes >= 0, !by_name && row.found >= 0);
      close(fildes);
      ASSERT_EQ(dup(0), lowest); /* no descriptor is left open */
      close(lowest);
    }
}
