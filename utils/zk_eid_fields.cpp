/* SPDX-License-Identifier: MIT */
/* zk_eid_fields.cpp - the fields of an Error ID, each with a "get" routine from the value to the field's text and a
 * "conv" routine back. */
#include <dirent.h>
#include <sys/stat.h>

#include <cerrno>

#include "zk_eid_layout.h"
#include "zk_trace.h"

/* The header digit is version bits and location bits. */
constexpr int VERSION_MAX = 2;
constexpr unsigned int VERSION_BITS = 0x38;
constexpr unsigned int VERSION_TWO_BITS = 8; /* of version one: 0 */
constexpr unsigned int LOCATION_BITS = 7;

/* What is missing, and for which argument. */
static constexpr char NULL_ARGUMENT[] = "Called with a NULL %s for %s\nReturning %s(%d) to caller\n";

constexpr uint64_t INODE_MASK = 0xFFFFFFFFF; /* the 36 bits that an entry can carry */
constexpr uint64_t MICROSECONDS_MAX = 999999;

void zk_write_time(const struct timeval& time, char* field) {
  zk_write_digits(static_cast<uint64_t>(time.tv_sec), field, ZK_SECONDS_WIDTH);
  zk_write_digits(static_cast<uint64_t>(time.tv_usec), field + ZK_SECONDS_WIDTH, ZK_MICROSECONDS_WIDTH);
}

/* ---- Header -------------------------------------------------------------------------------------------- */

int zk_get_base_64_hdr(int debug_active, const char* debug_file, int version_id, int location_mask, char* hdr64rep) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (version_id < 1 || version_id > VERSION_MAX)
    return zk_failed(trace, ZELK_INV_PARAM3,
                     "Called with an invalid ZELK source code version of %d\nHighest supported version %d\n"
                     "Returning %s(%d) to the caller",
                     version_id, VERSION_MAX);
  if (location_mask < ZELK_LOCATION_TEMPLATE || location_mask > ZELK_LOCATION_SYSLOG)
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "Called with an invalid location mask of 0x%x\nHighest supported 0x%x\n"
                     "Returning %s(%d) to the caller\n",
                     static_cast<unsigned int>(location_mask), static_cast<unsigned int>(ZELK_LOCATION_SYSLOG));
  if (hdr64rep == nullptr) return zk_failed(trace, ZELK_INV_PARAM5, NULL_ARGUMENT, "pointer", "hdr64rep");

  const unsigned int version = version_id == 1 ? 0 : VERSION_TWO_BITS;
  const unsigned int location = static_cast<unsigned int>(location_mask);
  const unsigned int code = version | location;
  const std::array<char, 2> digit = {base64_table[code], '\0'};
  std::memcpy(hdr64rep, digit.data(), code == 0 ? 1 : 2); /* the digit 0 comes without a terminator */
  return zk_succeeded(trace,
                      "Combined version code 0x%x and location 0x%x into header code 0x%x\nBase-64 equiv: %s\n"
                      "Returning %s(%d) to the caller\n",
                      version, location, code, digit.data());
}

int zk_conv_base_64_hdr(int debug_active, const char* debug_file, const char* hdr64rep, int* version_id,
                        int* location_mask) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (hdr64rep == nullptr || hdr64rep[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, NULL_ARGUMENT, "value", "hdr64rep");
  if (version_id == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, NULL_ARGUMENT, "value", "version_id");
  if (location_mask == nullptr) return zk_failed(trace, ZELK_INV_PARAM5, NULL_ARGUMENT, "value", "location_mask");

  const uint64_t value = zk_a64l(hdr64rep);
  const unsigned int code = static_cast<unsigned int>(value);
  if (value > (VERSION_BITS | LOCATION_BITS))
    return zk_failed(trace, ZELK_UNSUPPORTED,
                     "Header code %s converted to value 0x%x, outside of supported range\n"
                     "Returning %s(%d) to the caller\n",
                     hdr64rep, code);

  const unsigned int version = code & VERSION_BITS;
  if (version > VERSION_TWO_BITS)
    return zk_failed(trace, ZELK_UNSUPPORTED,
                     "Unsupported ZELK Version 0x%x detected\nMaximum supported 0x%x\nReturning %s(%d)", version,
                     VERSION_TWO_BITS);
  *version_id = version == 0 ? 1 : 2;

  const unsigned int location = code & LOCATION_BITS;
  if (location > ZELK_LOCATION_SYSLOG)
    return zk_failed(trace, ZELK_UNSUPPORTED,
                     "Unsupported record location 0x%x detected\nMaximum supported 0x%x\nReturning %s(%d)", location,
                     static_cast<unsigned int>(ZELK_LOCATION_SYSLOG));
  *location_mask = static_cast<int>(location);

  return zk_succeeded(trace,
                      "Header code %s translated into version %d and location 0x%x\nReturning %s(%d) to the caller\n",
                      hdr64rep, *version_id, location);
}

