/* SPDX-License-Identifier: MIT */
/* What zkdecode shows of an Error ID, and what it says of a text that is none. */
#include <filesystem>
#include <fstream>

#include "support.h"

namespace fs = std::filesystem;

/* What an ID ends with: 14 November 2023, 22:13:20.123456 UTC, at 127.0.0.1 or 192.168.1.2. */
static const std::string MOMENT = ".2zIZ/.7S.", LOOPBACK = "/...z/...................", HERE = MOMENT + LOOPBACK,
                         ELSEWHERE = MOMENT + "02.e.1...................";

static outcome zkdecode(std::vector<std::string> arguments, const environment& variables = {}) {
  arguments.insert(arguments.begin(), program("zkdecode"));
  return run(arguments, variables);
}
/* What jq, a reader of its own, gives for `filter` of the JSON for these IDs. */
static std::string jq(const std::string& filter, std::vector<std::string> ids) {
  ids.insert(ids.begin(), "--json");
  return run({"/usr/bin/jq", "-c", filter, new_file(zkdecode(ids).out)}).out;
}

TEST(zkdecode, names_each_facility_and_each_severity) {
  std::vector<std::string> facilities, severities;
  for (size_t number = 0; number < 24; ++number)
    facilities.push_back("8" + std::string(1, base64_table[number + 1]) + "6...." + HERE);
  for (size_t number = 0; number < 8; ++number)
    severities.push_back("8/" + std::string(1, base64_table[number + 1]) + "...." + HERE);
  EXPECT_EQ(words(jq(".facility", facilities)),
            words("\"kern\" \"user\" \"mail\" \"daemon\" \"auth\" \"syslog\" \"lpr\" \"news\" \"uucp\" \"cron\" "
                  "\"authpriv\" \"ftp\" "
                  "\"ntp\" \"security\" \"console\" \"clock\" \"local0\" \"local1\" \"local2\" \"local3\" \"local4\" "
                  "\"local5\" \"local6\" \"local7\""));
  EXPECT_EQ(words(jq(".severity", severities)),
            words("\"emerg\" \"alert\" \"crit\" \"err\" \"warning\" \"notice\" \"info\" \"debug\""));
}

/* What zkdecode can show is what zkrecord takes for a cause. */
TEST(zkdecode, decodes_just_what_names_a_cause) {
  const std::string stack = scratch() + "/causes";
  for (const std::string& good :
       {"60....." + ELSEWHERE, "726md.." + MOMENT + "sqE.U.1.......E/..2...../", "8M6...." + ELSEWHERE})
    for (size_t at = 0; at < good.size(); ++at)
      for (const char other : {'!', 'z', '/'}) {
        std::string id = good;
        id[at] = other;
        const outcome recorded = run({program("zkrecord"), "-qC", "--cause", id, stack, "x"});
        EXPECT_EQ(zkdecode({id}).status == 0, recorded.err.empty()) << id;
      }
}

/* An ID of the only file in the stacks directory. */
struct zkdecode_of_a_stack : testing::Test {
  const fs::path folder = "/var/adm/zelk/stacks", file = folder / "stack";
  std::string id;

  void SetUp() override {
    NEEDS_PRIVATE_VAR();
    fs::remove_all(folder);
    fs::create_directory(folder);
    std::ofstream(file) << "any bytes";
    char entry[7] = "";
    ASSERT_EQ(zk_get_base_64_inode(0, nullptr, file.c_str(), entry), 0);
    id = "7" + std::string(entry) + HERE;
  }
};

TEST_F(zkdecode_of_a_stack, lists_all_candidates_in_the_order_of_the_directory) {
  for (int i = 0; i < 99; ++i) fs::create_hard_link(file, folder / ("link" + std::to_string(i)));
  std::string files;
  for (const auto& entry : fs::directory_iterator(folder)) files += "Stack file: " + entry.path().string() + "\n";
  EXPECT_TRUE(zkdecode({id}).out.ends_with("(this node)\n" + files + "Look it up: zkview -f " + id + "\n"));
  EXPECT_EQ(jq(".stack_files | length", {id}), "100\n");
}

TEST_F(zkdecode_of_a_stack, takes_any_bytes_for_a_name) {
  fs::rename(file, folder / "a\x1b[2J\xff\n\xc3\xa9");
  EXPECT_NE(zkdecode({"--json", id}).out.find("[\"/var/adm/zelk/stacks/a\\u001B[2J\xef\xbf\xbd\\n\xc3\xa9\"]"),
            std::string::npos); /* jq would repair it, too */
  const std::string on_terminal = "script -qc '" + program("zkdecode") + " " + id + "' /dev/null";
  EXPECT_NE(shell(on_terminal, {{"LC_ALL", "C.UTF-8"}}).out.find("/a?[2J??\xc3\xa9\r\n"), std::string::npos);
}

TEST_F(zkdecode_of_a_stack, needs_no_stack_and_no_directory) {
  fs::remove_all(folder);
  EXPECT_TRUE(zkdecode({id}).out.ends_with("(this node)\nStack file: none\nLook it up: zkview -f " + id + "\n"));
  const std::string other = id.substr(0, 7) + ELSEWHERE;
  EXPECT_TRUE(zkdecode({other}).out.ends_with("\nLook it up: zkview -f " + other + " on 192.168.1.2\n"));
  EXPECT_EQ(zkdecode({id, other}).status, 0);
}

TEST(zkdecode, fails_when_it_cannot_write) {
  const outcome full = shell(program("zkdecode") + " 60....." + HERE + " >/dev/full");
  EXPECT_EQ(full, (outcome{"", "zkdecode: standard output: No space left on device\n", 1}));
}
