/* The views of the command over whole and damaged stacks. */
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <set>

#include "support.h"
#include "zk_msg.h"

static const nl_catd none = reinterpret_cast<nl_catd>(-1); /* no catalog */

static outcome view(const stack& what, std::vector<std::string> options, const environment& variables = {}) {
  options.insert(options.end(), {"-s", what.file()});
  return zkview(options, variables);
}
static const auto good = [](const std::string& shown) { return outcome{shown, "", 0}; };
static const auto corrupt = [](const std::string& shown) { return outcome{shown, message(ZK_MSG_STACK_CORRUPT), 24}; };

/* A stack of incidents written as "name:related@process", with as little as is of interest; "|" is the wrap. */
static stack stack_of(const std::string& incidents) {
  stack made;
  for (const std::string& word : words(incidents)) {
    const size_t process = std::min(word.find('@'), word.size()), colon = std::min(word.find(':'), process);
    incident what = {.id = eid(word.substr(0, colon)), .description = word.substr(0, colon)};
    if (colon < process) what.related = eid(word.substr(colon + 1, process - colon - 1));
    if (process < word.size()) what.pid = std::stoi(word.substr(process + 1));
    word == "|" ? made.wrap() : made.add(what);
  }
  return made;
}
static const int32_t SECOND = stack_of("A").header.write_pos; /* where the second incident of such a stack starts */

static std::string lines(const std::string& names) {
  std::string all = HEADING;
  for (const std::string& name : words(names)) all += line(name);
  return all;
}

TEST(order, of_each_view) {
  const struct {
    std::string incidents, option, shown;
  } rows[] = {{"", "-d", ""},
              {"A B:A C:B D:A E:C", "-r", "A D B C E"},
              {"B:A A C:A D:B", "-r", "B D A C"},
              {"A B:gone C:gone D:B", "-r", "A B D C"},
              {"A A B:A", "-r", "A B A"},
              {"A:A B C:A", "-r", "A C B"},
              {"A@7 B@-2:A C@7:B D@-2", "-p", "A C B D"},
              {"A B | C D:B", "-d", "A B C D"},
              {"A B | C D:A", "-r", "A D B C"},
              {"A |", "-d", "A"}};
  for (const auto& row : rows)
    EXPECT_EQ(view(stack_of(row.incidents), {row.option}), good(lines(row.shown))) << row.incidents;
  EXPECT_EQ(report(stack_of("A B:A C:A"), {}), lines("A C B"));
  EXPECT_EQ(view(stack(), {"-r"}), (outcome{"", unexpected("zk_display_recs_by_rel", -4), 99}));
  EXPECT_EQ(view(stack_of("A B@0"), {"-p"}), (outcome{"", unexpected("zk_read_stack", -1), 99}));

  stack full = stack_of("C A B"); /* the newest, C, took the place of the oldest */
  full.header.write_pos = full.header.earliest_rec = SECOND;
  full.header.has_wrapped = 1;
  for (const char* option : {"-d", "-r", "-p"}) EXPECT_EQ(report(full, {option}), lines("A B C"));

  stack odd; /* an empty Error ID relates nothing, and the 43rd byte of one does not count */
  odd.add({.id = "", .description = "X"}).add({.id = eid("A") + "x", .related = eid("gone"), .description = "A"});
  odd.add("B").add({.id = eid("C"), .related = eid("A") + "y", .description = "C"});
  EXPECT_EQ(report(odd, {"-r"}), lines("X A C B"));
}

/* ---- What a record looks like ------------------------------------------------------------------------- */

static const std::string FULL =
    "ZELK Error Identifier:\n\t " + eid("one") + "\nAssociated ZELK Error Identifier:\n\t " + eid("cause") +
    "\n\nRecording Process Information:\n\t Timestamp: Sat Feb  3 09:05:00 2007 UTC\n"
    "\t Process Name: proc\n\t Process Identifier: 100\n\t Parent Process Identifier: 1\n"
    "\t Process Thread Identifier: 7\n\nDetecting File Information:\n\t File Name: a.c\n\t File Version Code: 1.1\n"
    "\t Licensed Programming Product: prod\n\t Location Within the File: 12\n\n"
    "Description:\n-7, disk, 2.5.\n\nDetails:\ndetails\n";

static incident full_incident() {
  const std::string arguments = int_arg(-7) + string_arg("disk") + wide_arg(CU_ERROR_ARG_DOUBLE, 2.5);
  return {.related = eid("cause"), .description = "%1$d, %2$s, %3$g.", .arg_count = 3, .args = arguments};
}

TEST(full_report, shows_every_field) {
  stack s, damaged; /* a report that stops at a bad record has no separator behind it */
  const std::string unended = incident{.id = "", .details = "end"}.body();
  s.add(full_incident()).add_raw(unended.substr(0, unended.size() - 1)); /* what was read before does not show */
  damaged.add(full_incident()).add(incident{.version = 4});
  for (const char* option : {"-d", "-r", "-p"}) {
    const std::string out = report(s, {option, "-a"}), second = FULL + SEPARATOR + "ZELK Error Identifier:\n\t unknown";
    EXPECT_TRUE(out.starts_with(second + "\nAssociated ZELK Error Identifier:\n\t \n\nRecording")) << out;
    EXPECT_TRUE(out.ends_with("Location Within the File: 12\n\nDescription:\ntext\n\nDetails:\nend\n" + SEPARATOR));
    EXPECT_EQ(view(damaged, {option, "-a"}), corrupt(FULL + SEPARATOR));
  }
}