/* ---- I-node of an Error Stack -------------------------------------------------------------------------- */

int zk_get_base_64_inode(int debug_active, const char* debug_file, const char* filename, char* inode64rep) {
  static constexpr zk_errno_result_t STAT_RESULTS[] = {
      {EACCES, ZELK_NO_ACCESS}, {ENOENT, ZELK_FILE_MISSING}, {ENOTDIR, ZELK_DIR_MISSING}};
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (filename == nullptr || filename[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, NULL_ARGUMENT, "string", "a file name");
  if (inode64rep == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, NULL_ARGUMENT, "pointer", "inode64rep");

  struct stat status;
  if (stat(filename, &status) != 0)
    return zk_returned(trace, zk_result_of_errno(errno, STAT_RESULTS),
                       "Error trying to get status of file %s\nErrno is %d\n", filename, errno);
  zk_write_digits(status.st_ino, inode64rep, ZK_ENTRY_WIDTH);
  return zk_succeeded(trace, "File %s i-node is %d\nBase-64 representation is %s\nReturning %s(%d) to the caller\n",
                      filename, static_cast<int>(status.st_ino), zk_field_text<ZK_ENTRY_WIDTH>(inode64rep).data());
}

int zk_conv_base_64_inode(int debug_active, const char* debug_file, const char* directory, const char* inode64rep,
                          char* filename_list, int filelist_limit) {
  static constexpr zk_errno_result_t OPENDIR_RESULTS[] = {
      {EACCES, ZELK_DIR_NO_ACCESS}, {ENOENT, ZELK_DIR_MISSING}, {ENOTDIR, ZELK_DIR_MISSING}};
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (directory == nullptr || directory[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, NULL_ARGUMENT, "value", "directory - cannot locate file without it");
  if (inode64rep == nullptr || inode64rep[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM4, NULL_ARGUMENT, "value", "inode64rep - cannot convert to file name");
  if (filename_list == nullptr || filelist_limit <= 0)
    return zk_failed(trace, ZELK_INV_PARAM5, NULL_ARGUMENT, "pointer", "file name list");

  const auto field = zk_field_text<ZK_ENTRY_WIDTH>(inode64rep);
  const uint64_t wanted = zk_a64l(field.data());

  DIR* entries = opendir(directory);
  if (entries == nullptr)
    return zk_returned(trace, zk_result_of_errno(errno, OPENDIR_RESULTS),
                       "Unable to open the directory %s - errno is %d\n", directory, errno);
  int matches = 0;
  const struct dirent* entry;
  while (matches < filelist_limit && (entry = readdir(entries)) != nullptr) {
    if ((static_cast<uint64_t>(entry->d_ino) & INODE_MASK) != wanted) continue;
    char* slot = filename_list + static_cast<size_t>(matches) * ZELK_FILE_SLOT_SIZE;
    memccpy(slot, entry->d_name, '\0', ZELK_FILE_SLOT_SIZE - 1);
    ++matches;
  }
  closedir(entries);

  if (matches == 0)
    return zk_failed(trace, ZELK_FILE_MISSING,
                     "Cannot locate the base-64 i-node %s (decimal %d) in directory %s\n"
                     "Returning %s(%d) to the caller\n",
                     field.data(), static_cast<int>(wanted), directory);
  return zk_succeeded(trace,
                      "%d matches to base-64 i-node %s (decimal %d) found in directory %s\nFirst match: %s\n"
                      "Returning %s(%d) to the caller\n",
                      matches, field.data(), static_cast<int>(wanted), directory, filename_list);
}

/* ---- Error template label ------------------------------------------------------------------------------ */

int zk_get_base_64_templ(int debug_active, const char* debug_file, unsigned int template_id, char* templ64rep) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (templ64rep == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, NULL_ARGUMENT, "pointer", "templ64rep");

  zk_write_digits(template_id, templ64rep, ZK_ENTRY_WIDTH);
  return zk_succeeded(trace, "Converted template ID %d to base-64 value of %s\nReturning %s(%d) to the caller\n",
                      static_cast<int>(template_id), zk_field_text<ZK_ENTRY_WIDTH>(templ64rep).data());
}

int zk_conv_base_64_templ(int debug_active, const char* debug_file, const char* templ64rep, unsigned int* template_id) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (templ64rep == nullptr) return zk_failed(trace, ZELK_INV_PARAM3, NULL_ARGUMENT, "pointer", "templ64rep");
  if (template_id == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "Asked to translate a template ID of 0, which seems invalid\nReturning %s(%d) to the caller");

  const auto field = zk_field_text<ZK_ENTRY_WIDTH>(templ64rep);
  *template_id = static_cast<unsigned int>(zk_a64l(field.data()));
  if (*template_id == 0)
    return zk_failed(trace, ZELK_FAILURE,
                     "Cannot convert base-64 valueof %s to a valid template ID value\n"
                     "Returning %s(%d) to caller\n",
                     field.data());
  return zk_succeeded(trace, "Converted template base-64 value of %s to %d\nReturning %s(%d) to the caller\n",
                      field.data(), static_cast<int>(*template_id));
}

/* ---- Syslog selector ----------------------------------------------------------------------------------- */

int zk_get_base_64_selector(int debug_active, const char* debug_file, int facility, int priority, char* sel64rep) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (facility < 0 || facility > ZK_FACILITY_MAX)
    return zk_failed(trace, ZELK_INV_PARAM3, "facility %d invalid - returning %s(%d)\n", LOG_FAC(facility));
  if (priority < 0 || priority > ZK_PRIORITY_MAX)
    return zk_failed(trace, ZELK_INV_PARAM4, "priority value %d invalid - returning %s(%d)\n", priority);
  if (sel64rep == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM5, "sel64rep pointer 0x0 invalid - returning %s(%d)\n");

  /* Both are written as one more than they are, so that neither digit is the padding. */
  zk_write_digits(static_cast<uint64_t>(LOG_FAC(facility)) + 1, sel64rep, 1);
  zk_write_digits(static_cast<uint64_t>(priority) + 1, sel64rep + 1, ZK_ENTRY_WIDTH - 1);
  return zk_succeeded(trace, "Facility %d and priority %d translated to code \"%s\" - returning %s(%d)",
                      LOG_FAC(facility), priority, zk_field_text<ZK_ENTRY_WIDTH>(sel64rep).data());
}

