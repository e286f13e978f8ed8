/* SPDX-License-Identifier: MIT */
/* The command that exports incidents, read by independent readers: jq, Python, Graphviz, a browser. */
#include <bit>
#include <cmath>
#include <limits>
#include <random>

#include "support.h"

static const std::string ID = "726md..Wdc/f/iJr/06...1...................",
                         CAUSE = "726md..Wdc/f/uJr/06...1...................";

/* What would do harm, or be lost, where it is taken for anything but text. */
static const std::string HOSTILE =
    "</bdi></dd><script>&amp;\"'\\N\\\" \x1B[2J \x7F \xC2\x9F \xE2\x80\xAE \xFF \xE2\x82 \xED\xA0\x80 \xE0\x9F\xBF "
    "\xF0\x9F\x98\x80 \xF4\x90\x80\x80 \xF4\x8F\xBF\xBD \xEF\xB7\x90 \xEF\xB7\xAF \xE8\x80\x80 "
    "\x1F \xC2\xA0 \xEF\xBF\xBF";

static incident hostile(const std::string& id, const std::string& cause) {
  incident made = {.id = id, .related = cause, .arg_count = 1, .args = string_arg(HOSTILE)};
  for (auto field : {&incident::process, &incident::file, &incident::file_version, &incident::product,
                     &incident::description, &incident::details})
    made.*field = HOSTILE;
  return made;
}

static outcome zkexport(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), program("zkexport"));
  return run(arguments);
}

/* What a line of the shell prints, on both streams, in $folder, a new one. */
static std::string script(const std::string& line) {
  static int count = 0;
  const std::string folder = scratch() + "/script-" + std::to_string(++count);
  const outcome ended = shell("folder=" + folder + "; mkdir $folder; cd $folder; " + line);
  return ended.out + ended.err;
}

/* Any record is a line, and that line is read as the same incident again. */
TEST(json, is_taken_again_whatever_is_recorded) {
  std::mt19937_64 random(4711);
  const std::string pieces[] = {"disk", "\xFF", "\x80", "\xE2\x82",   "\u00e9",    "\x01",
                                "\"\\", "%1$s", "%",    "\U0010FFFD", "\b\f\r\t\n"};
  auto text_of = [&] {
    std::string made;
    for (uint64_t count = random() % 6; count > 0; --count) made += pieces[random() % std::size(pieces)];
    return made;
  };
  const double numbers[] = {0.0, -0.0, 1e308, 5e-324, 0.1, -INFINITY, NAN, -NAN};
  for (int round = 0; round < 20; ++round) {
    stack made(16384);
    for (int count = 0; count < 12; ++count) {
      const std::string number = std::to_string(10 + count); /* of two that have one Error ID the second is not given */
      std::string id = std::string(ID).replace(13, 2, number);
      if (random() % 4 == 0) id = text_of().substr(0, 40) + number;
      if (random() % 16 == 0) id = "";
      std::string arguments = string_arg(text_of()) + wide_arg(CU_ERROR_ARG_DOUBLE, numbers[random() % 8]) +
                              wide_arg(CU_ERROR_ARG_DOUBLE, std::bit_cast<double>(random())) +
                              wide_arg(CU_ERROR_ARG_LONG_LONG, static_cast<int64_t>(random())) +
                              int_arg(static_cast<int32_t>(random())) + wide_arg(CU_ERROR_ARG_VOID_PTR, random()) +
                              wide_arg(CU_ERROR_ARG_RESERVED, random()) + wide_arg(99, random());
      made.add({.id = id,
                .related = random() % 2 == 0 ? CAUSE : text_of().substr(0, 42),
                .time = static_cast<int32_t>(random()),
                .process = text_of(),
                .pid = static_cast<int32_t>(random()),
                .file = text_of(),
                .file_version = text_of(),
                .product = text_of(),
                .line = static_cast<int32_t>(random()),
                .catalog = "",
                .description = text_of(),
                .arg_count = 8,
                .args = arguments,
                .details = text_of()});
    }
    EXPECT_EQ(script("zkexport " + made.file() +
                     " >lines; wc -l <lines; zkexport --input <lines | sort >again; sort lines | cmp - again"),
              "12\n")
        << round;
  }
}

