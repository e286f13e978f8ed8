/* SPDX-License-Identifier: MIT */
/* calls_test.cpp - the command's routines, called one by one: what each check answers, prints and traces, as it stands in
 * golden/NAME.calls. */
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "transcript.h"
#include "zk_msg.h"

namespace {

const nl_catd none = reinterpret_cast<nl_catd>(-1); /* no catalog */

/* A record in memory of its exact size and the one zero byte behind it. */
void* record_of(const std::string& body) {
  const std::string bytes = image(static_cast<int32_t>(body.size())) + body;
  char* record = new char[bytes.size() + 1];
  keep(record);
  return std::memcpy(record, bytes.c_str(), bytes.size() + 1);
}
void* with_length(int32_t length) {
  void* record = record_of(incident{}.body());
  return std::memcpy(record, &length, sizeof length);
}
void* const no_record = nullptr;
zk_proc_list_t* const no_list = nullptr;

/* As CALL, and notes what is printed on standard output. */
#define CALL_PRINTED(said, routine, ...)                                           \
  do {                                                                             \
    std::string out;                                                               \
    (said).note(#routine "(" #__VA_ARGS__ ")", [&](int active, const char* file) { \
      int result = 0;                                                              \
      out = printed([&] { result = routine(active, file, __VA_ARGS__); });         \
      return result;                                                               \
    });                                                                            \
    (said).text += out;                                                            \
  } while (false)
TEST(calls, of_the_lists_of_processes) {
  transcript said{"lists_of_processes"};
  zk_proc_list_t head = {}, *node = nullptr, *taken = &head;
  zk_stack_rec_t element = {};
  zk_proc_list_t of_process = {5, 0, nullptr, nullptr}, of_parent = {0, 1, nullptr, nullptr};
  zk_proc_list_t of_records = {0, 0, &element, nullptr}, odd = {7001, 5, nullptr, nullptr},
                 odd_list = {0, 0, nullptr, &odd};
  void *first = record_of(incident{.pid = 7001, .parent = 310}.body()), *empty = with_length(0),
       *negative = with_length(-1), *long_one = with_length(1025),
       *unnamed = record_of(incident{}.body().substr(0, 96));

  CALL(said, zk_find_proc_in_list, no_record, no_list, nullptr);
  CALL(said, zk_find_proc_in_list, empty, no_list, nullptr);
  CALL(said, zk_find_proc_in_list, empty, &of_process, nullptr);
  CALL(said, zk_find_proc_in_list, empty, &of_parent, nullptr);
  CALL(said, zk_find_proc_in_list, empty, &of_records, nullptr);
  CALL(said, zk_find_proc_in_list, empty, &head, nullptr);
  CALL(said, zk_find_proc_in_list, empty, &head, &taken);
  CALL(said, zk_find_proc_in_list, empty, &head, &node);
  CALL(said, zk_find_proc_in_list, negative, &head, &node);
  CALL(said, zk_find_proc_in_list, long_one, &head, &node);
  CALL(said, zk_find_proc_in_list, unnamed, &head, &node);
  CALL(said, zk_find_proc_in_list, first, &odd_list, &node);
  EXPECT_EQ(node, nullptr);
  said.note("zk_find_proc_in_list(first, &head, &node)", [&](int active, const char* file) {
    keep(head.next);
    node = head.next = nullptr;
    return zk_find_proc_in_list(active, file, first, &head, &node);
  });
  said.gives(node->process_id, node->parent_id, node == head.next);
  said.note("zk_find_proc_in_list(again, &head, &node)", [&](int active, const char* file) {
    node = nullptr;
    return zk_find_proc_in_list(active, file, first, &head, &node);
  });
  EXPECT_TRUE(node == head.next && node->next == nullptr);

  CALL(said, zk_add_rec_to_proc, no_record, no_list);
  CALL(said, zk_add_rec_to_proc, empty, no_list);
  CALL(said, zk_add_rec_to_proc, empty, &head);
  CALL(said, zk_add_rec_to_proc, empty, node);
  CALL(said, zk_add_rec_to_proc, long_one, node);
  EXPECT_EQ(node->records, nullptr);
  CALL(said, zk_add_rec_to_proc, first, node);
  said.compare();
  EXPECT_TRUE(node->records->fid[0] == '\0' && node->records->next->next == nullptr); /* it was added twice */
  keep(head.next);
  EXPECT_TRUE(node->records->record != first && std::memcmp(node->records->record, first, 100) == 0);
}

