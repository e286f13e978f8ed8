/* zkprint.cpp - the reports: one record brief or in full, the control header, the dump of a stack, and the
 * search for an Error ID. */
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "zk_int.h"
#include "zk_msg.h"
#include "zk_trace.h"
#include "zkrecord.h"
#include "zkwalk.h"

static constexpr int DESCRIPTION_COLUMN = 30; /* of a brief line, behind the time and the process name */

/* A record whose head has been read. */
struct opened_record {
  void* cursor;
  size_t remaining;
  zk_eid_t eid;
};

/* The head that both reports have in common, traced as `routine`. */
static int open_record(int debug_active, const char* debug_file, const char* routine, void* record,
                       opened_record* opened) {
  if (record == nullptr) {
    ZK_RETURN_AS(routine, ZELK_INV_PARAM4,
                 "Called with null ZELK Stack Record pointer\nreturning %s(%d) to the caller");
  }
  int32_t length = zk_record_length(record);
  if (length <= 0) {
    ZK_RETURN_AS(routine, ZELK_INV_RECLEN, "Length of record (%d) appears invalid\nReturning %s(%d) to caller", length);
  }
  opened->cursor = static_cast<char*>(record) + ZK_REC_LENGTH_SIZE;
  opened->remaining = static_cast<size_t>(length);
  int32_t version = zk_take_int(&opened->cursor, &opened->remaining);
  if (!zk_is_known_version(version)) {
    ZK_RETURN_AS(routine, ZELK_INV_RECVERSN, "Record version (0x%x) appears invalid\nReturning %s(%d) to caller",
                 static_cast<unsigned int>(version));
  }
  zk_take_eid(&opened->cursor, &opened->remaining, opened->eid);
  return ZELK_SUCCESS;
}

/* Whether a report for the Error ID `wanted`, all when it is null or empty, shows the record. */
static bool is_selected(const char* wanted, const zk_eid_t eid) {
  return wanted == nullptr || *wanted == '\0' || (*eid != '\0' && std::strncmp(eid, wanted, ZELK_EID_LENGTH) == 0);
}

static std::tm local_time(time_t seconds) {
  std::tm parts = {};
  tzset();
  localtime_r(&seconds, &parts);
  return parts;
}

static int skip_strings(int debug_active, const char* debug_file, opened_record* record, int count) {
  std::array<char, ZK_REC_STRING_MAX + 1> skipped;
  for (int i = 0; i < count; ++i) {
    int result = zk_get_rec_substring(debug_active, debug_file, &record->cursor, skipped.data(), &record->remaining);
    if (result != ZELK_SUCCESS) return result;
  }
  return ZELK_SUCCESS;
}

/* Tells the user why a description cannot be shown, and returns the report's result. */
static int report_bad_description(nl_catd catfd, int result) {
  if (result == ZELK_NO_MEMORY) {
    zk_print_message(stderr, catfd, ZK_MSG_NO_MEMORY);
    return ZELK_NO_MEMORY;
  }
  if (result == ZELK_REC_CORRUPT) {
    zk_print_message(stdout, catfd, ZK_MSG_REC_CORRUPT);
    return ZELK_REC_CORRUPT;
  }
  /* The brief report names this routine too. */
  zk_print_message(stderr, catfd, ZK_MSG_PRINT_FAILURE, {zk_msg_arg("zk_print_description"), zk_msg_arg(result)});
  return ZELK_FAILURE;
}

int zk_print_brief_stack_record(int debug_active, const char* debug_file, const char* fid_to_display, int searching,
                                nl_catd catfd, void* record) {
  std::array<char, ZK_REC_STRING_MAX + 1> process = {};
  zk_eid_t related;
  char* description = nullptr;
  opened_record opened;

  int result = open_record(debug_active, debug_file, __func__, record, &opened);
  if (result != ZELK_SUCCESS) return result;
  if (!is_selected(fid_to_display, opened.eid)) return searching == 1 ? ZELK_INV_FID : ZELK_SUCCESS;

  zk_take_eid(&opened.cursor, &opened.remaining, related);
  std::tm when = local_time(zk_take_int(&opened.cursor, &opened.remaining));
  result = zk_get_rec_substring(debug_active, debug_file, &opened.cursor, process.data(), &opened.remaining);
  if (result != ZELK_SUCCESS) return result;
  for (int i = 0; i < 3; ++i) zk_take_int(&opened.cursor, &opened.remaining); /* process, parent, thread */
  result = skip_strings(debug_active, debug_file, &opened, 3);                /* file, version, product */
  if (result != ZELK_SUCCESS) return result;
  zk_take_int(&opened.cursor, &opened.remaining); /* line */

  result = zk_get_description(debug_active, debug_file, &description, &opened.cursor, &opened.remaining);
  if (result != ZELK_SUCCESS) return report_bad_description(catfd, result);
  result = skip_strings(debug_active, debug_file, &opened, 1); /* details */
  if (result == ZELK_SUCCESS) {
    if (description != nullptr) zk_truncate_description(description, DESCRIPTION_COLUMN);
    zk_print_message(
        stdout, catfd, ZK_MSG_BRIEF_LINE,
        {zk_msg_arg(when.tm_mon + 1), zk_msg_arg(when.tm_mday), zk_msg_arg(when.tm_hour), zk_msg_arg(when.tm_min),
         zk_msg_arg(when.tm_year + 1900), zk_msg_arg(process.data()), zk_msg_arg(description)});
  }
  free(description);
  return result;
}

