/* The views of the command over whole and damaged stacks. */
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <climits>
#include <cstring>
#include <deque>
#include <functional>
#include <random>

#include "support.h"
#include "zk_msg.h"

static const nl_catd none = reinterpret_cast<nl_catd>(-1); /* no catalog */
static const std::string FILE_CORRUPT = message(ZK_MSG_STACK_CORRUPT);

static outcome view(const stack& what, std::vector<std::string> options, const environment& variables = {}) {
  options.insert(options.end(), {"-s", what.file()});
  return zkview(options, variables);
}

/* A stack of incidents written as "name=id:related@process/parent"; id is the name and the rest empty unless
 * given. "|" is the wrap. */
static stack stack_of(const std::string& incidents) {
  stack made;
  for (std::string word : words(incidents)) {
    if (word == "|") {
      made.wrap();
      continue;
    }
    auto cut = [&](char mark, const std::string& otherwise) {
      const size_t at = word.find(mark);
      const std::string part = at == word.npos ? otherwise : word.substr(at + 1);
      word.resize(std::min(at, word.size()));
      return part;
    };
    incident what;
    what.parent = std::stoi(cut('/', "1"));
    what.pid = std::stoi(cut('@', "100"));
    const std::string related = cut(':', ""), id = cut('=', word);
    what.related = related.empty() ? "" : eid(related);
    what.id = id.empty() ? "" : eid(id);
    what.description = word;
    made.add(what);
  }
  return made;
}

static std::string lines(const std::string& names) {
  std::string all = HEADING;
  for (const std::string& name : words(names)) all += line(name);
  return all;
}

TEST(order, of_each_view) {
  const struct {
    std::string incidents, option, shown;
  } rows[] = {
      {"A B:A C:A", "-d", "A B C"},
      {"A B:A C:A", "-r", "A C B"},
      {"A B C:A D:B", "-r", "A C B D"},
      {"A B:A C:B D:A E:C", "-r", "A D B C E"},
      {"B:A A C:A D:B", "-r", "B D A C"},
      {"A B:gone C:gone D:B", "-r", "A B D C"},
      {"A1=A A2=A B:A", "-r", "A1 B A2"},
      {"A:A B C:A", "-r", "A C B"},
      {"X= B Y:", "-r", "X B Y"},
      {"A@1 B@2:A C@1:B", "-p", "A C B"},
      {"A@7/1 B@-2/1 C@7/2 D@-2/7", "-p", "A C B D"},
      {"A B | C D:B", "-d", "A B C D"},
      {"A B | C D:A", "-r", "A D B C"},
      {"A@1 B@2 | C@2 D@1", "-p", "A D B C"},
      {"A |", "-d", "A"},
  };
  for (const auto& row : rows)
    EXPECT_EQ(view(stack_of(row.incidents), {row.option}), (outcome{lines(row.shown), "", 0})) << row.incidents;
  EXPECT_EQ(report(stack_of("A B:A C:A"), {}), lines("A C B"));

  stack full = stack_of("C A B"); /* the newest, C, took the place of the oldest */
  full.header.write_pos = full.header.earliest_rec =
      24 + 4 + static_cast<int32_t>(incident{.description = "C"}.body().size());
  full.header.has_wrapped = 1;
  for (const char* option : {"-d", "-r", "-p"}) EXPECT_EQ(report(full, {option}), lines("A B C"));
  full.header.has_wrapped = 0;
  EXPECT_EQ(report(full, {"-d"}), lines("A B"));
  stack stopped = stack_of("A B C");
  stopped.header.write_pos = full.header.write_pos;
  EXPECT_EQ(report(stopped, {"-d"}), lines("A"));

  stack longer; /* the 43rd byte of an Error ID does not count */
  longer.add(incident{.id = eid("A") + "x", .description = "A"}).add("B");
  longer.add(incident{.id = eid("C"), .related = eid("A") + "y", .description = "C"});
  EXPECT_EQ(report(longer, {"-r"}), lines("A C B"));

  EXPECT_EQ(view(stack_of("A B@0"), {"-p"}), (outcome{"", unexpected("zk_read_stack", -1), 99}));
}