TEST(calls, of_the_table_of_groups) {
  transcript said{"table_of_groups"};
  zk_stack_rec_t *table = nullptr, *loc = nullptr, **no_loc = nullptr, *no_table = nullptr;
  void *cause = record_of(incident{.id = eid("cause")}.body()),
       *effect = record_of(incident{.id = eid("effect"), .related = eid("cause")}.body()),
       *stray = record_of(incident{.id = eid("stray"), .related = eid("gone")}.body()), *empty = with_length(0),
       *long_one = with_length(1025);

  CALL(said, zk_find_related_rec, no_record, no_table, no_loc);
  CALL(said, zk_find_related_rec, effect, no_table, no_loc);
  CALL(said, zk_find_related_rec, effect, no_table, &loc);
  CALL(said, zk_add_unrelated_rec, no_record, nullptr);
  CALL(said, zk_add_unrelated_rec, empty, nullptr);
  CALL(said, zk_add_unrelated_rec, empty, &table);
  CALL(said, zk_add_unrelated_rec, long_one, &table);
  EXPECT_EQ(table, nullptr);
  said.note("zk_add_unrelated_rec(cause, &table)", [&](int active, const char* file) {
    keep(table);
    table = nullptr;
    return zk_add_unrelated_rec(active, file, cause, &table);
  });
  said.note("zk_add_unrelated_rec(stray, &table)", [&](int active, const char* file) {
    keep(table->next);
    table->next = nullptr;
    return zk_add_unrelated_rec(active, file, stray, &table);
  });
  CALL(said, zk_find_related_rec, cause, table, &loc);
  CALL(said, zk_find_related_rec, stray, table, &loc);
  EXPECT_EQ(loc, nullptr);
  CALL(said, zk_find_related_rec, effect, table, &loc);
  EXPECT_EQ(loc, table);
  CALL(said, zk_add_related_rec, no_record, nullptr);
  CALL(said, zk_add_related_rec, empty, nullptr);
  CALL(said, zk_add_related_rec, empty, table);
  CALL(said, zk_add_related_rec, long_one, table);
  EXPECT_EQ(table->related, nullptr);
  CALL(said, zk_add_related_rec, effect, loc);
  said.compare();
  keep(table);
  EXPECT_EQ(table->fid, eid("cause"));
  EXPECT_EQ(table->related->fid, eid("effect"));
  EXPECT_EQ(table->next->fid, eid("stray"));
}

TEST(calls, of_the_header) {
  transcript said{"header_checks"};
  int version = 77, closed = -1;
  zk_estack_v1_header_t header = {};
  CALL(said, zk_read_header, closed, &version, nullptr);
  CALL(said, zk_read_header, 1000, &version, nullptr);
  said.note("zk_read_header(a closed descriptor)",
            [&](int active, const char* file) { return zk_read_header(active, file, 1000, &version, &header); });
  /* Each has one field worse than the next: they are checked in this order. */
  const std::pair<int32_t, zk_estack_v1_header_t> headers[] = {
      {4, {23, 23, 23, 8191, 2}},       {-8, {23, 23, 23, 8191, 2}},
      {64, {23, 23, 23, 8191, 2}},      {0, {23, 23, 23, 8191, 2}},
      {0, {23, 23, 23, 16385, 2}},      {0, {23, 23, 23, 8192, 2}},
      {0, {23, 16385, 23, 8192, 2}},    {0, {23, 16384, 23, 8192, 2}},
      {0, {23, 16384, 16385, 8192, 2}}, {0, {23, -1, 16384, 16384, 2}},
      {0, {16385, 24, 24, 16384, 2}},   {0, {24, 24, 24, 8192, 2}},
      {0, {24, 24, -1, 8192, 1}},       {0, {-1, -2147483647 - 1, 16384, 16384, 1}},
      {56, {23, 23, 100, 8191, 2}}};
  for (const auto& [code, fields] : headers) {
    const int fildes = open(new_file(image(code) + image(fields)).c_str(), O_RDWR);
    version = 77;
    header = {};
    said.note("zk_read_header(version " + std::to_string(code) + ", records_start " +
                  std::to_string(fields.records_start) + ", write_pos " + std::to_string(fields.write_pos) +
                  ",\n    earliest_rec " + std::to_string(fields.earliest_rec) + ", file_size " +
                  std::to_string(fields.file_size) + ", has_wrapped " + std::to_string(fields.has_wrapped) + ")",
              [&](int active, const char* file) { return zk_read_header(active, file, fildes, &version, &header); });
    said.gives("version", version, "file size", header.file_size);
    if (version != 77) said.gives("position", lseek(fildes, 0, SEEK_CUR));
    close(fildes);
  }
  said.compare();
}