int zk_print_full_stack_record(int debug_active, const char* debug_file, const char* fid_to_display, nl_catd catfd,
                               void* record) {
  std::array<char, 256> time_text;
  zk_eid_t related;
  opened_record opened;

  int result = open_record(debug_active, debug_file, __func__, record, &opened);
  if (result != ZELK_SUCCESS) return result;
  if (!is_selected(fid_to_display, opened.eid)) return ZELK_SUCCESS;
  auto print_string = [&](int message) {
    return zk_print_rec_substring(debug_active, debug_file, catfd, message, &opened.cursor, &opened.remaining);
  };
  auto print_int = [&](int message) {
    zk_print_message(stdout, catfd, message, {zk_msg_arg(zk_take_int(&opened.cursor, &opened.remaining))});
  };

  if (*opened.eid != '\0')
    zk_print_message(stdout, catfd, ZK_MSG_EID, {zk_msg_arg(opened.eid)});
  else
    zk_print_message(stdout, catfd, ZK_MSG_EID_UNKNOWN);
  zk_take_eid(&opened.cursor, &opened.remaining, related);
  zk_print_message(stdout, catfd, ZK_MSG_RELATED_EID, {zk_msg_arg(related)});

  std::tm when = local_time(zk_take_int(&opened.cursor, &opened.remaining));
  if (std::strftime(time_text.data(), time_text.size(), "%c %Z\n", &when) == 0)
    std::snprintf(time_text.data(), time_text.size(), "\n");
  zk_print_message(stdout, catfd, ZK_MSG_TIMESTAMP, {zk_msg_arg(time_text.data())});
  if ((result = print_string(ZK_MSG_PROCESS_NAME)) != ZELK_SUCCESS) return result;
  print_int(ZK_MSG_PROCESS_ID);
  print_int(ZK_MSG_PARENT_ID);
  print_int(ZK_MSG_THREAD_ID);

  if ((result = print_string(ZK_MSG_FILE_NAME)) != ZELK_SUCCESS) return result;
  if ((result = print_string(ZK_MSG_FILE_VERSION)) != ZELK_SUCCESS) return result;
  if ((result = print_string(ZK_MSG_PRODUCT)) != ZELK_SUCCESS) return result;
  print_int(ZK_MSG_LINE);

  result = zk_print_description(debug_active, debug_file, catfd, &opened.cursor, &opened.remaining);
  if (result != ZELK_SUCCESS) return report_bad_description(catfd, result);
  return print_string(ZK_MSG_DETAILS);
}

int zk_dump_header(int, const char*, int, nl_catd catfd, int stack_version, zk_estack_v1_header_t cbuf) {
  zk_print_message(stdout, catfd, ZK_MSG_SEPARATOR);
  zk_print_message(stdout, catfd, stack_version == 0 ? ZK_MSG_FORMAT_ONE : ZK_MSG_FORMAT_UNKNOWN);
  zk_print_message(stdout, catfd, ZK_MSG_CONTROL_INFO,
                   {zk_msg_arg(cbuf.records_start), zk_msg_arg(cbuf.write_pos), zk_msg_arg(cbuf.earliest_rec),
                    zk_msg_arg(cbuf.file_size)});
  if (cbuf.has_wrapped == 1) zk_print_message(stdout, catfd, ZK_MSG_HAS_WRAPPED);
  zk_print_message(stdout, catfd, ZK_MSG_SEPARATOR);
  return ZELK_SUCCESS;
}