TEST(order, of_a_stack_that_goes_round) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  for (int round = 0; round < 40 && !testing::Test::HasFailure(); ++round) {
    struct placed {
      int32_t start;
      std::string name;
    };
    std::deque<placed> recorded;
    stack s(8192 + static_cast<int32_t>(random() % 8193));
    for (size_t i = 0, count = random() % 200; i < count; ++i) {
      const std::string name = "i" + std::to_string(i);
      const std::string record = incident{.description = name, .details = std::string(random() % 800, 'd')}.body();
      const int32_t size = static_cast<int32_t>(record.size()) + 4;
      if (s.header.write_pos + size > s.header.file_size) { /* what is left of the lap becomes zeros */
        std::fill(s.area.begin() + (s.header.write_pos - 24), s.area.end(), '\0');
        while (!recorded.empty() && recorded.front().start >= s.header.write_pos) recorded.pop_front();
        s.header.write_pos = 24;
        s.header.has_wrapped = 1;
      }
      const int32_t start = s.header.write_pos;
      s.add_raw(record);
      while (!recorded.empty() && recorded.front().start >= start && recorded.front().start < s.header.write_pos)
        recorded.pop_front();
      recorded.push_back({start, name});
      s.header.earliest_rec = recorded.front().start;
    }
    std::string expected;
    for (const placed& one : recorded) expected += one.name + " ";
    EXPECT_EQ(report(s, {"-d"}), lines(expected));
    if (recorded.empty()) continue;
    EXPECT_EQ(report(s, {round % 2 == 0 ? "-r" : "-p"}), lines(expected));
  }
}

TEST(empty_stack, in_each_view) {
  const outcome no_table = {"", unexpected("zk_display_recs_by_rel", -4), 99};
  EXPECT_EQ(view(stack(), {"-d"}), (outcome{HEADING, "", 0}));
  EXPECT_EQ(view(stack(), {"-p"}), (outcome{HEADING, "", 0}));
  EXPECT_EQ(view(stack(), {"-r"}), no_table);
  EXPECT_EQ(view(stack(), {"-a"}), no_table);
  EXPECT_EQ(view(stack(), {"-d", "-a"}), (outcome{"", "", 0}));
  EXPECT_EQ(view(stack(), {"-p", "-a"}), (outcome{"", "", 0}));
}

/* ---- What a record looks like ------------------------------------------------------------------------- */

static const std::string FULL =
    "ZELK Error Identifier:\n\t " + eid("one") + "\nAssociated ZELK Error Identifier:\n\t " + eid("cause") +
    "\n\nRecording Process Information:\n\t Timestamp: Sat Feb  3 09:05:00 2007 UTC\n"
    "\t Process Name: proc\n\t Process Identifier: 100\n\t Parent Process Identifier: 1\n"
    "\t Process Thread Identifier: 7\n\nDetecting File Information:\n\t File Name: a.c\n\t File Version "
    "Code: 1.1\n"
    "\t Licensed Programming Product: prod\n\t Location Within the File: 12\n\n"
    "Description:\n-7, -8, -9000000000, 2.5, %5$d, disk, 0x1f, 42\n\nDetails:\ndetails\n";

static incident full_incident() {
  const std::string pointer = image(reinterpret_cast<void*>(0x1f));
  incident what = {.related = eid("cause"), .description = "%d, %d, %d, %g, %d, %s, %p, %1$c%9$d", .arg_count = 9};
  what.description = "%1$d, %2$d, %3$lld, %4$g, %5$d, %6$s, %7$p, %8$c%9$d";
  what.args = int_arg(-7) + int_arg(-8, CU_ERROR_ARG_LONG) + wide_arg(CU_ERROR_ARG_LONG_LONG, int64_t{-9000000000}) +
              wide_arg(CU_ERROR_ARG_DOUBLE, 2.5) + int_arg(5, CU_ERROR_ARG_RESERVED) + string_arg("disk") +
              image(int32_t{CU_ERROR_ARG_VOID_PTR}) + pointer + std::string(8 - pointer.size(), '\0') + int_arg('4') +
              int_arg(2);
  return what;
}