TEST(full_report, keeps_what_stands_before_the_damage) {
  const std::string body = full_incident().body();
  const std::pair<std::string, std::string> rows[] = {
      {"proc", "\t Process Name:"},
      {image(1) + image(1), "Description"}, /* the count of arguments is there, they are not */
      {"$g.", "Description"},
      {"disk", "Description"},
      {"details", "\nDetails"}};
  for (const auto& [cut_behind, next_line] : rows) {
    const size_t size = body.find(cut_behind) + cut_behind.size();
    /* Nothing but the end of the text is missing: the byte behind it is no NUL either. */
    std::string record = image(static_cast<int32_t>(size)) + body.substr(0, size) + "x";
    const std::string before = FULL.substr(0, FULL.find(next_line)), says = next_line == "Description" ? CORRUPT : "";
    auto full = [&] { EXPECT_EQ(zk_print_full_stack_record(0, nullptr, nullptr, none, record.data()), -35); };
    auto brief = [&] { EXPECT_EQ(zk_print_brief_stack_record(0, nullptr, nullptr, 0, none, record.data()), -35); };
    EXPECT_EQ(printed(full), before + says + says) << cut_behind;
    EXPECT_EQ(printed(brief), says) << cut_behind;
  }
}

TEST(times, are_local) {
  const std::string far_zone(100, 'Z'), too_far_zone(240, 'Z');
  const struct {
    int32_t time;
    std::string zone, brief, full;
  } rows[] = {{1190000000, "EST5EDT,M3.2.0,M11.1.0", "091623332007", "Sun Sep 16 23:33:20 2007 EDT\n"},
              {INT32_MIN, "UTC0", "121320451901", "Fri Dec 13 20:45:52 1901 UTC\n"},
              {0, "<" + far_zone + ">0", "010100001970", "Thu Jan  1 00:00:00 1970 " + far_zone + "\n"},
              {0, "<" + too_far_zone + ">0", "010100001970", "\n"}};
  for (const auto& row : rows) {
    stack s;
    s.add(incident{.time = row.time});
    EXPECT_EQ(view(s, {"-d"}, {{"TZ", row.zone}}).out, HEADING + row.brief + line("text").substr(12));
    const std::string full = view(s, {"-a"}, {{"TZ", row.zone}}).out;
    EXPECT_NE(full.find("Timestamp: " + row.full + "\t Process Name"), full.npos) << full;
  }
}

TEST(brief_line, fits_the_columns) {
  const std::string text(200, 't'), name = "a name of 21 letters.";
  const std::map<size_t, std::vector<const char*>> columns_of = {
      {50, {"", "0", "-5", "wide", "0x60"}},               /* 80 columns, of which 30 are taken */
      {200, {"20", "4294967336", "99999999999999999999"}}, /* everything */
      {10, {"40", " 40", "+40x"}},
      {0, {"30"}}};
  stack s;
  s.add(incident{.process = name, .description = text});
  EXPECT_EQ(report(s, {"-d"}), HEADING + "020309052007 a name of 21 let " + text.substr(0, 50) + "\n");
  for (const auto& [kept, all] : columns_of)
    for (const char* columns : all)
      EXPECT_EQ(view(s, {"-d"}, {{"COLUMNS", columns}}).out, HEADING + line(text.substr(0, kept), name)) << columns;
}

/* ---- Damage ------------------------------------------------------------------------------------------- */

TEST(damaged_header, ends_the_report) {
  stack s = stack_of("A |"), stopped = stack_of("A B C");
  stopped.header.write_pos = SECOND;
  EXPECT_EQ(view(stopped, {"-d"}), good(lines("A")));
  s.header.records_start = -1;
  EXPECT_EQ(view(s, {"-d"}), corrupt(lines("A")));
  s.header.earliest_rec = -1;
  for (const char* option : {"-d", "-r", "-p"}) EXPECT_EQ(view(s, {option}), corrupt(""));
}

TEST(damaged_record, ends_the_report) {
  for (int32_t length : {1024, 1025, 1118, 1119, 2044, 2045, INT_MAX, -1, INT_MIN}) {
    stack s(16384);
    incident what = {.description = "sized"};
    what.details += std::string(std::min(static_cast<uint32_t>(length), 2044U) - what.body().size(), 'd');
    s.add("A").add_raw(length, what.body());
    const bool is_cut = length < 0 || length > 2044;  /* told before the message about the stack */
    const bool is_listed = !is_cut && length <= 1118; /* above, its process name is too far from the end */
    const bool is_grouped = !is_cut && length <= 1024;
    EXPECT_EQ(view(s, {"-d"}), is_listed ? good(lines("A sized")) : corrupt(lines("A") + (is_cut ? CORRUPT : "")));
    for (const char* option : {"-r", "-p"})
      EXPECT_EQ(view(s, {option}), is_grouped ? good(lines("A sized")) : corrupt(is_cut ? CORRUPT : "")) << length;
  }
}

