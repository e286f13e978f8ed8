/* SPDX-License-Identifier: MIT */
/* zkprint.cpp - prints records, brief and in full, stacks in order of recording, and lists of records. */
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "zk_msg.h"
#include "zk_walk.h"
#include "zkfields.h"
#include "zkprint.h"

static constexpr int DESCRIPTION_COLUMN = 30; /* of a brief line, behind the time and the process name */

/* Whether a report for the Error ID `wanted`, all when it is null or empty, shows the record. */
static bool is_selected(const char* wanted, const zk_eid_t eid) {
  return wanted == nullptr || *wanted == '\0' || (*eid != '\0' && std::strncmp(eid, wanted, ZELK_EID_LENGTH) == 0);
}

static std::tm local_time(time_t seconds) {
  static bool is_zone_set = false;
  if (!is_zone_set) tzset(); /* once: it looks at a file each time */
  is_zone_set = true;
  std::tm parts = {};
  localtime_r(&seconds, &parts);
  return parts;
}

/* ---- Parts of a record --------------------------------------------------------------------------------------------- */

int zk_print_rec_substring(int debug_active, const char* debug_file, nl_catd catfd, int display_msgnum, void** buffer,
                           size_t* remaining_len) {
  std::array<char, ZK_REC_STRING_MAX + 1> text;
  const void* start = *buffer;
  int result = zk_get_rec_substring(debug_active, debug_file, buffer, text.data(), remaining_len);
  if (result != ZELK_SUCCESS) return result;
  text[static_cast<size_t>(static_cast<char*>(*buffer) - static_cast<const char*>(start)) - 1] = '\0';
  zk_print_message(stdout, catfd, display_msgnum, {zk_msg_arg(text.data())});
  return ZELK_SUCCESS;
}

int zk_print_description(int debug_active, const char* debug_file, nl_catd catfd, void** buffer,
                         size_t* remaining_len) {
  char* description = nullptr;
  int result = zk_get_description(debug_active, debug_file, &description, buffer, remaining_len);
  if (result != ZELK_SUCCESS) {
    zk_print_message(stdout, catfd, ZK_MSG_REC_CORRUPT);
    return result;
  }
  zk_print_message(stdout, catfd, ZK_MSG_DESCRIPTION, {zk_msg_arg(description)});
  free(description);
  return ZELK_SUCCESS;
}

void zk_truncate_description(char* descript, int start) {
  constexpr long DEFAULT_WIDTH = 80;
  const char* columns = std::getenv("COLUMNS");
  long width = columns != nullptr ? std::strtol(columns, nullptr, 10) : 0;
  width = width >= 1 ? std::min(width, long{INT_MAX}) : DEFAULT_WIDTH;
  /* A limit below zero is a huge one and leaves the text whole. */
  const unsigned long long limit = static_cast<unsigned long long>(static_cast<long long>(width) - start);
  if (std::strlen(descript) > limit) descript[limit] = '\0';
}

static void print_time(nl_catd catfd, int32_t seconds) {
  std::array<char, 256> text;
  std::tm when = local_time(seconds);
  if (std::strftime(text.data(), text.size(), "%c %Z\n", &when) == 0) std::snprintf(text.data(), text.size(), "\n");
  zk_print_own_text(catfd, ZK_MSG_TIMESTAMP, text.data());
}

/* ---- Records ------------------------------------------------------------------------------------------------------- */

int zk_print_brief_stack_record(int debug_active, const char* debug_file, const char* fid_to_display, int searching,
                                nl_catd catfd, void* record) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  zk_decoded_t decoded;
  int result = zk_open_record(trace, record, &decoded);
  if (result != ZELK_SUCCESS) return result;
  const zk_record_t& fields = decoded.fields;
  if (!is_selected(fid_to_display, fields.eid)) return searching == 1 ? ZELK_INV_FID : ZELK_SUCCESS;

  result = zk_decode_record(trace, &decoded);
  char* description = result == ZELK_SUCCESS ? zk_describe(decoded) : nullptr;
  zk_release_arguments(&decoded);
  if (result != ZELK_SUCCESS) {
    if (fields.incident.product != nullptr && !decoded.has_description)
      zk_print_message(stdout, catfd, ZK_MSG_REC_CORRUPT);
    return result;
  }
  if (description != nullptr) zk_truncate_description(description, DESCRIPTION_COLUMN);
  const std::tm when = local_time(fields.time);
  zk_print_message(
      stdout, catfd, ZK_MSG_BRIEF_LINE,
      {zk_msg_arg(when.tm_mon + 1), zk_msg_arg(when.tm_mday), zk_msg_arg(when.tm_hour), zk_msg_arg(when.tm_min),
       zk_msg_arg(when.tm_year + 1900), zk_msg_arg(fields.incident.process_name), zk_msg_arg(description)});
  free(description);
  return ZELK_SUCCESS;
}