TEST(full_report, shows_every_field) {
  stack s;
  const std::string unended = incident{.id = "", .pid = 101, .details = "end"}.body();
  s.add(full_incident()).add_raw(unended.substr(0, unended.size() - 1)); /* what was read before does not show */
  std::string second = FULL;
  auto replace = [&](const std::string& from, const std::string& to) {
    second.replace(second.find(from), from.size(), to);
  };
  replace(eid("one"), "unknown");
  replace(eid("cause"), "");
  replace("Identifier: 100", "Identifier: 101");
  second.erase(second.find("Description:"));
  second += "Description:\ntext\n\nDetails:\nend\n";
  for (const char* option : {"-d", "-r", "-p"})
    EXPECT_EQ(report(s, {option, "-a"}), FULL + SEPARATOR + second + SEPARATOR);

  stack damaged; /* a report that stops at a bad record has no separator behind it */
  damaged.add(full_incident()).add(incident{.version = 4});
  for (const char* option : {"-d", "-r", "-p"})
    EXPECT_EQ(view(damaged, {option, "-a"}), (outcome{FULL + SEPARATOR, FILE_CORRUPT, 24}));
}

TEST(full_report, keeps_what_stands_before_the_damage) {
  const std::string body = full_incident().body();
  const struct {
    std::string cut_behind, next_line;
    bool in_description = false;
  } rows[] = {{"proc", "\t Process Name:"},
              {"a.c", "Detecting"},
              {"1.1", "\t File Version"},
              {"prod", "\t Licensed"},
              {image(1) + image(1), "Description", true}, /* the count of arguments is there, they are not */
              {"%9$d", "Description", true},
              {"disk", "Description", true},
              {"details", "\nDetails"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.cut_behind);
    const size_t size = body.find(row.cut_behind) + row.cut_behind.size();
    /* Nothing but the end of the text is missing: the byte behind it is no NUL either. */
    std::string record = image(static_cast<int32_t>(size)) + body.substr(0, size) + "x";
    const std::string before = FULL.substr(0, FULL.find(row.next_line));
    int result = 0;
    EXPECT_EQ(printed([&] { result = zk_print_full_stack_record(0, nullptr, nullptr, none, record.data()); }),
              before + (row.in_description ? CORRUPT + CORRUPT : ""));
    EXPECT_EQ(result, ZELK_REC_CORRUPT);
    EXPECT_EQ(printed([&] { result = zk_print_brief_stack_record(0, nullptr, nullptr, 0, none, record.data()); }),
              row.in_description ? CORRUPT : "");
    EXPECT_EQ(result, ZELK_REC_CORRUPT);
  }
}

TEST(times, are_local) {
  const std::string far_zone(100, 'Z'), too_far_zone(240, 'Z');
  const struct {
    int32_t time;
    std::string zone, brief, full;
  } rows[] = {
      {1170493500, "UTC0", "020309052007", "Sat Feb  3 09:05:00 2007 UTC\n"},
      {1170493500, "EST5EDT,M3.2.0,M11.1.0", "020304052007", "Sat Feb  3 04:05:00 2007 EST\n"},
      {1190000000, "EST5EDT,M3.2.0,M11.1.0", "091623332007", "Sun Sep 16 23:33:20 2007 EDT\n"},
      {-1, "UTC0", "123123591969", "Wed Dec 31 23:59:59 1969 UTC\n"},
      {INT32_MAX, "JST-9", "011912142038", "Tue Jan 19 12:14:07 2038 JST\n"},
      {INT32_MIN, "UTC0", "121320451901", "Fri Dec 13 20:45:52 1901 UTC\n"},
      {0, "<" + far_zone + ">0", "010100001970", "Thu Jan  1 00:00:00 1970 " + far_zone + "\n"},
      {0, "<" + too_far_zone + ">0", "010100001970", "\n"},
  };
  for (const auto& row : rows) {
    stack s;
    s.add(incident{.time = row.time});
    EXPECT_EQ(view(s, {"-d"}, {{"TZ", row.zone}}).out.substr(HEADING.size()), row.brief + line("text").substr(12));
    const std::string full = view(s, {"-a"}, {{"TZ", row.zone}}).out, label = "Timestamp: ";
    EXPECT_EQ(full.substr(full.find(label) + label.size(), row.full.size() + 2), row.full + "\t ") << row.zone;
  }
}

