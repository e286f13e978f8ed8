/* SPDX-License-Identifier: MIT */
/* calls_test.cpp - what the command's own routines say, in golden/command: the calls, their results, what they trace, print
 * and give. "out" stands for the place of an output, "none" for no message catalog. What can be set up:
 *
 *   record NAME  FIELD VALUE ...   a record in memory, named by calls
 *   stack NAME  LINE, ...          a stack file of such lines as recorded() and described_stack() take, whose name stands
 *                                  for its descriptor, at offset 100; "read-only" is another
 *   candidates NAME ...            "candidates", the stack files of a search
 *   groups RECORD ..., ...         "groups", a list of groups of records, each with its cause first
 *   processes RECORD ...           "processes", a list of processes of records; "last" is the last of them
 *   process ID PARENT              appends one to the list without a record
 *   head ID PARENT RECORD          makes the list's head one that is none
 *   memory BYTES                   a piece of that size cannot be had */
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "calls.h"
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

std::map<std::string, std::string> records; /* by name, with their length words */
std::map<std::string, int> descriptors;     /* of stacks, by name */
std::string candidates;
zk_proc_list_t processes, *taken = &processes; /* the place of an output that is not null before */
zk_stack_rec_t* groups;

struct outputs {
  int fildes = -1, version = 77;
  zk_estack_v1_header_t header = {};
  char* file = nullptr;
  zk_stack_rec_t* found = nullptr;
  zk_proc_list_t* process = nullptr;
} out;

/* ---- What a call is given -------------------------------------------------------------------------------------- */

/* In memory of its exact size, and the one zero byte behind it. */
void* record(const std::string& name) {
  if (name == "NULL") return nullptr;
  const std::string& bytes = records.at(name);
  char* memory = new char[bytes.size() + 1];
  keep(memory);
  return std::memcpy(memory, bytes.c_str(), bytes.size() + 1);
}
const char* id(const call& c, size_t index) {
  static std::string text;
  if (c.text(index) == nullptr || *c.text(index) == '\0') return c.text(index);
  text = eid(c.text(index));
  return text.c_str();
}
int descriptor(const call& c, size_t index) {
  return descriptors.contains(c.words.at(index)) ? descriptors[c.words[index]] : c.number(index);
}
zk_proc_list_t* process(const call& c, size_t index) {
  zk_proc_list_t* last = &processes;
  while (c.words.at(index) == "last" && last->next != nullptr) last = last->next;
  return c.at(index, last);
}

/* ---- What it gives --------------------------------------------------------------------------------------------- */

std::string name(const zk_eid_t fid) {
  return std::string(fid).substr(0, std::strcspn(fid, "."));
}
std::string listed(const zk_stack_rec_t* first) {
  std::string text;
  for (const zk_stack_rec_t* group = first; group != nullptr; group = group->next) {
    text += group == first ? "" : ",";
    for (const zk_stack_rec_t* each = group; each != nullptr; each = each->related) text += " " + name(each->fid);
  }
  return text;
}
std::string listed(const zk_proc_list_t* process) {
  std::string text;
  for (; process != nullptr; process = process->next) {
    text += " " + std::to_string(process->process_id) + " of " + std::to_string(process->parent_id);
    for (const zk_stack_rec_t* each = process->records; each != nullptr; each = each->next)
      text += " " + name(static_cast<const char*>(each->record) + 8) + name(each->fid);
  }
  return text;
}

std::string given() {
  std::string text;
  if (out.fildes != -1)
    text += " a descriptor of " +
            std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(out.fildes)).string() + " at position " +
            std::to_string(lseek(out.fildes, 0, SEEK_CUR));
  if (out.file != nullptr) text += std::string(" the candidate ") + out.file;
  if (out.version != 77)
    text += " version " + std::to_string(out.version) + ", file size " + std::to_string(out.header.file_size);
  if (out.found != nullptr) text += " " + name(out.found->fid);
  if (out.process != nullptr && out.process != &processes)
    text += " the process " + std::to_string(out.process->process_id);
  if (!text.empty()) text = "    gives" + text + "\n";
  if (groups != nullptr) text += "    groups" + listed(groups) + "\n";
  if (processes.next != nullptr) text += "    processes" + listed(processes.next) + "\n";
  for (const auto& [file, fildes] : descriptors) {
    struct flock other = {.l_type = F_WRLCK, .l_whence = SEEK_SET, .l_start = 0, .l_len = 0, .l_pid = 0};
    fcntl(fildes, F_OFD_GETLK, &other);
    const off_t position = lseek(fildes, 0, SEEK_CUR);
    if (position != 100) text += "    " + file + " is left at " + std::to_string(position) + "\n";
    if (other.l_type != F_UNLCK) text += "    " + file + " is left locked\n";
  }
  close(out.fildes);
  return text;
}

/* ---- Situations ------------------------------------------------------------------------------------------------ */

void begin() {
  for (const auto& [file, fildes] : descriptors) close(fildes);
  descriptors.clear();
  keep(groups);
  keep(processes.next);
  groups = nullptr;
  processes = {};
  missing_memory = 0;
  out = {};
}

void set_up_stack(const std::string& details) {
  const auto [file, lines] = split(details);
  const std::string path = scratch() + "/" + file;
  std::ofstream(path) << described_stack(replaced(lines.substr(lines.find_first_not_of(' ')), ", ", "\n"));
  descriptors[file] = open(path.c_str(), O_RDWR);
  descriptors["read-only"] = open(path.c_str(), O_RDONLY);
  lseek(descriptors[file], 100, SEEK_SET);
  lseek(descriptors["read-only"], 100, SEEK_SET);
}
void set_up_candidates(const std::string& details) {
  candidates.clear();
  for (const std::string& file : words(details))
    candidates += (scratch() + "/" + file + std::string(256, '\0')).substr(0, 256);
  candidates += '\0'; /* an empty slot ends the list */
}

