/* SPDX-License-Identifier: MIT */
/* record_once.c - C11: records an incident into a new stack of the name given, and shows its Error ID. */
#include <qx_record.h>
#include <stdio.h>

int main(int argc, char** argv) {
  if (argc != 2 || zk_create_stack(0, NULL, argv[1], 8192) != ZELK_SUCCESS) return 1;
  zk_recorder_t* recorder = NULL;
  if (zk_open_recorder(0, NULL, argv[1], &recorder) != ZELK_SUCCESS) return 1;
  const zk_incident_t incident = {.default_message = "Recorded by a consumer.", .product = "consumer"};
  zk_eid_t eid;
  const int result = zk_record_incident(0, NULL, recorder, &incident, eid);
  zk_close_recorder(recorder);
  if (result != ZELK_SUCCESS) return 1;
  puts(eid);
  return 0;
}