TEST(brief_line, fits_the_columns) {
  const std::string text(200, 't'), name = "a name of 21 letters.";
  const std::pair<const char*, size_t> rows[] = {{"", 50},
                                                 {"0", 50},
                                                 {"-5", 50},
                                                 {"wide", 50},
                                                 {"40", 10},
                                                 {"100", 70},
                                                 {"20", 200},
                                                 {"30", 0},
                                                 {"31", 1},
                                                 {" 50", 20},
                                                 {"+50x", 20},
                                                 {"0x60", 50},
                                                 {"4294967336", 200},
                                                 {"99999999999999999999", 200}};
  stack s;
  s.add(incident{.process = name, .description = text});
  EXPECT_EQ(report(s, {"-d"}), HEADING + "020309052007 a name of 21 let " + text.substr(0, 50) + "\n");
  for (const auto& [columns, kept] : rows)
    EXPECT_EQ(view(s, {"-d"}, {{"COLUMNS", columns}}).out, HEADING + line(text.substr(0, kept), name)) << columns;
}

/* ---- Damage ------------------------------------------------------------------------------------------- */

TEST(damaged_header, ends_the_report) {
  stack s = stack_of("A |"), negative = stack_of("A");
  negative.header.write_pos = negative.header.records_start = -1; /* passes, as long as nobody goes there */
  s.header.records_start = -1;
  EXPECT_EQ(view(negative, {"-d"}), (outcome{lines("A"), "", 0}));
  EXPECT_EQ(view(s, {"-d"}), (outcome{lines("A"), FILE_CORRUPT, 24}));
  s.header.earliest_rec = -1;
  for (const char* option : {"-d", "-r", "-p"}) EXPECT_EQ(view(s, {option}), (outcome{"", FILE_CORRUPT, 24}));

  /* Later versions are read as version one, unchecked; their wrap counts only when it is 1. */
  for (int32_t version : {-8, 1, 4, 8, 16, 24, 32, 40, 48, 56, 64, INT_MIN}) {
    stack later = stack_of("A | B");
    later.version = version;
    later.header.file_size = later.header.has_wrapped = 1;
    const bool good = version >= 8 && version <= 56 && version % 8 == 0;
    EXPECT_EQ(view(later, {"-d"}), good ? (outcome{lines("A B"), "", 0}) : (outcome{"", FILE_CORRUPT, 24})) << version;
    later.header.has_wrapped = 2;
    EXPECT_EQ(view(later, {"-d"}).out, good ? lines("A") : "") << version;
  }
}

/* A body of `length` bytes: an incident with its details drawn out, or the beginning of one. */
static std::string body_of(size_t length, int32_t version = 0) {
  incident what = {.description = "sized", .version = version};
  const size_t least = what.body().size();
  if (length > least) what.details += std::string(length - least, 'd');
  return what.body().substr(0, length);
}

