/* SPDX-License-Identifier: MIT */
/* zk_header.cpp - reads the control header of an Error Stack and checks it, as a reader and as a recorder. */
#include "zk_header.h"

#include "zk_damage.h"
#include "zk_io.h"

using header_t = zk_estack_v1_header_t;

static bool is_size(int32_t size) {
  return size >= ZK_STACK_SIZE_MIN && size <= ZK_STACK_SIZE_MAX;
}

/* ---- For a reader -------------------------------------------------------------------------------------------------- */

static bool is_offset(int32_t offset) {
  /* An offset below zero passes: the lower bound is taken unsigned. */
  return offset <= ZK_STACK_SIZE_MAX && static_cast<uint32_t>(offset) >= ZK_STACK_RECORDS_MIN;
}

/* What a stack of version one must hold. */
static zk_damage_t check_header(const zk_trace_t& trace, const header_t& header) {
  const struct {
    bool is_good;
    const char* name;
    int32_t value;
    zk_damage_t damage;
  } fields[] = {{is_size(header.file_size), "File size", header.file_size, ZK_BAD_FILE_SIZE},
                {is_offset(header.write_pos), "Current recording position", header.write_pos, ZK_BAD_WRITE_POS},
                {is_offset(header.earliest_rec), "Earliest record location", header.earliest_rec, ZK_BAD_EARLIEST_REC},
                {is_offset(header.records_start), "Initial record offset", header.records_start, ZK_BAD_RECORDS_START}};
  for (const auto& field : fields) {
    if (field.is_good) continue;
    /* The lower bound named for the offsets is that of the file size; the one that counts is below it. */
    zk_failed(trace, ZELK_FILE_CORRUPT,
              "%s %d is beyond accpetable range of %d and %d\nAssuming file is corrupted\nReturning %s(%d)\n",
              field.name, field.value, int{ZK_STACK_SIZE_MIN}, int{ZK_STACK_SIZE_MAX});
    return field.damage;
  }
  if (header.has_wrapped <= 1) return {};
  zk_failed(trace, ZELK_FILE_CORRUPT,
            "File wrap indicator 0x%x is not one of 0x%x or 0x%x\nAssuming file is corrupted\nReturning %s(%d)\n",
            static_cast<unsigned int>(header.has_wrapped), 1U, 0U);
  return ZK_BAD_HAS_WRAPPED;
}

/* Reads the version code and the header, checks them and positions the file. Returns what is wrong. */
static zk_damage_t read_checked(const zk_trace_t& trace, int fildes, int32_t* version, header_t* header) {
  auto failed = [&](const char* operation, int32_t position, const zk_damage_t& damage) {
    zk_failed(trace, ZELK_FILE_CORRUPT, "Cannot %s position %d in stack - error code %d\nReturning %s(%d)\n", operation,
              position, errno);
    return damage;
  };
  if (lseek(fildes, 0, SEEK_SET) == -1) return failed("lseek to", 0, ZK_UNREADABLE_HEADER);
  if (zk_read(fildes, version, sizeof *version) < sizeof *version && errno != 0)
    return failed("read from", 0, ZK_UNREADABLE_HEADER);
  if (zk_read(fildes, header, sizeof *header) < sizeof *header && errno != 0)
    return failed("read from", ZK_STACK_HEADER_POS, ZK_UNREADABLE_HEADER);

  if (!zk_is_known_version(*version)) {
    zk_failed(trace, ZELK_FILE_CORRUPT,
              "Version code from record (0x%x) is not supported\nAssuming file is corrupted\nReturning %s(%d)\n",
              static_cast<unsigned int>(*version));
    return ZK_BAD_STACK_VERSION;
  }
  const zk_damage_t damage = *version == 0 ? check_header(trace, *header) : zk_damage_t{};
  if (damage.reason != nullptr) return damage;
  if (lseek(fildes, header->earliest_rec, SEEK_SET) == -1)
    return failed("lseek to", header->earliest_rec, ZK_BAD_EARLIEST_REC);
  return {};
}

zk_damage_t zk_read_good_header(const zk_trace_t& trace, int fildes, int* stack_version, header_t* hbuf) {
  *stack_version = 0;
  *hbuf = {};
  const zk_damage_t damage = read_checked(trace, fildes, stack_version, hbuf);
  if (damage.reason != nullptr) zk_report_damage(trace, damage);
  return damage;
}

void zk_trace_good_header(const zk_trace_t& trace, const header_t& header) {
  zk_trace(trace, "Positioning file pointer to offset %d", header.earliest_rec);
}

int zk_read_header(int debug_active, const char* debug_file, int fildes, int* stack_version, header_t* hbuf) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  int version;
  header_t header;
  if (fildes == -1) return zk_failed(trace, ZELK_INV_PARAM3, "fildes value %d seems invalid\nReturning %s(%d)", fildes);
  if (hbuf == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, "hbuf ptr value seems invalid\nReturning %s(%d)");
  if (zk_read_good_header(trace, fildes, &version, &header).reason != nullptr) return ZELK_FILE_CORRUPT;
  zk_trace_good_header(trace, header);
  *stack_version = version;
  *hbuf = header;
  return ZELK_SUCCESS;
}

/* ---- For a recorder ------------------------------------------------------------------------------------------------ */

/* A reader makes the best of what it finds; a recorder writes where the header says, and must not overwrite what a reader
 * still shows, nor leave its record where no reader comes. So it accepts only what a recorder leaves. */
zk_damage_t zk_check_header_for_recorder(int32_t version, const header_t& header, int32_t size) {
  auto is_in_area = [&](int32_t offset) { return offset >= header.records_start && offset <= header.file_size; };
  if (version != 0) return ZK_NOT_FOR_RECORDING;
  if (!is_size(header.file_size)) return ZK_BAD_FILE_SIZE;
  if (header.file_size != size) return ZK_OTHER_SIZE;
  if (header.records_start < ZK_STACK_RECORDS_MIN || !is_in_area(header.records_start)) return ZK_BAD_RECORDS_START;
  if (!is_in_area(header.write_pos)) return ZK_BAD_WRITE_POS;
  if (!is_in_area(header.earliest_rec)) return ZK_BAD_EARLIEST_REC;
  if (header.has_wrapped > 1) return ZK_BAD_HAS_WRAPPED;
  if (header.has_wrapped == 1 && header.write_pos == header.records_start) return ZK_EMPTY_LAP;
  if (header.has_wrapped == 0 && header.earliest_rec > header.write_pos) return ZK_EARLIEST_BEHIND;
  return {};
}
