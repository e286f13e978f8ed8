/* recorder.cpp - the input is the size of the details to record, in two bytes, and an Error Stack file that a recorder is
 * to go on with. */
#include "fuzz.h"
#include "qx_record.h"
#include "zk_msg.h"

/* Results of the grouped views: by process, by relation. */
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
  if (size < 2) return 0;
  const std::string before(data + 2, data + size), details(data[0] + 256U * (data[1] % 8), 'd');
  const int fildes = fuzz_file(before);
  const auto groups = read_groups(fildes);
  zk_recorder_t* recorder = nullptr;
  zk_incident_t incident = {};
  zk_eid_t eid = "";
  int recorded = 0;
  int result = zk_open_recorder(0, nullptr, fuzz_path(fildes).c_str(), &recorder);
  for (; result == ZELK_SUCCESS && recorded < 20; recorded += result == ZELK_SUCCESS) {
    incident.details = recorded % 3 == 0 ? "" : details.c_str();
    result = zk_record_incident(0, nullptr, recorder, &incident, eid);
    if (result != ZELK_SUCCESS) break;

    /* What has been taken is shown from then on, and no view that showed the stack before fails now. */
    FUZZ_EXPECT(zk_dump_stack(0, nullptr, 0, 1, nullptr, 0, fildes, ZK_NO_CATALOG) == ZELK_SUCCESS);
    FUZZ_EXPECT(zk_dump_stack(0, nullptr, 0, 0, eid, 1, fildes, ZK_NO_CATALOG) == ZELK_SUCCESS);
    const auto groups_now = read_groups(fildes);
    FUZZ_EXPECT(groups.first != ZELK_SUCCESS || groups_now.first == ZELK_SUCCESS);
    FUZZ_EXPECT(groups.second != ZELK_SUCCESS || groups_now.second == ZELK_SUCCESS);
  }
  zk_close_recorder(recorder);
  FUZZ_EXPECT(result == ZELK_SUCCESS || result == ZELK_FILE_CORRUPT || result == ZELK_INV_RECLEN);
  FUZZ_EXPECT(recorded == 0 || result != ZELK_FILE_CORRUPT); /* a stack that has been taken stays sound */
  const std::string after = fuzz_contents(fildes);
  FUZZ_EXPECT(recorded > 0 ? after.size() == before.size() : after == before);
  return 0;
}