TEST(calls, of_a_dump) {
  transcript said{"dump"};
  stack s, later;
  s.add("older").wrap().add("newer");
  later.version = 8;
  const int stack = open(s.file().c_str(), O_RDWR), later_stack = open(later.file().c_str(), O_RDWR);
  const int read_only = open(s.file().c_str(), O_RDONLY);
  const std::string newer = eid("newer"), gone = eid("gone");
  const char* const every = nullptr;

  CALL(said, zk_dump_stack, 0, 0, "", 0, 0, none);
  CALL(said, zk_dump_stack, 0, 0, every, 0, 0, none);
  CALL(said, zk_dump_stack, 0, 0, every, 0, -3, none);
  said.note("zk_dump_stack(0, 0, every, 0, read_only, none)",
            [&](int active, const char* file) { return zk_dump_stack(active, file, 0, 0, every, 0, read_only, none); });
  CALL_PRINTED(said, zk_dump_stack, 1, 0, gone.c_str(), 0, stack, none);
  CALL_PRINTED(said, zk_dump_stack, 1, 1, newer.c_str(), 0, stack, none);
  CALL_PRINTED(said, zk_dump_stack, 1, 0, every, 0, later_stack, none);
  CALL_PRINTED(said, zk_dump_stack, 1, 0, every, 0, stack, none);
  CALL_PRINTED(said, zk_dump_stack, 0, 0, newer.c_str(), 1, stack, none);
  CALL_PRINTED(said, zk_dump_stack, 0, 0, gone.c_str(), 1, stack, none);
  CALL_PRINTED(said, zk_dump_stack, 0, 2, newer.c_str(), 2, stack, none);
  EXPECT_EQ(lseek(stack, 0, SEEK_CUR), 0);
  said.compare();
  for (int fildes : {stack, later_stack, read_only}) close(fildes);
}

TEST(calls, of_a_grouped_report) {
  transcript said{"grouped_report"};
  stack s;
  s.add("cause").add("effect", "cause");
  const int stack = open(s.file().c_str(), O_RDWR), read_only = open(s.file().c_str(), O_RDONLY);
  zk_stack_rec_t *table = nullptr, *const no_table = nullptr;
  zk_proc_list_t head = {}, of_process = {5, 0, nullptr, nullptr};

  CALL(said, zk_read_stack, 2, 0, none, no_list, nullptr);
  CALL(said, zk_read_stack, 0, 0, none, no_list, nullptr);
  CALL(said, zk_read_stack, 0, 1000, none, no_list, nullptr);
  CALL(said, zk_read_stack, 0, 1000, none, &of_process, nullptr);
  said.note("zk_read_stack(1, read_only, none, no_list, &table)", [&](int active, const char* file) {
    return zk_read_stack(active, file, 1, read_only, none, no_list, &table);
  });
  CALL(said, zk_display_recs_by_proc, no_list, 0, none);
  CALL(said, zk_display_recs_by_proc, &of_process, 0, none);
  CALL(said, zk_display_recs_by_rel, no_table, 0, none);

  EXPECT_EQ(zk_read_stack(0, nullptr, 0, stack, none, &head, nullptr), 0);
  EXPECT_EQ(zk_read_stack(0, nullptr, 1, stack, none, nullptr, &table), 0);
  keep(head.next);
  keep(table);
  EXPECT_EQ(lseek(stack, 0, SEEK_CUR), 0);
  CALL_PRINTED(said, zk_display_recs_by_proc, &head, 0, none);
  CALL_PRINTED(said, zk_display_recs_by_proc, &head, 2, none);
  CALL_PRINTED(said, zk_display_recs_by_rel, table, 0, none);
  CALL_PRINTED(said, zk_display_recs_by_rel, table, 2, none);
  said.compare();
  close(stack);
  close(read_only);
}