TEST(damaged_record, ends_the_report) {
  const std::string bare = "010100001970 " + std::string(17, ' ') + "\n", cut = CORRUPT;
  enum { WHOLE, NOT_LISTED, STOPS, CUT };
  const struct {
    int32_t length;
    int kind;
  } rows[] = {{1024, WHOLE}, {1025, NOT_LISTED}, {1118, NOT_LISTED}, {1119, STOPS}, {2044, STOPS},
              {2045, CUT},   {INT_MAX, CUT},     {-1, CUT},          {-8, CUT},     {INT_MIN, CUT}};
  for (const auto& [length, kind] : rows) {
    SCOPED_TRACE(length);
    stack s = stack_of("A"), record = stack(16384);
    s.area.resize(16360);
    s.header.file_size = 16384;
    s.add_raw(length, body_of(static_cast<size_t>(length < 0 || length > 4000 ? 2044 : length)));
    EXPECT_EQ(view(s, {"-d"}), (outcome{lines(kind <= NOT_LISTED ? "A sized" : "A") + (kind == CUT ? CORRUPT : ""),
                                        kind <= NOT_LISTED ? "" : FILE_CORRUPT, kind <= NOT_LISTED ? 0 : 24}));
    for (const char* option : {"-r", "-p"})
      EXPECT_EQ(view(s, {option}), kind == WHOLE ? (outcome{lines("A sized"), "", 0})
                                                 : (outcome{kind == CUT ? CORRUPT : "", FILE_CORRUPT, 24}));
  }
  stack one_byte = stack_of("A");
  one_byte.add_raw(std::string(1, '\0')); /* everything else counts as zeros */
  EXPECT_EQ(view(one_byte, {"-d"}), (outcome{lines("A") + bare, "", 0}));
  EXPECT_EQ(view(one_byte, {"-r"}), (outcome{lines("A") + bare, "", 0}));
  EXPECT_EQ(view(one_byte, {"-p"}), (outcome{"", unexpected("zk_read_stack", -1), 99}));

  for (int32_t version : {0, 8, 56, 4, 64, -8, INT_MAX}) {
    stack s = stack_of("A");
    s.add_raw(body_of(300, version)).add("B");
    const bool good = version <= 56 && version >= 0 && version % 8 == 0;
    for (const char* option : {"-d", "-r", "-p"})
      EXPECT_EQ(view(s, {option}),
                good ? (outcome{lines("A sized B"), "", 0}) : (outcome{lines("A"), FILE_CORRUPT, 24}));
  }
}

TEST(truncated_file, ends_the_report) {
  const std::string bytes = stack_of("A B").bytes();
  const size_t record = incident{.description = "A"}.body().size() + 4, second = 24 + record, end = second + record;
  const struct {
    size_t size;
    std::string before;
    bool cut; /* inside a record; a length word that is cut short ends the lap */
  } rows[] = {{end, "A B", false},  {end - 1, "A", true}, {second + 4, "A", true}, {second + 3, "A", false},
              {second, "A", false}, {24, "", false},      {20, "", false}};
  for (const auto& [size, before, is_cut] : rows) {
    const std::string file = new_file(bytes.substr(0, size)), cut = is_cut ? CORRUPT : "";
    const outcome listed = {is_cut ? "" : lines(before), "", 0};
    EXPECT_EQ(zkview({"-d", "-s", file}), (outcome{lines(before) + cut, is_cut ? FILE_CORRUPT : "", is_cut ? 24 : 0}));
    EXPECT_EQ(zkview({"-p", "-s", file}), is_cut ? (outcome{CORRUPT, FILE_CORRUPT, 24}) : listed) << size;
  }
  for (size_t size : {0u, 3u, 16u})
    EXPECT_EQ(zkview({"-d", "-s", new_file(bytes.substr(0, size))}), (outcome{"", FILE_CORRUPT, 24})) << size;
}

