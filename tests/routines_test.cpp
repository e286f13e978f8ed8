/* SPDX-License-Identifier: MIT */
/* The command's own routines, called as it does not call them itself. Where words matter, golden/routines has each call
 * with its result, what it traces and, behind "|", what it prints. */
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "support.h"
#include "zk_msg.h"

/* The routines' own calls of malloc come here: see CMakeLists.txt. */
static size_t missing_memory;
extern "C" void *__real_malloc(size_t size), *__wrap_malloc(size_t size);
extern "C" void* __wrap_malloc(size_t size) {
  if (size != missing_memory) return __real_malloc(size);
  errno = ENOMEM;
  return nullptr;
}

namespace {

const nl_catd none = ZK_NO_CATALOG;
const std::string gone = eid("gone"), wanted = eid("wanted"), newer = eid("newer");

/* A record in memory, as recorded() takes it. */
void* record(const std::string& fields) {
  auto* bytes = new std::string(recorded(fields));
  keep(bytes);
  return bytes->data();
}

/* A descriptor of a stack, as described_stack() takes it, at a place where nobody leaves it. */
int stack_of(const std::string& lines, int flags = O_RDWR) {
  const int fildes = open(new_file(described_stack(replaced(lines, ", ", "\n"))).c_str(), flags);
  lseek(fildes, 100, SEEK_SET);
  return fildes;
}

struct routine : testing::Test {
  const std::string trace = new_file("");
  std::string said;