TEST(calls, of_the_printers) {
  transcript said{"printers"};
  const char* const every = nullptr;
  const std::string one = eid("one"), other = eid("other");
  void *record = record_of(incident{}.body()), *empty = with_length(0), *negative = with_length(-8),
       *unnamed = record_of(incident{.id = ""}.body()), *later = record_of(image(4));

  CALL(said, zk_print_brief_stack_record, every, 0, none, no_record);
  CALL(said, zk_print_brief_stack_record, every, 0, none, empty);
  CALL(said, zk_print_brief_stack_record, every, 0, none, negative);
  CALL(said, zk_print_brief_stack_record, every, 0, none, later);
  CALL_PRINTED(said, zk_print_brief_stack_record, other.c_str(), 1, none, record);
  CALL_PRINTED(said, zk_print_brief_stack_record, other.c_str(), 0, none, record);
  CALL_PRINTED(said, zk_print_brief_stack_record, other.c_str(), 2, none, unnamed);
  CALL_PRINTED(said, zk_print_brief_stack_record, "", 1, none, unnamed);
  CALL_PRINTED(said, zk_print_brief_stack_record, one.c_str(), 1, none, record);
  CALL(said, zk_print_full_stack_record, every, none, no_record);
  CALL(said, zk_print_full_stack_record, every, none, empty);
  CALL(said, zk_print_full_stack_record, every, none, negative);
  CALL(said, zk_print_full_stack_record, every, none, later);
  CALL_PRINTED(said, zk_print_full_stack_record, other.c_str(), none, record);
  CALL_PRINTED(said, zk_print_full_stack_record, one.c_str(), none, unnamed);
  CALL_PRINTED(said, zk_print_full_stack_record, one.c_str(), none, record);
  said.compare();
}

TEST(calls, of_the_opening_routines) {
  transcript said{.name = "opening", .places = {{scratch(), "FOLDER"}}};
  const std::string other = scratch() + "/other", found = scratch() + "/found";
  std::ofstream(other) << stack().add("other").bytes();
  std::ofstream(found) << stack().add("wanted").bytes();
  auto slots = [](const std::vector<std::string>& names) {
    std::string all;
    for (const std::string& each : names) all += each + std::string(256 - each.size(), '\0');
    return all + '\0'; /* an empty slot ends the list */
  };
  const std::string one = slots({"/nowhere"}), both = slots({other, found}), neither = slots({other, other});
  const std::string id = eid("wanted"), long_id = id + ".";
  int fildes = -1, *const no_fildes = nullptr;
  const char* const null = nullptr;

  CALL(said, zk_open_stack_by_name, no_fildes, null);
  CALL(said, zk_open_stack_by_name, &fildes, null);
  CALL(said, zk_open_stack_by_name, &fildes, "");
  CALL(said, zk_open_stack_by_name, &fildes, "/nowhere");
  CALL(said, zk_open_stack_by_name, &fildes, "nowhere");
  CALL(said, zk_open_stack_with_fid, no_fildes, null, none);
  CALL(said, zk_open_stack_with_fid, &fildes, null, none);
  CALL(said, zk_open_stack_with_fid, &fildes, "", none);
  CALL(said, zk_open_stack_with_fid, &fildes, long_id.c_str(), none);
  CALL(said, zk_open_stack_with_fid, &fildes, "7z.....Fris1/..../...z/..................", none);
  EXPECT_EQ(fildes, -1);
  CALL(said, zk_scan_files_for_fid, null, null, 4, &fildes, nullptr, none);
  CALL(said, zk_scan_files_for_fid, "", null, 4, &fildes, nullptr, none);
  CALL(said, zk_scan_files_for_fid, "x", null, 4, &fildes, nullptr, none);
  CALL(said, zk_scan_files_for_fid, id.c_str(), one.data(), 4, &fildes, nullptr, none);
  CALL(said, zk_scan_files_for_fid, id.c_str(), neither.data(), 4, &fildes, nullptr, none);
  EXPECT_EQ(fildes, -1);
  CALL_PRINTED(said, zk_scan_files_for_fid, id.c_str(), both.data(), 4, &fildes, nullptr, none);
  EXPECT_GT(fildes, 0);
  said.compare();
}

TEST(calls, that_print_what_no_run_shows) {
  transcript said{"messages"};
  const char* const id = "7z.....Fris1/..../...z/...................";
  said.text = std::string("0 ") + zk_mesgtbl_zkview_cmd[0] + "\n";
  auto show = [&](int number, std::initializer_list<cu_error_arg_t> arguments) {
    said.text += std::to_string(number) + " " + printed([&] { zk_print_message(stdout, none, number, arguments); });
  };
  show(15, {});
  show(16, {});
  show(28, {zk_msg_arg("zk_print_description"), zk_msg_arg(-1)});
  show(35, {zk_msg_arg(id), zk_msg_arg("cluster"), zk_msg_arg(5)});
  show(37, {zk_msg_arg(id), zk_msg_arg("cluster"), zk_msg_arg(5)});
  show(40, {zk_msg_arg(id)});
  said.compare();
}

}  // namespace
