/* SPDX-License-Identifier: MIT */
/* make_inputs FOLDER - writes what the commands are measured with: a full stack, long ones, and a file of logins and one
 * of kernel messages with as many entries as the longest has records. */
#include <utmpx.h>

#include <cstdio>
#include <cstring>
#include <fstream>

#include "inputs.h"

static void write_file(const std::string& path, const std::string& contents) {
  std::ofstream(path, std::ios::binary) << contents;
}

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  const std::string folder = argv[1];
  std::string many, strangers, logins, messages;
  for (int number = 0; number < 100000; ++number) {
    many += bench_record(number, 1000 + number % 50, -1);
    utmpx entry = {};
    entry.ut_type = USER_PROCESS;
    entry.ut_pid = 1000 + number;
    std::snprintf(entry.ut_user, sizeof entry.ut_user, "operator%d", number % 50);
    std::memcpy(entry.ut_line, "pts/7", 6);
    std::memcpy(entry.ut_host, "stn-console", 12);
    entry.ut_tv.tv_sec = 1790000000 + 7 * number;
    logins += image(entry);
    messages += "<6>[" + std::to_string(100 + 7 * number) + ".000000] stn_diskmon: disk07: 85 unreadable sectors\n";
  }
  /* Each of another process, and with a cause that is not in the stack: the most that the grouped views can be given. */
  for (int number = 0; number < 10000; ++number) strangers += bench_record(number, 1 + number, 1000000 + number);
  write_file(folder + "/full", full_stack());
  write_file(folder + "/many", bench_stack(many));
  write_file(folder + "/strangers", bench_stack(strangers));
  write_file(folder + "/logins", logins);
  write_file(folder + "/messages", messages);
  return 0;
}