int zk_dump_stack(int debug_active, const char* debug_file, int dump_header, int all, const char* fid, int searching,
                  int fildes, nl_catd catfd) {
  if (fid != nullptr && *fid == '\0') ZK_RETURN(ZELK_INV_PARAM3, "Invalid ZELK Error ID - Returning %s(%d)");
  if (fildes <= 0) ZK_RETURN(ZELK_INV_PARAM4, "Invalid file descriptor %d\nReturning %s(%d)", fildes);

  zk_walk walk = {
      .debug_active = debug_active, .debug_file = debug_file, .routine = __func__, .fildes = fildes, .catfd = catfd};
  int result = zk_walk_begin(&walk);
  if (result == ZELK_LOCK) return result;
  if (result == ZELK_INV_PARAM4) result = ZELK_FAILURE;

  if (result == ZELK_SUCCESS && dump_header == 1)
    zk_dump_header(debug_active, debug_file, fildes, catfd, walk.stack_version, walk.header);
  if (result == ZELK_SUCCESS && all != 1 && searching != 1) zk_print_message(stdout, catfd, ZK_MSG_HEADING);

  while (result == ZELK_SUCCESS && (result = zk_walk_next(&walk)) == ZELK_SUCCESS) {
    void* record = walk.record.data();
    if (searching == 1)
      result = zk_print_brief_stack_record(debug_active, debug_file, fid, 1, catfd, record);
    else if (all == 1 || dump_header == 1)
      result = zk_print_full_stack_record(debug_active, debug_file, fid, catfd, record);
    else
      result = zk_print_brief_stack_record(debug_active, debug_file, fid, 0, catfd, record);

    switch (result) {
      case ZELK_INV_FID: /* not the one searched for; the search runs past the newest record */
        result = ZELK_SUCCESS;
        continue;
      case ZELK_SUCCESS:
        break;
      case ZELK_INV_RECLEN:
      case ZELK_INV_RECVERSN:
      case ZELK_REC_CORRUPT:
        result = ZELK_FILE_CORRUPT;
        break;
      case ZELK_NO_MEMORY:
        break;
      case ZELK_INV_PARAM4:
        ZK_TRACE_RC(ZELK_FAILURE, "Internal problem - buffer suddenly invalid\nReturning %s(%d) to caller");
        result = ZELK_FILE_CORRUPT;
        break;
      default:
        result = ZELK_FAILURE;
    }
    if (result != ZELK_SUCCESS || searching == 1) break;
    if (all == 1 && fid == nullptr) zk_print_message(stdout, catfd, ZK_MSG_SEPARATOR);
    if (zk_walk_at_write_pos(&walk)) break;
  }
  if (result == ZK_WALK_END) result = searching == 1 ? ZELK_INV_FID : ZELK_SUCCESS;
  zk_walk_end(&walk);
  return result;
}

int zk_scan_files_for_fid(int debug_active, const char* debug_file, const char* fid, const char* stack_file_list,
                          int stack_list_limit, int* fildes_to_use, char** correct_file, nl_catd catfd) {
  if (fid == nullptr || *fid == '\0') ZK_RETURN(ZELK_INV_PARAM3, "Invalid value of 'fid' - returning %s(%d)");
  if (stack_file_list == nullptr || *stack_file_list == '\0')
    ZK_RETURN(ZELK_INV_PARAM4, "No valid file names detected in array at address 0x%x - returning %s(%d)",
              zk_trace_pointer(stack_file_list));

  int count = 0;
  while (count < stack_list_limit && stack_file_list[ptrdiff_t{count} * ZELK_FILE_SLOT_SIZE] != '\0') ++count;

  for (int i = 0; i < count; ++i) {
    const char* slot = stack_file_list + ptrdiff_t{i} * ZELK_FILE_SLOT_SIZE;
    std::array<char, ZELK_FILE_SLOT_SIZE> name = {};
    std::array<char, ZELK_PATH_SIZE> path;
    int fildes = -1;
    std::memcpy(name.data(), slot, strnlen(slot, name.size() - 1));
    int result = zk_open_stack_path(debug_active, debug_file, __func__, name.data(), path, &fildes);
    if (result != ZELK_SUCCESS) return result;

    if (count == 1) {
      ZK_TRACE("Using file \"%s\" without checking for ZELK ID", path.data());
    } else {
      ZK_TRACE("Checking file \"%s\" for ZELK ID \"%s\"", path.data(), fid);
      result = zk_dump_stack(debug_active, debug_file, 0, 0, fid, 1, fildes, catfd);
      if (result != ZELK_SUCCESS) close(fildes);
      if (result == ZELK_INV_FID) continue;
      if (result != ZELK_SUCCESS) return ZELK_FAILURE;
      ZK_TRACE("Entry found in file \"%s\"", path.data());
    }
    if (correct_file != nullptr) {
      close(fildes);
      *correct_file = const_cast<char*>(slot); /* the caller's own list */
    } else {
      *fildes_to_use = fildes;
    }
    return ZELK_SUCCESS;
  }
  ZK_RETURN(ZELK_INV_FID, "FID \"%s\" not found in any file - returning %s(%d)", fid);
}
