/* SPDX-License-Identifier: MIT */
/* recorder.cpp - the input is an Error Stack that a recorder is given: it goes on, and the stack can then be shown, or it
 * leaves the stack alone. */
#include "fuzz.h"
#include "qx_record.h"
#include "zk_msg.h"

/* Results of reading the stack for the grouped views: by process, by relation. */
static std::pair<int, int> read_groups(int fildes) {
  zk_proc_list_t processes = {};
  zk_stack_rec_t* groups = nullptr;
  const int by_process = zk_read_stack(0, nullptr, 0, fildes, ZK_NO_CATALOG, &processes, nullptr);
  const int by_relation = zk_read_stack(0, nullptr, 1, fildes, ZK_NO_CATALOG, nullptr, &groups);
  fuzz_release(processes.next);
  fuzz_release(groups);
  return {by_process, by_relation};
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static char block[1 << 16];
  std::string bytes(data, data + size);
  /* What no recorder accepts is of little interest: most inputs get a size that is right. */
  const int32_t length = static_cast<int32_t>(size);
  if (size % 4 != 0 && size >= ZK_STACK_RECORDS_MIN) bytes.replace(16, 4, reinterpret_cast<const char*>(&length), 4);
  const int fildes = fuzz_file(bytes);
  const std::string path = fuzz_path(fildes);
  zk_buffer_report(block, sizeof block);

  const auto groups_before = read_groups(fildes);
  zk_recorder_t* recorder = nullptr;
  int result = zk_open_recorder(0, nullptr, path.c_str(), &recorder);
  const std::string details(size % 1200, 'd');
  zk_incident_t incident = {};
  incident.default_message = "recorded";
  incident.details = details.c_str();
  zk_eid_t eid = "";
  int recorded = 0;
  while (result == 0 && recorded < 20) {
    result = zk_record_incident(0, nullptr, recorder, &incident, eid);
    if (result != 0) break;
    ++recorded;
    for (int all : {0, 1}) FUZZ_EXPECT(zk_dump_stack(0, nullptr, 0, all, nullptr, 0, fildes, ZK_NO_CATALOG) == 0);
    FUZZ_EXPECT(zk_dump_stack(0, nullptr, 0, 0, eid, 1, fildes, ZK_NO_CATALOG) == 0); /* it is found */
    /* Longer records than a recorder's own end a grouped view, but none that showed the stack before fails now. */
    const auto groups = read_groups(fildes);
    FUZZ_EXPECT(groups_before.first != 0 || groups.first == 0);
    FUZZ_EXPECT(groups_before.second != 0 || groups.second == 0);
  }
  zk_close_recorder(recorder);
  const std::string left = fuzz_contents(fildes);
  FUZZ_EXPECT(recorded == 0 ? left == bytes : left.size() == bytes.size());
  FUZZ_EXPECT(recorded == 0 || result == 0 || result == ZELK_INV_RECLEN); /* what has been taken is not damaged then */
  return 0;
}
