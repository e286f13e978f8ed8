/* eid.cpp - the input is an Error ID, which is decoded and searched for. */
#include <cstring>

#include "fuzz.h"
#include "zk_int.h"

/* Every routine gets the whole text, whatever its length, in memory that ends with it. */
static void decode(const char* trace, const char* text) {
  int local = 0, version = 0, location = 0, ipv6 = 0, first = 0, second = 0;
  unsigned int label = 0;
  timeval time = {};
  char address[16], list[2 * ZELK_FILE_SLOT_SIZE] = {}, again[8] = {};

  zk_decode_eid(1, trace, text, &local, &version, &location, list, &label, &time, address, &ipv6);
  zk_decode_eid_2(1, trace, text, &local, &version, &location, list, 2, &label, &first, &second, &time, address, &ipv6);
  zk_conv_base_64_hdr(1, trace, text, &version, &location);
  zk_conv_base_64_inode(1, trace, "/", text, list, 2);
  zk_conv_base_64_templ(1, trace, text, &label);
  for (char type : {'.', '/'}) zk_conv_ipaddr(1, trace, text, type, address);
  zk_is_addr_ipv6_type(text);
  if (zk_conv_base_64_time(1, trace, text, &time) == ZELK_SUCCESS)
    FUZZ_EXPECT(time.tv_sec > 0 && time.tv_usec >= 0 && time.tv_usec < 1000000);
  if (zk_conv_base_64_selector(1, trace, text, &first, &second) == ZELK_SUCCESS) {
    zk_get_base_64_selector(1, trace, first, second, again);
    FUZZ_EXPECT(std::strncmp(again, text, 6) == 0);
  }
}

/* A stack whose only record has the Error ID `fid` and is otherwise empty. */
static int stack_of(const char* fid) {
  constexpr int32_t START = ZK_STACK_RECORDS_MIN, SIZE = ZK_STACK_SIZE_MIN, LENGTH = 200;
  constexpr int32_t header[] = {0, START, START, START, SIZE, 0, LENGTH};
  std::string bytes(reinterpret_cast<const char*>(header), sizeof header);
  bytes.resize(START + ZK_REC_LENGTH_SIZE + LENGTH);
  std::strncpy(&bytes[START + ZK_REC_EID_POS], fid, ZELK_EID_LENGTH);
  return fuzz_file(bytes);
}

/* Of two candidates the one that holds the record is found. */
static void search(const char* trace, const char* fid) {
  const nl_catd catalog = reinterpret_cast<nl_catd>(-1);
  const int other = stack_of(""), own = stack_of(fid);
  char list[2][ZELK_FILE_SLOT_SIZE] = {}, *found = nullptr;
  int fildes = -1;
  fuzz_path(other).copy(list[0], ZELK_FILE_SLOT_SIZE);
  fuzz_path(own).copy(list[1], ZELK_FILE_SLOT_SIZE);
  zk_scan_files_for_fid(1, trace, fid, list[0], 2, nullptr, &found, catalog);
  FUZZ_EXPECT(found == (*fid != '\0' ? list[1] : nullptr));
  if (zk_open_stack_with_fid(1, trace, &fildes, fid, catalog) == ZELK_SUCCESS) close(fildes);
  close(other);
  close(own);
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char* fid = strndup(reinterpret_cast<const char*>(data), size);
  decode(fuzz_trace(), fid);
  search(fuzz_trace(), fid);
  free(fid);
  return 0;
}