/* Prints the fields that stand before the damage, if there is any: it ends them. */
static void print_fields(nl_catd catfd, const zk_decoded_t& decoded) {
  const zk_record_t& fields = decoded.fields;
  const zk_incident_t& incident = fields.incident;
  auto print_int = [&](int message, int32_t value) { zk_print_message(stdout, catfd, message, {zk_msg_arg(value)}); };
  auto print_text = [&](int message, const char* text) {
    if (text != nullptr) zk_print_message(stdout, catfd, message, {zk_msg_arg(text)});
    return text != nullptr;
  };

  if (*fields.eid != '\0')
    print_text(ZK_MSG_EID, fields.eid);
  else
    zk_print_message(stdout, catfd, ZK_MSG_EID_UNKNOWN);
  print_text(ZK_MSG_RELATED_EID, fields.related_eid);
  print_time(catfd, fields.time);
  if (!print_text(ZK_MSG_PROCESS_NAME, incident.process_name)) return;
  print_int(ZK_MSG_PROCESS_ID, incident.process_id);
  print_int(ZK_MSG_PARENT_ID, incident.parent_id);
  print_int(ZK_MSG_THREAD_ID, incident.thread_id);
  if (!print_text(ZK_MSG_FILE_NAME, incident.detecting_file)) return;
  if (!print_text(ZK_MSG_FILE_VERSION, incident.file_version)) return;
  if (!print_text(ZK_MSG_PRODUCT, incident.product)) return;
  print_int(ZK_MSG_LINE, incident.line);
  if (!decoded.has_description) {
    zk_print_message(stdout, catfd, ZK_MSG_REC_CORRUPT);
    zk_print_message(stdout, catfd, ZK_MSG_REC_CORRUPT); /* a second time, as readers of full reports know it */
    return;
  }
  char* description = zk_describe(decoded);
  zk_print_message(stdout, catfd, ZK_MSG_DESCRIPTION, {zk_msg_arg(description)});
  free(description);
  print_text(ZK_MSG_DETAILS, incident.details);
}

int zk_print_full_stack_record(int debug_active, const char* debug_file, const char* fid_to_display, nl_catd catfd,
                               void* record) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  zk_decoded_t decoded;
  int result = zk_open_record(trace, record, &decoded);
  if (result != ZELK_SUCCESS) return result;
  if (!is_selected(fid_to_display, decoded.fields.eid)) return ZELK_SUCCESS;
  result = zk_decode_record(trace, &decoded);
  print_fields(catfd, decoded); /* what comes before damage must be shown */
  zk_release_arguments(&decoded);
  return result;
}

/* What the result of a record's printer means for the view: a bad record ends it, and is traced where its place is known. */
static int view_result(const zk_trace_t& trace, int result, const void* record, off_t offset) {
  if (result != ZELK_INV_RECLEN && result != ZELK_INV_RECVERSN && result != ZELK_REC_CORRUPT) return result;
  if (offset >= 0) zk_report_bad_record(trace, record, offset);
  return ZELK_FILE_CORRUPT;
}