  void SetUp() override {
    setenv("TZ", "UTC", 1);
    tzset();
  }
  /* Notes a call with all that comes of it. */
  template <typename Call>
  void say(const std::string& call, Call&& work) {
    std::ofstream(trace) << EMPTY_TRACE;
    long long result = 0;
    std::istringstream lines(printed([&] { result = work(); }));
    said += call + " = " + std::to_string(result) + "\n";
    for (const std::string& entry : trace_entries(trace)) said += entry.substr(entry.find('\n') + 1);
    for (std::string line; std::getline(lines, line);) said += "  | " + line + "\n";
  }
  void expect(const std::string& name) {
    expect_golden(GOLDEN_FOLDER "/routines/" + name, replaced(said, scratch() + "/", "FOLDER/"));
  }
};
/* A call, traced. */
#define SAY(routine, ...) say(#routine "(" #__VA_ARGS__ ")", [&] { return routine(1, trace.c_str(), __VA_ARGS__); })

/* ---- What is refused ------------------------------------------------------------------------------------------------- */

TEST_F(routine, says_what_it_refuses) {
  const char* nothing = nullptr;
  int fildes = -1, version = 0;
  zk_proc_list_t head = {}, process = {5, 0, nullptr, nullptr}, *taken = &head, *found = nullptr;
  zk_stack_rec_t *groups = nullptr, *group = nullptr;
  void *const empty = record("empty  length 0"), *const too_long = record("long  length 1025");
  const int read_only = stack_of("record one", O_RDONLY);
  SAY(zk_open_stack_by_name, nullptr, nullptr);
  SAY(zk_open_stack_by_name, &fildes, "");
  SAY(zk_open_stack_with_fid, nullptr, nullptr, none);
  SAY(zk_open_stack_with_fid, &fildes, "", none);
  SAY(zk_open_stack_with_fid, &fildes, (wanted + ".").c_str(), none);
  SAY(zk_scan_files_for_fid, "", nullptr, 4, &fildes, nullptr, none);
  SAY(zk_scan_files_for_fid, "x", nullptr, 4, &fildes, nullptr, none);
  SAY(zk_read_header, -1, &version, nullptr);
  SAY(zk_read_header, 1000, &version, nullptr);
  SAY(zk_dump_stack, 0, 0, "", 0, 0, none);
  SAY(zk_dump_stack, 0, 0, nothing, 0, 0, none);
  SAY(zk_dump_stack, 0, 0, nothing, 0, read_only, none);
  SAY(zk_read_stack, 2, 0, none, nullptr, nullptr);
  SAY(zk_read_stack, 0, 0, none, nullptr, nullptr);
  SAY(zk_read_stack, 0, 1000, none, &process, nullptr);
  SAY(zk_display_recs_by_proc, &process, 0, none);
  SAY(zk_display_recs_by_rel, nullptr, 0, none);
  SAY(zk_print_brief_stack_record, nothing, 0, none, nullptr);
  SAY(zk_print_brief_stack_record, nothing, 0, none, record("negative  length -8"));
  SAY(zk_print_brief_stack_record, nothing, 0, none, empty);
  SAY(zk_print_full_stack_record, nothing, none, record("later  version 4"));
  SAY(zk_find_related_rec, empty, nullptr, nullptr);
  SAY(zk_find_related_rec, empty, nullptr, &group);
  SAY(zk_add_unrelated_rec, empty, nullptr);
  SAY(zk_add_unrelated_rec, empty, &groups);
  SAY(zk_add_related_rec, empty, nullptr);
  SAY(zk_find_proc_in_list, empty, &process, nullptr);
  SAY(zk_find_proc_in_list, empty, &head, &taken);
  SAY(zk_find_proc_in_list, too_long, &head, &found);
  SAY(zk_find_proc_in_list, record("unnamed  cut proc"), &head, &found);
  SAY(zk_add_rec_to_proc, empty, &head);
  SAY(zk_add_rec_to_proc, empty, &process);
  expect("refusals");
  EXPECT_EQ(lseek(read_only, 0, SEEK_CUR), 0);
}

TEST_F(routine, judges_a_header_field_by_field) {
  for (const char* lines :
       {"file_size 16384, write_pos 16384, earliest_rec 16384, records_start 16384, has_wrapped 1",
        "write_pos -2147483648, records_start -1", "version 56, file_size 8191, write_pos 23",
        "version 4, file_size 8191", "version -8", "version 64", "file_size 8191, write_pos 23", "file_size 16385",
        "write_pos 23, earliest_rec 23", "write_pos 16385", "earliest_rec 23, records_start 23", "earliest_rec 16385",
        "records_start 23, has_wrapped 2", "records_start 16385", "has_wrapped 2", "earliest_rec -1"}) {
    int version = 77;
    zk_estack_v1_header_t header = {};
    const int fildes = stack_of(lines);
    say(lines, [&] { return zk_read_header(1, trace.c_str(), fildes, &version, &header); });
    said += "  gives version " + std::to_string(version) + " size " + std::to_string(header.file_size) +
            ", stands at " + std::to_string(lseek(fildes, 0, SEEK_CUR)) + "\n";
  }
  expect("headers");
}

/* ---- Stacks ---------------------------------------------------------------------------------------------------------- */

TEST_F(routine, shows_the_control_header_and_what_is_asked_for) {
  const int wrapped = stack_of("record older, wrap, record newer"), later = stack_of("version 8");
  const char* everything = nullptr;
  SAY(zk_dump_stack, 1, 0, gone.c_str(), 0, wrapped, none);
  SAY(zk_dump_stack, 1, 1, newer.c_str(), 0, wrapped, none);
  SAY(zk_dump_stack, 1, 0, everything, 0, wrapped, none);
  SAY(zk_dump_stack, 0, 0, newer.c_str(), 1, wrapped, none);
  SAY(zk_dump_stack, 0, 0, gone.c_str(), 1, wrapped, none);
  SAY(zk_dump_stack, 0, 2, newer.c_str(), 2, wrapped, none);
  SAY(zk_dump_stack, 1, 0, everything, 0, later, none);
  SAY(zk_print_brief_stack_record, newer.c_str(), 1, none, record("one"));
  SAY(zk_print_brief_stack_record, newer.c_str(), 2, none, record("one"));
  SAY(zk_print_brief_stack_record, newer.c_str(), 1, none, record("newer"));
  SAY(zk_print_brief_stack_record, newer.c_str(), 0, none, record("unnamed  id "));
  SAY(zk_print_brief_stack_record, "", 1, none, record("unnamed  id "));
  expect("dump");
}

/* ---- A search among stacks ------------------------------------------------------------------------------------------- */

struct candidates : testing::Test {
  const std::string other = made("record other"), hit = made("record other, record wanted, record later");
  const std::string behind = made("record other, record wanted, write_pos 183"), bad = made("record long  length 2045");
  const std::string nowhere = scratch() + "/nowhere", folder = scratch() + "/.", below = other + "/below";

