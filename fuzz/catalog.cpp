/* SPDX-License-Identifier: MIT */
/* catalog.cpp - the input is a set, a message number, and a file: once the file is the catalog that a record
 * names, and once a text of the command's own catalog. */
#include <cstring>

#include "fuzz.h"
#include "zk_msg.h"

/* A record's catalog is any file at all. What comes out is the default or stands in the file. */
static void describe(int set, int number, const std::string& contents) {
  const int fildes = fuzz_file(contents);
  const std::string path = fuzz_path(fildes);
  const cu_error_t error = {1, nullptr, path.c_str(), set, number, "default", 0, nullptr};
  const std::string described = fuzz_message(error);
  if (described != "default" && described.find('%') == described.npos) /* "%%" comes out as one */
    FUZZ_EXPECT(contents.find(described + '\0') != contents.npos);
  close(fildes);
}

/* A catalog whose only text is that of a brief line: one plane of one entry, in both byte orders, for a host
 * that is little-endian. The C library's reader trusts a catalog, so this one holds together. */
static nl_catd open_catalog(const std::string& text) {
  constexpr uint32_t MAGIC = 0x960408de, SET = ZK_MSG_SET + 1, NUMBER = ZK_MSG_BRIEF_LINE;
  constexpr uint32_t words[] = {MAGIC, 1, 1, SET, NUMBER, 0, __builtin_bswap32(SET), __builtin_bswap32(NUMBER), 0};
  const std::string head(reinterpret_cast<const char*>(words), sizeof words);
  const int fildes = fuzz_file(head + text + '\0');
  const nl_catd catalog = catopen(fuzz_path(fildes).c_str(), 0);
  FUZZ_EXPECT(catalog != reinterpret_cast<nl_catd>(-1));
  close(fildes);
  return catalog;
}

/* Prints a brief line by a translated text. The C library, watched by the sanitizers, has to be able to print
 * a text that is taken, and to print the same. */
static void print(const std::string& text) {
  int (*const print_text)(char*, size_t, const char*, ...) = snprintf; /* whose formats need not be literals */
  static char block[1 << 16], expected[sizeof block];
  const nl_catd catalog = open_catalog(text);
  auto printed = [&](const char* format) {
    const int length = print_text(expected, sizeof expected, format, 2, 3, 9, 5, 2007, "proc", "disk");
    return length >= int{sizeof block} || std::strcmp(block, expected) == 0; /* or it went out in pieces */
  };
  std::memset(block, 0, sizeof block);
  zk_buffer_report(block, sizeof block);
  zk_print_message(stdout, catalog, ZK_MSG_BRIEF_LINE,
                   {zk_msg_arg(2), zk_msg_arg(3), zk_msg_arg(9), zk_msg_arg(5), zk_msg_arg(2007), zk_msg_arg("proc"),
                    zk_msg_arg("disk")});
  FUZZ_EXPECT(printed(zk_mesgtbl_zkview_cmd[ZK_MSG_BRIEF_LINE]) || printed(text.c_str()));
  catclose(catalog);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const std::string contents(data + 2, data + size);
  describe(data[0], data[1], contents);
  print(contents.c_str());
  return 0;
}
