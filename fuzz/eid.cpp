/* SPDX-License-Identifier: MIT */
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
  if (zk_conv_base_64_templ(1, trace, text, &label) == ZELK_SUCCESS) {
    zk_get_base_64_templ(1, trace, label, again);
    FUZZ_EXPECT(static_cast<unsigned int>(zk_a64l(again)) == label);
  }
  for (char type : {'.', '/'}) zk_conv_ipaddr(1, trace, text, type, address);
  zk_is_addr_ipv6_type(text);
  if (zk_conv_base_64_time(1, trace, text, &time) == ZELK_SUCCESS)
    FUZZ_EXPECT(time.tv_sec > 0 && time.tv_usec >= 0 && time.tv_usec < 1000000);
  if (zk_conv_base_64_selector(1, trace, text, &first, &second) == ZELK_SUCCESS) {
    zk_get_base_64_selector(1, trace, first, second, again);
    FUZZ_EXPECT(std::strncmp(again, text, 6) == 0);
  }
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  char* fid = strndup(reinterpret_cast<const char*>(data), size);
  decode(fuzz_trace(), fid);
  int fildes = -1;
  if (zk_open_stack_with_fid(1, fuzz_trace(), &fildes, fid, reinterpret_cast<nl_catd>(-1)) == ZELK_SUCCESS)
    close(fildes);
  free(fid);
  return 0;
}
