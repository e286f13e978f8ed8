/* recorder.cpp - the input is an Error Stack that a recorder is given: it goes on, and the stack can then be shown, or it
 * leaves the stack alone. */
#include "fuzz.h"
#include "qx_record.h"
#include "zk_int.h"
#include "zk_msg.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static char block[1 << 16];
  std::string bytes(data, data + size);
  /* What no recorder accepts is of little interest: most inputs get a size that is right. */
  const int32_t length = static_cast<int32_t>(size);
  if (size % 4 != 0 && size >= ZK_STACK_RECORDS_MIN) bytes.replace(16, 4, reinterpret_cast<const char*>(&length), 4);
  const int fildes = fuzz_file(bytes);
  const std::string path = fuzz_path(fildes);
  zk_buffer_report(block, sizeof block);

  zk_recorder_t* recorder = nullptr;
  int result = zk_open_recorder(0, nullptr, path.c_str(), &recorder);
  const std::string details(size % 1200, 'd');
  zk_incident_t incident = {};
  incident.default_message = "recorded";
  incident.details = details.c_str();
  zk_eid_t eid = "";
  for (int number = 0; result == 0 && number < 20; ++number) {
    result = zk_record_incident(0, nullptr, recorder, &incident, eid);
    if (result != 0) {
      FUZZ_EXPECT(number == 0 || result == ZELK_INV_RECLEN);
      break;
    }
    for (int all : {0, 1}) FUZZ_EXPECT(zk_dump_stack(0, nullptr, 0, all, nullptr, 0, fildes, ZK_NO_CATALOG) == 0);
    FUZZ_EXPECT(zk_dump_stack(0, nullptr, 0, 0, eid, 0, fildes, ZK_NO_CATALOG) == 0);
  }
  zk_close_recorder(recorder);
  const std::string left = fuzz_contents(fildes);
  FUZZ_EXPECT(*eid != '\0' || left == bytes);
  return 0;
}