/* A group has its cause first, behind which an effect is inserted. */
void set_up_groups(const std::string& details) {
  for (const auto& names : items(details)) {
    zk_add_unrelated_rec(0, nullptr, record(names.at(0)), &groups);
    zk_stack_rec_t* cause = groups;
    while (cause->next != nullptr) cause = cause->next;
    for (size_t effect = names.size() - 1; effect > 0; --effect)
      zk_add_related_rec(0, nullptr, record(names[effect]), cause);
  }
}

void set_up_processes(const std::string& details) {
  for (const std::string& each : words(details)) {
    zk_proc_list_t* process = nullptr;
    zk_find_proc_in_list(0, nullptr, record(each), &processes, &process);
    zk_add_rec_to_proc(0, nullptr, record(each), process);
  }
}
void set_up_process(const std::string& details) {
  static zk_proc_list_t process;
  process = {std::stoi(words(details).at(0)), std::stoi(words(details).at(1)), nullptr, nullptr};
  processes.next = &process;
}
void set_up_head(const std::string& details) {
  static zk_stack_rec_t any;
  const std::vector<std::string> word = words(details);
  processes = {std::stoi(word.at(0)), std::stoi(word.at(1)), word.size() > 2 ? &any : nullptr, nullptr};
}

/* ---- The routines ---------------------------------------------------------------------------------------------- */

/* A text in memory of its exact size. */
char* exact(const call& c, size_t index) {
  if (c.text(index) == nullptr) return nullptr;
  char* memory = strdup(c.text(index));
  keep(memory);
  return memory;
}

long long print_text(const call& c) {
  void* at = exact(c, 2);
  size_t unread = c.words[2].size() + 1;
  return zk_print_rec_substring(c.active, c.file, none, c.number(1), &at, &unread);
}
long long truncate(const call& c) {
  char* description = exact(c, 0);
  zk_truncate_description(description, c.number(1));
  puts(description);
  return 0;
}

const subject COMMAND = {
    .routines = {ROUTINE(zk_open_stack_by_name, c.at(0, &out.fildes), c.text(1)),
                 ROUTINE(zk_open_stack_with_fid, c.at(0, &out.fildes), c.text(1), none),
                 ROUTINE(zk_scan_files_for_fid, id(c, 0), c.at(1, candidates.data()), c.number(2), c.at(3, &out.fildes),
                         c.at(4, &out.file), none),
                 ROUTINE(zk_read_header, descriptor(c, 0), c.at(1, &out.version), c.at(2, &out.header)),
                 ROUTINE(zk_dump_stack, c.number(0), c.number(1), id(c, 2), c.number(3), descriptor(c, 4), none),
                 ROUTINE(zk_read_stack, c.number(0), descriptor(c, 1), none, process(c, 3), c.at(4, &groups)),
                 ROUTINE(zk_find_proc_in_list, record(c.words.at(0)), process(c, 1),
                         c.words.at(2) == "taken" ? &taken : c.at(2, &out.process)),
                 ROUTINE(zk_add_rec_to_proc, record(c.words.at(0)), process(c, 1)),
                 ROUTINE(zk_find_related_rec, record(c.words.at(0)), c.at(1, groups), c.at(2, &out.found)),
                 ROUTINE(zk_add_related_rec, record(c.words.at(0)), c.at(1, groups)),
                 ROUTINE(zk_add_unrelated_rec, record(c.words.at(0)), c.at(1, &groups)),
                 ROUTINE(zk_display_recs_by_proc, process(c, 0), c.number(1), none),
                 ROUTINE(zk_display_recs_by_rel, c.at(0, groups), c.number(1), none),
                 ROUTINE(zk_print_brief_stack_record, id(c, 0), c.number(1), none, record(c.words.at(3))),
                 ROUTINE(zk_print_full_stack_record, id(c, 0), none, record(c.words.at(2))),
                 UNTRACED(zk_obtain_strlen, exact(c, 0), static_cast<size_t>(c.large(1))),
                 {"zk_print_rec_substring", print_text},
                 {"zk_truncate_description", truncate}},
    .situations = {{"record", [](const std::string& fields) { records[split(fields).first] = recorded(fields); }},
                   {"stack", set_up_stack},
                   {"candidates", set_up_candidates},
                   {"groups", set_up_groups},
                   {"processes", set_up_processes},
                   {"process", set_up_process},
                   {"head", set_up_head},
                   {"memory", [](const std::string& bytes) { missing_memory = std::stoul(bytes); }}},
    .begin = begin,
    .given = given};

TEST(messages, have_these_texts) {
  std::string all;
  for (int number = 0; number < ZK_MSG_COUNT; ++number)
    all += std::to_string(number) + " " + replaced(zk_mesgtbl_zkview_cmd[number], "\n", "\\n") + "\n";
  expect_golden(GOLDEN_FOLDER "/messages.golden", all);
}

struct calls : testing::TestWithParam<std::filesystem::path> {};

TEST_P(calls, say_what_stands_in) {
  if (sizeof(void*) == 4 && contents(GetParam()).find("\nmemory ") != std::string::npos)
    GTEST_SKIP() << "the test itself may need pieces of that size here";
  setenv("TZ", "UTC", 1);
  expect_calls(GetParam(), COMMAND);
}
INSTANTIATE_TEST_SUITE_P(files, calls, testing::ValuesIn(files_of_calls("command")), name_of_calls);

}  // namespace