int zk_conv_base_64_selector(int debug_active, const char* debug_file, const char* sel64rep, int* facility,
                             int* priority) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (sel64rep == nullptr || sel64rep[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, "Selector \"%s\" at location 0x%x appears invalid - returning %s(%d)",
                     sel64rep != nullptr ? sel64rep : "(null)", zk_trace_pointer(sel64rep));
  if (facility == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, "Facility pointer 0x0 invalid - returning %s(%d)");
  if (priority == nullptr) return zk_failed(trace, ZELK_INV_PARAM5, "Priority pointer 0x0 invalid - returning %s(%d)");

  const auto field = zk_field_text<ZK_ENTRY_WIDTH>(sel64rep);
  if (field[0] == ZK_ZERO_DIGIT || field[1] == ZK_ZERO_DIGIT || std::strcmp(field.data() + 2, "....") != 0)
    return zk_failed(trace, ZELK_INV_PARAM3, "Selector \"%s\" invalid - returning %s(%d)", field.data());

  static constexpr char INVALID_VALUE[] = "Selector \"%s\" yielded invalid %s value %d - returning %s(%d)";
  const int facility_number = static_cast<int>(zk_a64l(zk_field_text<1>(field.data()).data())) - 1;
  if (facility_number < 0 || facility_number > LOG_FAC(ZK_FACILITY_MAX))
    return zk_failed(trace, ZELK_INV_PARAM3, INVALID_VALUE, field.data(), "facility", facility_number);
  const int priority_number = static_cast<int>(zk_a64l(field.data() + 1)) - 1;
  if (priority_number < 0 || priority_number > ZK_PRIORITY_MAX)
    return zk_failed(trace, ZELK_INV_PARAM3, INVALID_VALUE, field.data(), "priority", priority_number);

  *facility = facility_number * 8;
  *priority = priority_number;
  return zk_succeeded(trace, "Selector \"%s\" yielded:\n\tFacility %d\tPriority %d\nReturning %s(%d)", field.data(),
                      facility_number, priority_number);
}