  static std::string made(const std::string& lines) { return new_file(described_stack(replaced(lines, ", ", "\n"))); }
  /* The file in which the search ends, or its result. Of a descriptor the search says the same as of a name. */
  static std::string found(const std::vector<std::string>& files, int limit = 4) {
    std::string list;
    for (const std::string& file : files) list += (file + std::string(256, '\0')).substr(0, 256);
    list += '\0';
    char* file = nullptr;
    int fildes = -1, by_name = 0, by_descriptor = 0;
    const size_t open_before = open_descriptors();
    printed([&] {
      by_name = zk_scan_files_for_fid(0, nullptr, wanted.c_str(), list.data(), limit, nullptr, &file, none);
      by_descriptor = zk_scan_files_for_fid(0, nullptr, wanted.c_str(), list.data(), limit, &fildes, nullptr, none);
    });
    EXPECT_EQ(by_descriptor, by_name);
    EXPECT_EQ(open_descriptors(), open_before + (by_name == 0 ? 1 : 0));
    if (by_name != 0) return std::to_string(by_name);
    EXPECT_EQ(lseek(fildes, 0, SEEK_CUR), 0);
    close(fildes);
    return file;
  }
};

TEST_F(candidates, are_searched_when_there_are_several_also_behind_the_newest_record) {
  EXPECT_EQ(found({bad}), bad);
  EXPECT_EQ(found({other, hit, nowhere}), hit);
  EXPECT_EQ(found({other, behind}), behind);
  EXPECT_EQ(found({other, other}), "-36");
  std::string longest = hit; /* of 255 characters */
  longest.insert(longest.rfind('/'), 255 - longest.size(), '/');
  EXPECT_EQ(found({other, longest}), longest);
}

TEST_F(candidates, end_at_the_limit) {
  EXPECT_EQ(found({other, other, hit}, 3), hit);
  EXPECT_EQ(found({other, other, hit}, 2), "-36");
}

TEST_F(candidates, end_at_one_that_cannot_be_opened_or_read) {
  EXPECT_EQ(found({nowhere}), "-24");
  EXPECT_EQ(found({other, nowhere, hit}), "-24");
  EXPECT_EQ(found({other, below, hit}), "-25");
  EXPECT_EQ(found({other, folder, hit}), "-1");
  EXPECT_EQ(found({other, bad, hit}), "-1");
}

/* ---- Lists ----------------------------------------------------------------------------------------------------------- */

/* The names in a list of groups, each group in brackets. */
std::string names(const zk_stack_rec_t* group) {
  std::string all;
  for (; group != nullptr; group = group->next) {
    all += "(";
    for (const zk_stack_rec_t* each = group; each != nullptr; each = each->related)
      all += std::string(each->fid).substr(0, std::strcspn(each->fid, ".")) + (each->related != nullptr ? " " : ")");
  }
  return all;
}

TEST_F(routine, puts_an_effect_directly_behind_its_cause) {
  void *const cause = record("cause"), *const effect = record("effect  related cause");
  void *const another = record("another  related cause"), *const stray = record("stray  related gone");
  zk_stack_rec_t *groups = nullptr, *found = nullptr;
  SAY(zk_add_unrelated_rec, stray, &groups);
  SAY(zk_add_unrelated_rec, another, &groups);
  SAY(zk_add_related_rec, cause, groups->next);
  SAY(zk_add_related_rec, effect, groups->next);
  EXPECT_EQ(names(groups), "(stray)(another effect cause)");
  SAY(zk_find_related_rec, effect, groups, &found);
  EXPECT_EQ(found, groups->next->related->related);
  SAY(zk_find_related_rec, cause, groups, &found);
  SAY(zk_find_related_rec, stray, groups, &found);
  SAY(zk_display_recs_by_rel, groups, 0, none);
  SAY(zk_display_recs_by_rel, groups, 2, none);
  keep(groups);
  expect("groups");
}

TEST_F(routine, takes_no_copy_for_the_record_whose_memory_it_has) {
  void* const again = record("A");
  zk_stack_rec_t *read = nullptr, *added = nullptr;
  EXPECT_EQ(zk_read_stack(1, trace.c_str(), 1, stack_of("record A"), none, nullptr, &read), 0);
  EXPECT_EQ(zk_listed_position(read->record), 24);
  for (int i = 0; i < 4000; ++i) zk_add_related_rec(0, nullptr, again, read); /* more than a stack can have */
  free(std::exchange(read->record, nullptr));
  EXPECT_EQ(zk_add_unrelated_rec(0, nullptr, again, &added), 0);
  EXPECT_EQ(zk_listed_position(added->record), -1);
  keep(read);
  keep(added);
}

TEST_F(routine, tells_processes_apart_by_their_identifier) {
  zk_proc_list_t head = {}, disagreeing = {7001, 5, nullptr, nullptr}, with_it = {0, 0, nullptr, &disagreeing};
  zk_proc_list_t *first = nullptr, *again = nullptr, *other = nullptr, *bad = nullptr;
  void* const small = record("small  related 123456789012345678901  cut 123456789012345678901");
  SAY(zk_find_proc_in_list, record("first  pid 7002  parent 310"), &head, &first);
  SAY(zk_add_rec_to_proc, record("first  pid 7002  parent 310"), first);
  SAY(zk_find_proc_in_list, record("other  pid 7001"), &head, &other);
  SAY(zk_find_proc_in_list, record("again  pid 7002  parent 311"), &head, &again);
  EXPECT_EQ(again, first);
  EXPECT_EQ(head.next->next, other);
  SAY(zk_find_proc_in_list, record("first  pid 7001"), &with_it, &bad);
  SAY(zk_display_recs_by_proc, &head, 2, none);
  if (sizeof(void*) == 8) { /* elsewhere a list's element is as large as the record */
    const std::string before = std::exchange(said, "");
    missing_memory = 73;
    SAY(zk_add_rec_to_proc, small, first);
    missing_memory = 0;
    EXPECT_NE(said.find("record info - errno 12\n\tSize requested 72 bytes"), said.npos) << said;
    said = before;
  }
  EXPECT_EQ(zk_add_rec_to_proc(0, nullptr, small, first), 0);
  keep(head.next);
  expect("processes");
}

/* ---- Printing -------------------------------------------------------------------------------------------------------- */

TEST(text_of_a_record, is_printed_under_a_message_that_need_not_exist) {
  auto shown = [](int number) {
    char text[] = "proc";
    void* at = text;
    size_t unread = sizeof text;
    return printed([&] { zk_print_rec_substring(0, nullptr, none, number, &at, &unread); });
  };
  EXPECT_EQ(shown(ZK_MSG_FILE_VERSION), "\t File Version Code: proc\n");
  for (int number : {-1, 0, 48}) EXPECT_EQ(shown(number), zk_badid_zkview_cmd) << number;
}

TEST(messages, have_these_texts) {
  std::string all;
  for (int number = 0; number < ZK_MSG_COUNT; ++number)
    all += std::to_string(number) + " " + replaced(zk_mesgtbl_zkview_cmd[number], "\n", "\\n") + "\n";
  expect_golden(GOLDEN_FOLDER "/messages.golden", all);
}

}  // namespace
