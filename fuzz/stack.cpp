/* SPDX-License-Identifier: MIT */
/* stack.cpp - the input is an Error Stack file; it goes through every view. */
#include <algorithm>

#include "fuzz.h"
#include "zk_msg.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static char block[1 << 16]; /* small: filling it is tried too */
  const nl_catd catalog = reinterpret_cast<nl_catd>(-1);
  const std::string bytes(data, data + size);
  const std::string fid = bytes.substr(std::min(size, size_t{ZK_STACK_RECORDS_MIN + ZK_REC_EID_POS}), ZELK_EID_LENGTH);
  const int traced = size % 16 == 1; /* a trace takes its time */
  const char* trace = fuzz_trace();
  const int fildes = fuzz_file(bytes);

  zk_buffer_report(block, sizeof block);
  zk_dump_stack(traced, trace, 1, 0, nullptr, 0, fildes, catalog);
  zk_dump_stack(traced, trace, 0, 0, fid.c_str(), 1, fildes, catalog);
  zk_proc_list_t processes = {};
  zk_stack_rec_t* groups = nullptr;
  const int by_process = zk_read_stack(traced, trace, 0, fildes, catalog, &processes, nullptr);
  const int by_relation = zk_read_stack(traced, trace, 1, fildes, catalog, nullptr, &groups);
  for (int all : {0, 1}) {
    zk_dump_stack(traced, trace, 0, all, nullptr, 0, fildes, catalog);
    zk_dump_stack(traced, trace, 0, all, fid.c_str(), 0, fildes, catalog);
    zk_display_recs_by_proc(traced, trace, &processes, all, catalog);
    zk_display_recs_by_rel(traced, trace, groups, all, catalog);
  }
  const bool agree = fuzz_release(processes.next) == fuzz_release(groups);
  FUZZ_EXPECT(agree || by_process != ZELK_SUCCESS || by_relation != ZELK_SUCCESS);
  FUZZ_EXPECT(zk_flush_report() == 0);
  FUZZ_EXPECT(lseek(fildes, 0, SEEK_CUR) == 0 && fuzz_contents(fildes) == bytes); /* a stack is only read */
  return 0;
}