void zk_selector_substr(const char* fid, char* selector) {
  constexpr size_t START = offsetof(zk_eid_parts_t, entry);
  if (selector != nullptr && fid[0] != '\0') std::memcpy(selector, fid + START, strnlen(fid + START, ZK_ENTRY_WIDTH));
}

/* ---- Time stamp ---------------------------------------------------------------------------------------- */

int zk_get_base_64_time(int debug_active, const char* debug_file, char* tod64rep, long* seconds) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (tod64rep == nullptr) return zk_failed(trace, ZELK_INV_PARAM3, NULL_ARGUMENT, "parameter", "tod64rep");
  if (seconds == nullptr) return zk_failed(trace, ZELK_INV_PARAM4, NULL_ARGUMENT, "parameter", "seconds");

  struct timeval now = {};
  if (gettimeofday(&now, nullptr) != 0)
    return zk_failed(trace, ZELK_FAILURE, "Cannot obtain current time of day - returning %s(%d) to caller\n");

  zk_write_time(now, tod64rep);
  *seconds = static_cast<long>(now.tv_sec);
  return zk_succeeded(trace,
                      "Time of day value %d secs %d usecs converted to base-64 rep of %s\n"
                      "Returning %s(%d) to caller\n",
                      static_cast<int>(now.tv_sec), static_cast<int>(now.tv_usec),
                      zk_field_text<ZK_TIME_WIDTH>(tod64rep).data());
}

static constexpr char INVALID_TIME[] =
    "%s %s translated to %d - assuming an invalid time rep provided\nReturning %s(%d) to caller\n";

int zk_conv_base_64_time(int debug_active, const char* debug_file, const char* tod64rep, struct timeval* tbuf) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (tod64rep == nullptr || tod64rep[0] == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, NULL_ARGUMENT, "string", "a base-64 TOD");
  if (tbuf == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "No data area provided in tbuf parameter\nReturning %s(%d) to caller\nZELK_INV_PARAM4");

  const auto field = zk_field_text<ZK_TIME_WIDTH>(tod64rep);
  const auto seconds_field = zk_field_text<ZK_SECONDS_WIDTH>(field.data());
  const auto microseconds_field = zk_field_text<ZK_MICROSECONDS_WIDTH>(field.data() + ZK_SECONDS_WIDTH);
  const uint64_t seconds = zk_a64l(seconds_field.data());
  const uint64_t microseconds = zk_a64l(microseconds_field.data());
  *tbuf = {};
  if (seconds == 0)
    return zk_failed(trace, ZELK_INV_FID, INVALID_TIME, "Secs", seconds_field.data(), static_cast<int>(seconds));
  if (microseconds > MICROSECONDS_MAX)
    return zk_failed(trace, ZELK_INV_FID, INVALID_TIME, "Usecs", microseconds_field.data(),
                     static_cast<int>(microseconds));
  tbuf->tv_sec = static_cast<time_t>(seconds);
  tbuf->tv_usec = static_cast<suseconds_t>(microseconds);
  return zk_succeeded(trace, "Time base-64 rep of %s converted to %d secs %d usecs\nReturning %s(%d) to caller\n",
                      field.data(), static_cast<int>(seconds), static_cast<int>(microseconds));
}