TEST(truncated_file, ends_the_report) {
  const std::string bytes = stack_of("A B").bytes();
  const struct {
    int32_t size;
    outcome dumped, grouped;
  } rows[] = {{2 * SECOND - 25, corrupt(lines("A") + CORRUPT), corrupt(CORRUPT)}, /* in the last record */
              {SECOND + 3, good(lines("A")), good(lines("A"))},                   /* in a length word: ends the lap */
              {20, good(HEADING), good(HEADING)},
              {16, corrupt(""), corrupt("")}};
  for (const auto& row : rows) {
    const std::string file = new_file(bytes.substr(0, static_cast<size_t>(row.size)));
    EXPECT_EQ(zkview({"-d", "-s", file}), row.dumped) << row.size;
    EXPECT_EQ(zkview({"-p", "-s", file}), row.grouped) << row.size;
  }
}

/* ---- What no option of the command asks for ----------------------------------------------------------- */

TEST(dump, can_show_the_header) {
  const std::string header =
      "Stack Format Version One\nStack Control Information:\n\t Records begin at file offset 24\n"
      "\t Current write position file offset 24\n\t The earliest record in the file is at offset 8033\n"
      "\t Stack file size is 8192\n\t Stack has wrapped at least once\n";
  const int file = open(stack_of("A |").file().c_str(), O_RDWR);
  for (int all : {0, 1}) {
    auto dump = [&] { EXPECT_EQ(zk_dump_stack(0, nullptr, 1, all, eid("gone").c_str(), 0, file, none), 0); };
    EXPECT_EQ(printed(dump), SEPARATOR + header + SEPARATOR + (all == 0 ? HEADING : ""));
  }
  close(file);
}

/* Whichever bit of a full, wrapped stack is turned, every view shows what it can or calls the stack damaged. */
TEST(damaged_bit, never_leads_astray) {
  if (*EMULATOR != '\0') GTEST_SKIP() << "too slow under an emulator";
  constexpr size_t CHUNK = 1024; /* bytes for each process: the lists of a walk are released with it */
  stack full;
  for (const std::string name : {"A", "B", "C", "D", "E"})
    full.add({.id = eid(name), .related = eid("A"), .details = std::string(820, 'd')});
  full.wrap().add({.id = eid("F"), .related = eid("C"), .details = std::string(820, 'd')}).add("G").add("H");
  for (size_t start = 0; start < full.bytes().size(); start += CHUNK)
    in_child([&] {
      static auto& kept = *new std::vector<void*>; /* what LeakSanitizer still sees is no leak */
      const std::string bytes = full.bytes();
      const int file = open(new_file(bytes).c_str(), O_RDWR);
      std::set<int> results;
      EXPECT_NE(std::freopen("/dev/null", "w", stdout), nullptr);
      for (size_t bit = 8 * start; bit < 8 * (start + CHUNK); ++bit) {
        const char turned = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
        EXPECT_EQ(pwrite(file, &turned, 1, static_cast<off_t>(bit / 8)), 1);
        zk_proc_list_t head = {};
        zk_stack_rec_t* table = nullptr;
        const int by_process = zk_read_stack(0, nullptr, 0, file, none, &head, nullptr);
        const int by_group = zk_read_stack(0, nullptr, 1, file, none, nullptr, &table);
        for (int all : {0, 1}) {
          results.insert(zk_dump_stack(0, nullptr, 0, all, nullptr, 0, file, none));
          if (by_process == 0) results.insert(zk_display_recs_by_proc(0, nullptr, &head, all, none));
          if (by_group == 0 && table != nullptr) results.insert(zk_display_recs_by_rel(0, nullptr, table, all, none));
        }
        kept.insert(kept.end(), {head.next, table});
        EXPECT_EQ(pwrite(file, &bytes[bit / 8], 1, static_cast<off_t>(bit / 8)), 1);
      }
      EXPECT_TRUE(std::ranges::includes(std::set<int>{ZELK_FILE_CORRUPT, 0}, results));
    });
}

/* More records than the index of a walk holds at first. */
TEST(order, of_many_records_is_that_of_few) {
  stack many;
  std::string related, by_process;
  many.version = 8;
  for (int32_t n = 0; n < 600; ++n) {
    const std::string name = "n" + std::to_string(n);
    many.add({.id = eid(name),
              .related = n % 3 == 0 ? "" : eid("n" + std::to_string(n - 1)),
              .pid = n % 200 + 1,
              .description = name});
    related += line(name);
  }
  for (int first = 0; first < 200; ++first)
    for (int n = first; n < 600; n += 200) by_process += line("n" + std::to_string(n));
  EXPECT_EQ(view(many, {"-r"}), good(HEADING + related));
  EXPECT_EQ(view(many, {"-p"}), good(HEADING + by_process));
}
