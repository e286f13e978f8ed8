/* SPDX-License-Identifier: MIT */
/* inputs.h - the stacks that are measured, made in memory. */
#ifndef INPUTS_H
#define INPUTS_H

#include <cstdint>
#include <string>

#include "qx_cu.h"
#include "qx_zelk.h"
#include "zk_layout.h"

template <typename Value>
std::string image(Value value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

inline std::string bench_eid(int number) {
  std::string eid = "7J4EI..3KW/f/" + std::to_string(number);
  eid.resize(ZELK_EID_LENGTH, '.');
  return eid;
}

/* A record of usual size, 186 bytes or so; `cause` below 0 for none. Every seven seconds one is recorded. */
inline std::string bench_record(int number, int process, int cause) {
  constexpr char NUL = '\0';
  std::string related = cause >= 0 ? bench_eid(cause) : "";
  related.resize(ZELK_EID_SIZE);
  std::string body = image(int32_t{0}) + bench_eid(number) + NUL + related + image(int32_t{1790000000 + 7 * number}) +
                     "stn_diskmon" + NUL + image(int32_t{process}) + image(int32_t{1}) + image(int32_t{7}) +
                     "/usr/src/stn/disk.c" + NUL + "1.31" + NUL + "stn.node" + NUL + image(int32_t{97}) + NUL +
                     image(int32_t{1}) + image(int32_t{1}) + "%1$s: %2$d" + NUL + image(int32_t{2}) +
                     image(int32_t{CU_ERROR_ARG_CHAR_STR}) + "disk07" + NUL + image(int32_t{CU_ERROR_ARG_INT}) +
                     image(int64_t{85}) + "state ok" + NUL;
  return image(static_cast<int32_t>(body.size())) + body;
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

#endif
