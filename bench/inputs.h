/* SPDX-License-Identifier: MIT */
/* inputs.h - the stacks that are measured, made in memory. */
#pragma once

#include <cstdint>
#include <string>

#include "qx_cu.h"
#include "qx_zelk.h"
#include "zk_record_image.h"

template <typename Value>
std::string image(Value value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

/* When a record was recorded: one every seven seconds. */
inline uint32_t bench_time(int number) {
  return 1790000000U + 7U * static_cast<uint32_t>(number);
}

/* An Error ID of that time and of 192.0.2.2. */
inline std::string bench_eid(int number) {
  char seconds[8];
  zk_l64a_r(bench_time(number), seconds, 6);
  std::string eid = std::string("7J4EI..") + seconds + "....06...1";
  eid.resize(ZELK_EID_LENGTH, '.');
  return eid;
}

/* A record of usual size, 186 bytes or so; `cause` below 0 for none. */
inline std::string bench_record(int number, int process, int cause) {
  const std::string related = cause >= 0 ? bench_eid(cause) : "";
  char disk[] = "disk07";
  cu_error_arg_t arguments[2] = {};
  arguments[0].cu_arg_type = CU_ERROR_ARG_CHAR_STR;
  arguments[0].cu_arg_value.cu_arg_char_str = disk;
  arguments[1].cu_arg_type = CU_ERROR_ARG_INT;
  arguments[1].cu_arg_value.cu_arg_int = 85;
  const zk_incident_t incident = {
      "stn_diskmon", process,   1, 7,          "/usr/src/stn/disk.c", "1.31", "stn.node", 97, "", 1, 1,
      "%1$s: %2$d",  arguments, 2, "state ok", related.c_str()};
  zk_record_image_t made;
  zk_make_record_image(incident, ZK_REC_LISTED_MAX, &made);
  zk_stamp_record_image(&made, bench_eid(number).c_str(), static_cast<int32_t>(bench_time(number)));
  return {made.bytes.data(), made.size};
}

/* A stack that never wrapped, of those records: version one when it fits, else of a later format, which may be of any
 * size. */
inline std::string bench_stack(const std::string& records) {
  const bool fits = ZK_STACK_RECORDS_MIN + records.size() <= ZK_STACK_SIZE_MAX;
  zk_estack_v1_header_t header = {};
  header.records_start = header.earliest_rec = ZK_STACK_RECORDS_MIN;
  header.write_pos = static_cast<int32_t>(ZK_STACK_RECORDS_MIN + records.size());
  header.file_size = ZK_STACK_SIZE_MAX;
  std::string stack = image(int32_t{fits ? 0 : 8}) + image(header) + records;
  if (fits) stack.resize(ZK_STACK_SIZE_MAX);
  return stack;
}

inline std::string full_stack() {
  std::string records;
  for (int number = 0;; ++number) {
    std::string next = bench_record(number, 1000 + number % 7, number % 3 == 0 ? -1 : number - 1);
    if (ZK_STACK_RECORDS_MIN + records.size() + next.size() > ZK_STACK_SIZE_MAX) return bench_stack(records);
    records += next;
  }
}
