/* SPDX-License-Identifier: MIT */
/* zk_damage.h - what is wrong with an Error Stack, and the one way in which it gets into a trace. */
#pragma once

#include "zk_layout.h"
#include "zk_trace.h"

struct zk_damage_t {
  off_t offset;       /* of the record's length word, or of the field of the control header */
  const char* reason; /* a phrase in English, fixed; null for no damage */
};

/* Damage of the control header. */
constexpr zk_damage_t zk_damaged_field(size_t field, const char* reason) {
  return {ZK_STACK_HEADER_POS + static_cast<off_t>(field), reason};
}
inline constexpr zk_damage_t ZK_UNREADABLE_HEADER = {0, "the control header cannot be read"};
inline constexpr zk_damage_t ZK_BAD_STACK_VERSION = {0, "the stack version is not supported"};
inline constexpr zk_damage_t ZK_BAD_RECORDS_START =
    zk_damaged_field(offsetof(zk_estack_v1_header_t, records_start), "the first record is out of range");
inline constexpr zk_damage_t ZK_BAD_WRITE_POS =
    zk_damaged_field(offsetof(zk_estack_v1_header_t, write_pos), "the recording position is out of range");
inline constexpr zk_damage_t ZK_BAD_EARLIEST_REC =
    zk_damaged_field(offsetof(zk_estack_v1_header_t, earliest_rec), "the earliest record is out of range");
inline constexpr zk_damage_t ZK_BAD_FILE_SIZE =
    zk_damaged_field(offsetof(zk_estack_v1_header_t, file_size), "the file size is out of range");
inline constexpr zk_damage_t ZK_BAD_HAS_WRAPPED =
    zk_damaged_field(offsetof(zk_estack_v1_header_t, has_wrapped), "the wrap indicator is neither 0 nor 1");

/* Damage of a record. */
inline constexpr char ZK_BAD_LENGTH[] = "the record's length is out of range";
inline constexpr char ZK_CUT_SHORT[] = "the record is cut short";
inline constexpr char ZK_BAD_RECORD_VERSION[] = "the record's version is not supported";
inline constexpr char ZK_BAD_FIELD[] = "a text or an argument of the record is damaged";
inline constexpr char ZK_NOT_FOR_LISTS[] = "the record does not fit into a grouped view";

/* What only a recorder refuses. */
inline constexpr zk_damage_t ZK_NOT_REGULAR = {0, "it is not a regular file"};
inline constexpr zk_damage_t ZK_NOT_FOR_RECORDING = {0, "the stack version is not one for recording"};
inline constexpr zk_damage_t ZK_OTHER_SIZE = {ZK_BAD_FILE_SIZE.offset, "the file has another size"};
inline constexpr zk_damage_t ZK_EMPTY_LAP = {ZK_BAD_WRITE_POS.offset, "the lap begins without a record"};
inline constexpr zk_damage_t ZK_EARLIEST_BEHIND = {ZK_BAD_EARLIEST_REC.offset,
                                                   "the earliest record is behind the recording position"};
inline constexpr char ZK_OTHER_END[] = "the records do not end at the recording position";

/* Traces the damage that ends a view or keeps a recorder away, beside what the routine that found it says of its own
 * result. */
inline void zk_report_damage(const zk_trace_t& trace, const zk_damage_t& damage) {
  zk_trace(trace, "Stack is damaged at offset %lld: %s", static_cast<long long>(damage.offset), damage.reason);
}