/* Python replaces each maximal ill-formed part too. */
TEST(json, keeps_the_bytes_of_a_text_that_is_not_utf8) {
  const std::string file = stack().add(hostile(HOSTILE.substr(0, 42), "")).file();
  const std::string text = new_file(HOSTILE);
  const std::string checked = script("zkexport " + file + " | python3 -c '" + R"(
import base64, json, sys
line = sys.stdin.buffer.read()
assert not any(byte < 32 or byte == 127 for byte in line[:-1]) and b"\xC2\x9F" not in line
incident = json.loads(line)
def check(part, key, text):
    assert part[key] == text.decode("utf-8", "replace"), (key, part[key])
    assert part[key + "_base64"] == base64.b64encode(text).decode(), key
    assert list(part).index(key + "_base64") == list(part).index(key) + 1
text = open(")" + text + R"(", "rb").read()
for place in ["process name", "source file", "source version", "source product", "message default"]:
    check(incident[place.split()[0]], place.split()[1], text)
check(incident["message"]["arguments"][0], "value", text)
check(incident, "details", text)
assert "id_time" not in incident
')");
  EXPECT_EQ(checked, "");
}

/* The longest lines there are: a description of controls, or of bytes that are no text, and as many arguments as fit. */
TEST(json, has_no_line_that_is_too_long_for_its_carriers) {
  std::string controls;
  for (int count = 0; count < 200; ++count) controls += "\u0080";
  for (const std::string& bad : {std::string(400, '\x01'), std::string(400, '\xFF'), std::string(420, '"'), controls}) {
    std::string arguments = string_arg(bad);
    for (int count = 0; count < 50; ++count) arguments += string_arg("\xFF");
    std::string description;
    for (int count = 0; count < 50; ++count) description += "%1$s";
    const std::string file = stack().add({.description = description, .arg_count = 51, .args = arguments}).file();
    EXPECT_EQ(script("zkexport " + file +
                     " >line; [ $(wc -c <line) -lt 64512 ] && jq -c .cut line; zkexport --input <line | cmp - line;"
                     "timeout 0.3 zkexport --follow " +
                     file + " | cmp - line"),
              "true\n");
  }
}

TEST(json, tells_where_a_stack_is_damaged_and_goes_on_with_the_next) {
  stack bad_length, bad_version, bad_header;
  bad_length.add("one").add_raw(-7, "");
  bad_version.add({.version = 3});
  bad_header.header.write_pos = 23;
  const std::vector<std::string> stacks = {bad_length.file(), bad_version.file(), bad_header.file(),
                                           scratch() + "/missing", stack().add("fine").file()};
  const outcome all = zkexport(stacks);
  const std::string rename = "; rename it, and zkrecord --create makes a new one\n";
  EXPECT_EQ(all.err, "zkexport: " + stacks[0] + ": the record's length is out of range (at offset 181)" + rename +
                         "zkexport: " + stacks[1] + ": the record's version is not supported (at offset 24)" + rename +
                         "zkexport: " + stacks[2] + ": the recording position is out of range (at offset 8)\n" +
                         "zkexport: " + stacks[3] + ": there is no such stack\n");
  EXPECT_EQ(all.status, 24);
  EXPECT_EQ(zkexport({stacks[3]}).status, 20);
  EXPECT_EQ(zkexport({"/tmp"}).status, 99); /* and yet damage is worse */
  EXPECT_EQ(zkexport({"/tmp", stacks[2], stacks[3]}).status, 24);
  EXPECT_EQ(script("jq -c '.description // [.error[]]' " + new_file(all.out)),
            "\"one\"\n"
            "[-26,\"ZELK_FILE_CORRUPT\",181,\"the record's length is out of range\"]\n"
            "[-26,\"ZELK_FILE_CORRUPT\",24,\"the record's version is not supported\"]\n"
            "[-26,\"ZELK_FILE_CORRUPT\",8,\"the recording position is out of range\"]\n"
            "[-24,\"ZELK_FILE_MISSING\",\"there is no such stack\"]\n"
            "\"fine\"\n");
}

TEST(node, exports_every_stack_by_name_and_the_incident_of_an_id) {
  NEEDS_PRIVATE_VAR();
  const std::string taken = script("mkdir " ZELK_STACK_DIR
                                   "/folder; zkrecord -qC .zelk-0 'being made'; for s in b a; do zkrecord -C $s 'first "
                                   "of %s' $s; zkrecord -q $s 'more'; done");
  EXPECT_EQ(script("zkexport --every | jq -r '.stack + \" \" + .description'"),
            "a first of a\na more\nb first of b\nb more\n");
  const std::string id = taken.substr(0, 42);
  EXPECT_EQ(script("zkexport --id=" + id + " | jq -r '.stack, .id'"), "b\n" + id + "\n");
  const std::string gone = std::string(id).replace(7, 6, "zzzzzz"); /* zkview would show the stack */
  EXPECT_EQ(zkexport({"--id", gone}), (outcome{"", "zkexport: " + gone + ": its stack no longer holds it\n", 0}));
  for (const std::string& bad : {id.substr(1), "." + id.substr(1), std::string(id).replace(17, 6, "o/////"),
                                 std::string(id).replace(1, 6, "zzzzzz")})
    for (const char* options : {"--id=", "--chain --id="}) /* for its chain, too, it has to be one of this node */
      EXPECT_EQ(zkexport(words(options + bad)).status, zkview({"-f", bad}).status) << options << bad;
}

/* Starts the command in the background, and waits until it has given out so many lines. */
static const std::string FOLLOW =
    "follow() { zkexport --follow \"$@\" >>out 2>err & }; end() { kill -$1 $!; wait $!; echo ended $?; };"
    "lines() { n=0; while [ $(wc -l <out) -lt $1 ] && [ $n -lt 300 ]; do sleep 0.1; n=$((n + 1)); done; };"
    "shown() { jq -r '.description // (.gap // .error | tostring)' out | tr '\\n' ' '; }; touch out; ";

TEST(follow, gives_what_is_recorded_in_a_stack_that_appears_later_and_is_replaced) {
  EXPECT_EQ(script(FOLLOW + "s=$folder/sub/deep/s; ln -s $s link; follow $folder/link; sleep 0.3; mkdir -p sub/deep;"
                            "zkrecord -q -C $s one; zkrecord -q $s two; lines 2;"
                            "zkrecord -q -C $s.new three; zkrecord -q $s late; mv $s.new $s; lines 4;"
                            "zkrecord -q $s four; lines 5; shown; end TERM"),
            "one two late three four ended 0\n");
}

TEST(follow, goes_on_with_a_file_whose_other_name_goes) {
  EXPECT_EQ(script(FOLLOW + "zkrecord -qC $folder/s one; ln s t; follow $folder/s $folder/t; lines 2; rm t; sleep 0.3;"
                            "zkrecord -q $folder/s two; lines 3; shown; cat err; end INT"),
            "one one two ended 0\n");
}

TEST(follow, tells_damage_once_and_sleeps_while_nothing_happens) {
  EXPECT_EQ(script(FOLLOW + "s=$folder/s; zkrecord -q -C $s one; follow $s; lines 1;"
                            "printf '\\377' | dd of=$s bs=1 seek=20 conv=notrunc 2>/dev/null; lines 2; sleep 0.3;"
                            "before=$(grep ^vol /proc/$!/status); sleep 1;"
                            "[ \"$before\" = \"$(grep ^vol /proc/$!/status)\" ] && echo asleep; wc -l <out; end TERM"),
            "asleep\n2\nended 0\n");
}

TEST(follow, ends_while_a_long_line_waits_for_its_reader) {
  EXPECT_EQ(script("s=$folder/s; details=$(printf '%0840d' 0 | tr 0 '\\001'); mkfifo pipe; sleep 60 <pipe & reader=$!;"
                   "for n in $(seq 16); do zkrecord -qC -d \"$details\" $s $n; done; zkexport --follow $s >pipe &"
                   "sleep 0.5; kill $!; sleep 0.2; kill $reader; wait $!; echo $?"),
            "0\n");
}

TEST(follow, reads_on_in_a_stack_that_is_set_aside_until_a_new_one_appears) {
  EXPECT_EQ(script(FOLLOW + "s=$folder/aside; zkrecord -qC $s one; follow $s; lines 1; mv $s $s.old; sleep 0.3;"
                            "zkrecord -q $s.old late; lines 2; zkrecord -qC $s new; lines 3; shown; end TERM"),
            "one late new ended 0\n");
}

TEST(follow, gives_what_is_selected_and_goes_on_in_a_new_file_after_a_signal) {
  EXPECT_EQ(
      script("s=$folder/s; lines() { n=0; while [ $(cat log* | wc -l) -lt $1 ] && [ $n -lt 300 ]; do sleep 0.1;"
             "n=$((n + 1)); done; }; touch log; zkrecord -qC $s one; zkexport -f --grep='one|two' --output=log $s &"
             "lines 1; mv log log.1; kill -HUP $!; sleep 0.3; zkrecord -q $s other; zkrecord -q $s two; lines 2;"
             "kill $!; wait $!; jq -r .description log.1 log"),
      "one\ntwo\n");
}

TEST(follow, goes_on_behind_the_rotation_of_the_example) {
  if (!has("logrotate")) GTEST_SKIP() << "there is no logrotate";
  EXPECT_EQ(
      script("sed \"s,/var/log/zelk.json,$folder/log,; s,systemctl.*,kill -HUP \\$(cat $folder/pid),\" " INSTALL_FOLDER
             "/zelk.logrotate >conf; chmod 644 conf; s=$folder/s; zkrecord -qC $s one; zkexport -f --output=log $s &"
             "echo $! >pid; given() { until [ -s log ]; do sleep 0.05; done; }; given;"
             "logrotate -f -s $folder/state conf; zkrecord -q $s two; given; kill $!; wait $!; for log in log.1 log; "
             "do jq -r .description $log; done"),
      "one\ntwo\n");
}

TEST(follow, ends_with_its_terminal) {
  EXPECT_EQ(script(FOLLOW +
                   "zkrecord -qC $folder/s one; follow $folder/s; lines 1; kill -HUP $!; wait $! 2>/dev/null; echo $?"),
            "129\n");
}

TEST(node, forgets_how_far_stacks_were_read_when_more_than_a_hundred_have_gone) {
  NEEDS_PRIVATE_VAR();
  EXPECT_EQ(script("cd " ZELK_STACK_DIR "; give() { zkexport -c $folder/c $* | wc -l; grep -c / $folder/c; }; "
                   "zkrecord -qC kept one; for n in $(seq 101); do cp kept s$n; done; mkdir below; cp kept below; "
                   "give $PWD/below/kept; give --every; rm s? s?? s100; give --every; rm s101 below/kept; "
                   "give kept; zkrecord -q kept two; give --every; rmdir below"),
            "1\n1\n102\n103\n0\n103\n0\n103\n1\n2\n");
}

TEST(follow, gives_a_stack_once_that_gets_another_name) {
  NEEDS_PRIVATE_VAR();
  EXPECT_EQ(script(FOLLOW + "rm -f " ZELK_STACK_DIR "/*; ( cd " ZELK_STACK_DIR "; zkrecord -qC s one );"
                            "follow --every; lines 1; ( cd " ZELK_STACK_DIR
                            "; ln s a; zkrecord -q a two ); lines 2; ( cd " ZELK_STACK_DIR "; zkrecord -qC t three );"
                            "lines 3; rm " ZELK_STACK_DIR "/s; zkrecord -q a four; lines 4;"
                            "( cd " ZELK_STACK_DIR "; mv a b; zkrecord -q b five ); lines 5; shown; end TERM"),
            "one two three four five ended 0\n");
}

TEST(node, gives_each_stack_once_whatever_leads_to_it) {
  NEEDS_PRIVATE_VAR();
  EXPECT_EQ(script("cd " ZELK_STACK_DIR "; zkrecord -qC s one; ln s same; ln -s s link; cp s .zelk-0; "
                   "zkexport --every | jq -r .stack; zkexport link | jq -r .stack"),
            "s\nlink\n");
}

TEST(node, passes_over_what_is_no_stack_among_the_stacks) {
  NEEDS_PRIVATE_VAR();
  const std::string passed = "zkexport: " ZELK_STACK_DIR "/notes: it is no Error Stack\n";
  const std::string line =
      "cd " ZELK_STACK_DIR
      "; echo text >notes; zkrecord -qC s one; zkexport --every | jq -r .stack;"
      "zkexport --every -o dot | grep -c i0; zkexport --every >/dev/null; echo $?; cp s t;"
      "printf '\\377' | dd of=t bs=1 seek=27 conv=notrunc 2>/dev/null; zkexport --every | tail -n 1"
      " | jq -r .error.offset";
  EXPECT_EQ(script(line), "s\n1\n0\n24\n" + passed + passed + passed + passed +
                              "zkexport: " ZELK_STACK_DIR
                              "/t: the record's length is out of range (at offset 24); rename it, "
                              "and zkrecord --create makes a new one\n");
}

/* Runs a line as one who may read what everybody may, and write nothing. */
static std::string as_nobody(const std::string& line) {
  return (getuid() == 0 ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "") + line;
}

TEST(reading, needs_no_lock_of_a_stack_that_may_not_be_written) {
  const std::string file = stack().add("one").file();
  chmod(file.c_str(), 0444);
  chmod(scratch().c_str(), 0755);
  const std::string locked =
      "python3 -c 'import fcntl, sys, time; f = open(sys.argv[1], \"r\");"
      "fcntl.flock(f, fcntl.LOCK_SH); time.sleep(20)' " +
      file + " & holder=$!; sleep 0.2;";
  EXPECT_EQ(script(locked + as_nobody("zkexport " + file) + " | jq -r .description; kill $holder"), "one\n");
}

TEST(reading, needs_no_lock_of_a_stack_on_a_read_only_file_system) {
  NEEDS_PRIVATE_VAR();
  EXPECT_EQ(script("mount -t tmpfs none " ZELK_STACK_DIR " && zkrecord -qC s one; mount -o remount,ro " ZELK_STACK_DIR
                   "; zkexport s | jq -r .description; zkexport --every -otree | wc -l; umount " ZELK_STACK_DIR),
            "one\n1\n");
}

/* What a command says and prints that meets the lock of a stack, which is held until it says something. */
static std::string told_of_lock(const std::string& taking, const std::string& command) {
  return script(
      "zkrecord -qC $folder/s one; python3 -c 'import fcntl, os, struct, time; f = os.open(\"s\", os.O_RDWR); " +
      taking +
      "; open(\"locked\", \"w\"); time.sleep(60)' & holder=$!; until [ -e locked ]; do sleep 0.02; done;"
      "{ " +
      command +
      "; } 2>told & waiting=$!; until [ -s told ]; do sleep 0.05; done; kill $holder; wait $waiting;"
      "sed \"s,$folder/,,; s/ $holder / HOLDER /\" told");
}

TEST(lock, that_is_waited_for_is_told_once_with_its_holder) {
  EXPECT_EQ(told_of_lock("fcntl.lockf(f, fcntl.LOCK_EX)", "zkexport $folder/s | jq -r .description"),
            "one\nzkexport: s: waiting for its lock, which process HOLDER holds\n");
  const std::string of_open_file = "fcntl.fcntl(f, 38, struct.pack(\"hhqqi4x\", fcntl.F_WRLCK, 0, 0, 0, 0))";
  EXPECT_EQ(told_of_lock(of_open_file, "zkrecord -q $folder/s two"),
            "zkrecord: s: waiting for its lock, which process HOLDER holds\n");
}

TEST(pictures, show_whatever_is_recorded_as_text) {
  const std::string file =
      stack().add(hostile("<b>\t\"'&", "\xFF")).add(hostile("same", "<b>\t\"'&")).add(hostile("same", "same")).file();
  EXPECT_EQ(script("zkexport --format=dot " + file + " | dot -Tsvg | python3 -c '" + R"(
import sys, xml.etree.ElementTree as tree
texts = [text.text for text in tree.parse(sys.stdin).iter("{http://www.w3.org/2000/svg}text")]
assert any("<script>&amp;\"" in text and "\\N\\" in text for text in texts), texts')"),
            "");
  EXPECT_EQ(script("zkexport --format=html " + file + " | python3 -c '" + R"(
import html.parser, sys
page, elements, ids, texts = sys.stdin.read(), [], [], []
class Reader(html.parser.HTMLParser):
    def handle_starttag(self, tag, attributes):
        elements.append(tag); ids.extend(value for key, value in attributes if key == "id")
    def handle_data(self, text): texts.append(text)
Reader().feed(page)
hostile = open(")" +
                   new_file(HOSTILE) + R"(", "rb").read().decode("utf-8", "replace")
for control in "\x1b\x1f\x7f\x9f\ufdd0\ufdef\uffff": hostile = hostile.replace(control, "\ufffd")
assert texts.count(hostile) >= 3 * 6, texts
assert elements.count("script") == 1 and set(ids) >= {"<b>\ufffd\"" + chr(39) + "&", "same"}, ids
assert len(ids) == len(set(ids)) == 4, ids')"),
            "");
}

TEST(input, takes_characters_that_are_written_as_escapes) {
  const std::string file = stack().add({.details = "\u00e9 \u20ac \U0001F600 \U0010FFFD"}).file();
  EXPECT_EQ(script("zkexport " + file +
                   " >line; jq -ac . line | tee escaped | zkexport --input | cmp - line;"
                   "grep -o 'ud83d.ude00' escaped"),
            "ud83d\\ude00\n");
}

TEST(input, gives_damage_on_once_and_each_gap) {
  const std::string damage =
                        R"({"stack":"s","error":{"code":-26,"name":"ZELK_FILE_CORRUPT","offset":0,"reason":"why"}})"
                        "\n",
                    gap = R"({"stack":"s","gap":true})"
                          "\n";
  const std::string lines = new_file(damage + gap + gap + damage);
  EXPECT_EQ(shell(program("zkexport") + " --input <" + lines), good(damage + gap + gap));
  EXPECT_EQ(shell(program("zkexport") + " --input -otree <" + lines), /* and says it once */
            good("! s: why (at offset 0)\n! s: incidents were overwritten before they could be read\n"));
}

TEST(input, is_not_read_into_any_depth) {
  const std::string line = zkexport({stack().add("one").file()}).out;
  const std::string deep = "{\"more\":" + std::string(100000, '[') + std::string(100000, ']') + ",";
  EXPECT_EQ(shell(program("zkexport") + " --input <" + new_file(deep + line.substr(1))).status, 1);
}

TEST(zkexport, takes_a_command_line_as_gnu_does_but_no_part_of_a_name) {
  const std::string file = stack().add("one").file();
  const std::string dot = zkexport({"--format=dot", file}).out;
  for (const std::string& same : {"-odot " + file, "-o dot -- " + file, file + " --format dot", "-ojson -odot " + file})
    EXPECT_EQ(zkexport(words(same)).out, dot) << same;
  const std::string unexpected = "zkexport: The following argument was not expected: ";
  for (const std::string bad : {"--form", "--bogus=3", "-x", "--ever"})
    EXPECT_EQ(zkexport({file, bad, "--another"}), (outcome{"", unexpected + bad + "\nTry 'zkexport --help'\n", 2}));
  EXPECT_TRUE(zkexport({"--bogus", "--help"}).out.starts_with("Gives "));
}

TEST(zkexport, never_writes_into_a_stack) {
  const std::string file = stack().add("one").file();
  for (const char* format : {"json", "html"})
    EXPECT_EQ(script("zkexport --format=" + std::string(format) + " --output=" + file + " " + file + " 2>&1; echo $?"),
              "zkexport: " + file + ": it is an Error Stack, which would be lost; choose another file\n1\n");
  EXPECT_EQ(script("zkexport " + file + " | jq -r .description"), "one\n");
}

TEST(zkexport, fails_when_it_cannot_write_and_ends_with_the_pipe) {
  const std::string file = stack().add("one").file();
  EXPECT_EQ(script("zkexport " + file + " >/dev/full || echo $?"),
            "1\nzkexport: standard output: No space left on device\n");
  EXPECT_EQ(script("zkexport --version >/dev/full || echo $?"),
            "1\nzkexport: standard output: No space left on device\n");
  EXPECT_EQ(script("{ timeout 10 zkexport --follow " + file + "; echo $? >&2; } | head -n 1 | jq -r .description"),
            "one\n141\n");
}