/* Whichever bit is turned, every view ends in one of the documented ways. */
TEST(damaged_bit, never_leads_astray) {
  stack s = stack_of("C=C:A B=B:A");
  s.add(full_incident());
  s.header.earliest_rec = s.header.write_pos =
      24 + 4 + static_cast<int32_t>(incident{.description = "C"}.body().size());
  s.header.has_wrapped = 1;
  const std::string whole = s.bytes(), bytes = whole.substr(0, whole.find_last_not_of('\0') + 2);
  static auto& kept = *new std::deque<void*>; /* lists are never released by the routines that make them */
  const int file = memfd_create("stack", 0), standard_output = dup(STDOUT_FILENO),
            nowhere = open("/dev/null", O_WRONLY);
  EXPECT_EQ(write(file, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  std::string strays;
  fflush(stdout);
  dup2(nowhere, STDOUT_FILENO);
  for (size_t bit = 0; bit < 8 * bytes.size(); ++bit) {
    const off_t at = static_cast<off_t>(bit / 8);
    const char turned = static_cast<char>(bytes[bit / 8] ^ (1 << bit % 8));
    EXPECT_EQ(pwrite(file, &turned, 1, at), 1);
    std::vector<int> results;
    for (int all : {0, 1})
      for (const char* fid : {static_cast<const char*>(nullptr), "B"})
        results.push_back(zk_dump_stack(0, nullptr, 0, all, fid, 0, file, none));
    zk_proc_list_t head = {};
    zk_stack_rec_t* table = nullptr;
    results.push_back(zk_read_stack(0, nullptr, 0, file, none, &head, nullptr));
    results.push_back(zk_read_stack(0, nullptr, 1, file, none, nullptr, &table));
    for (int all : {0, 1}) {
      if (results[4] == 0) results.push_back(zk_display_recs_by_proc(0, nullptr, &head, all, none));
      if (results[5] == 0 && table != nullptr) results.push_back(zk_display_recs_by_rel(0, nullptr, table, all, none));
    }
    for (const int& result : results)
      if (result != 0 && result != ZELK_FILE_CORRUPT && (result != ZELK_FAILURE || &result != &results[4]))
        strays += " " + std::to_string(bit) + "/" + std::to_string(result);
    kept.insert(kept.end(), {head.next, table});
    EXPECT_EQ(pwrite(file, &bytes[bit / 8], 1, at), 1);
  }
  fflush(stdout);
  dup2(standard_output, STDOUT_FILENO);
  for (int fildes : {file, standard_output, nowhere}) close(fildes);
  EXPECT_EQ(strays, "");
}

/* ---- What no option of the command asks for ----------------------------------------------------------- */

TEST(dump, can_show_the_header_and_one_record) {
  stack s = stack_of("A B |");
  const int file = open(s.file().c_str(), O_RDWR);
  auto dump = [&](int dump_header, int all, const char* fid, int searching, int result) {
    return printed([&] { EXPECT_EQ(zk_dump_stack(0, nullptr, dump_header, all, fid, searching, file, none), result); });
  };
  const std::string header =
      SEPARATOR +
      "Stack Format Version One\nStack Control Information:\n\t Records begin at file offset 24\n"
      "\t Current write position file offset 24\n\t The earliest record in the file is at offset " +
      std::to_string(s.header.earliest_rec) + "\n\t Stack file size is 8192\n\t Stack has wrapped at least once\n" +
      SEPARATOR;
  const std::string b = eid("B"), gone = eid("gone");
  EXPECT_EQ(dump(1, 0, gone.c_str(), 0, 0), header + HEADING);
  EXPECT_EQ(dump(1, 1, gone.c_str(), 0, 0), header);
  EXPECT_EQ(dump(0, 0, b.c_str(), 0, 0), lines("B"));
  EXPECT_EQ(dump(0, 0, b.c_str(), 1, 0), line("B"));
  EXPECT_EQ(dump(0, 1, b.c_str(), 1, 0), line("B"));
  EXPECT_EQ(dump(0, 0, gone.c_str(), 1, ZELK_INV_FID), "");
  const std::string full = dump(0, 1, b.c_str(), 0, 0);
  EXPECT_EQ(full.substr(0, 64), ("ZELK Error Identifier:\n\t " + b).substr(0, 64));
  EXPECT_EQ(full.find(SEPARATOR), full.npos);
  close(file);
}