/* ---- Stacks -------------------------------------------------------------------------------------------------------- */

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
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  const bool is_search = searching == 1;
  const bool is_full = !is_search && (all == 1 || dump_header == 1);
  if (fid != nullptr && *fid == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, "Invalid ZELK Error ID - Returning %s(%d)");
  if (fildes <= 0) return zk_failed(trace, ZELK_INV_PARAM4, "Invalid file descriptor %d\nReturning %s(%d)", fildes);

  zk_walk_t walk;
  int result = zk_walk_begin(&walk, trace, fildes);
  if (result == ZELK_LOCK) return result;
  if (result == ZELK_SUCCESS && dump_header == 1)
    zk_dump_header(debug_active, debug_file, fildes, catfd, walk.stack_version, walk.header);
  if (result == ZELK_SUCCESS && all != 1 && !is_search) zk_print_message(stdout, catfd, ZK_MSG_HEADING);

  while (result == ZELK_SUCCESS && (result = zk_walk_next(&walk)) == ZELK_SUCCESS) {
    void* record = walk.record.data();
    result = is_full ? zk_print_full_stack_record(debug_active, debug_file, fid, catfd, record)
                     : zk_print_brief_stack_record(debug_active, debug_file, fid, searching, catfd, record);
    if (result == ZELK_INV_FID) { /* not the one searched for; the search runs past the newest record */
      result = ZELK_SUCCESS;
      continue;
    }
    result = view_result(trace, result, record, walk.record_position);
    if (result != ZELK_SUCCESS || is_search) break;
    if (all == 1 && fid == nullptr) zk_print_message(stdout, catfd, ZK_MSG_SEPARATOR);
    if (zk_walk_at_write_pos(walk)) break;
  }
  if (walk.is_record_lost) zk_print_message(stdout, catfd, ZK_MSG_REC_CORRUPT);
  zk_walk_end(walk);
  if (result == ZK_WALK_END) return is_search ? ZELK_INV_FID : ZELK_SUCCESS;
  return result;
}

/* ---- Lists of records ---------------------------------------------------------------------------------------------- */

/* Prints the records of a process or of a group, along `link`. Returns 0; ZELK_FILE_CORRUPT at one that is bad. */
static int display_chain(const zk_trace_t& trace, const zk_stack_rec_t* first, zk_stack_rec_t* zk_stack_rec_t::*link,
                         int all, nl_catd catfd) {
  for (const zk_stack_rec_t* element = first; element != nullptr; element = element->*link) {
    void* record = element->record;
    int result = all == 1 ? zk_print_full_stack_record(trace.active, trace.file, nullptr, catfd, record)
                          : zk_print_brief_stack_record(trace.active, trace.file, nullptr, 0, catfd, record);
    if (result != ZELK_SUCCESS) result = view_result(trace, result, record, zk_listed_position(record));
    if (result == ZELK_FILE_CORRUPT) return result;
    if (all == 1) zk_print_message(stdout, catfd, ZK_MSG_SEPARATOR);
  }
  return ZELK_SUCCESS;
}

int zk_display_recs_by_proc(int debug_active, const char* debug_file, zk_proc_list_t* proc_list, int all,
                            nl_catd catfd) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (!zk_is_list_head(proc_list))
    return zk_failed(trace, ZELK_INV_PARAM3, "proc_list parameter invalid or improperly initialized\nReturning %s(%d)");
  if (all == 0) zk_print_message(stdout, catfd, ZK_MSG_HEADING);

  for (const zk_proc_list_t* process = proc_list->next; process != nullptr; process = process->next) {
    zk_trace(trace, "Displaying records for process %d", process->process_id);
    int result = display_chain(trace, process->records, &zk_stack_rec_t::next, all, catfd);
    if (result != ZELK_SUCCESS) return result;
  }
  return ZELK_SUCCESS;
}

int zk_display_recs_by_rel(int debug_active, const char* debug_file, zk_stack_rec_t* rec_table, int all,
                           nl_catd catfd) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (rec_table == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM3, "rec_table parameter invalid or improperly initialized\nReturning %s(%d)");
  if (all == 0) zk_print_message(stdout, catfd, ZK_MSG_HEADING);

  for (const zk_stack_rec_t* group = rec_table; group != nullptr; group = group->next) {
    zk_trace(trace, "Displaying record for ZELK ID %.42s\nand any related to it", group->fid);
    int result = display_chain(trace, group, &zk_stack_rec_t::related, all, catfd);
    if (result != ZELK_SUCCESS) return result;
  }
  return ZELK_SUCCESS;
}
