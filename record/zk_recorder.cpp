/* SPDX-License-Identifier: MIT */
/* zk_recorder.cpp - records incidents.
 *
 * A view starts at earliest_rec and stops as soon as it is at write_pos behind a record, so what the header does not
 * tell of is not shown. A search for an Error ID goes on behind write_pos, up to a length word of 0; and in a stack without
 * records a view looks at E although it is at W. So a record gets its length last. An incident takes these writes, in this
 * order; the letters are those of zk_stack_state.cpp, "x" the place of the record, and a killed recorder leaves one of these
 * states:
 *
 *   before                      S=====W...E==========0     two runs
 *   1  header, earliest_rec     S=====W........E=====0     what will be overwritten is no longer shown
 *   2  (in a new lap only) a length word of 0 at W, where the lap now ends
 *   3  the record, length 0      S=====0xxxxx0..E=====0     and a length word of 0 behind it
 *   4  its length               S=====Wxxxxx0..E=====0     found by a search, not shown yet
 *   5  header, write_pos        S===========W..E=====0     shown: the incident is recorded */
#include "zk_recorder.h"

#include <pthread.h>

#include <cstdlib>

#include "zk_eid_layout.h"
#include "zk_io.h"
#include "zk_record.h"
#include "zk_record_image.h"
#include "zk_stack_file.h"
#include "zk_stack_state.h"

struct zk_recorder {
  int fildes;
  uint64_t inode;
  std::array<char, ZK_ADDR_WIDTH> own_address; /* the node's, for when ZELKADDR has none */
  zk_damage_t damage;                          /* why the stack was refused last */
  bool is_known;                               /* the state is that of the file as this recorder left it */
  zk_stack_state_t state;
};

/* ---- The file ------------------------------------------------------------------------------------------------------ */

static bool set_lock(int fildes, short type) {
  struct flock whole = {};
  whole.l_type = type;
  whole.l_whence = SEEK_SET;
  return zk_retry([&] { return fcntl(fildes, F_OFD_SETLKW, &whole); }) == 0;
}

/* Keeps what is wrong with the stack. Returns 0 for nothing; ZELK_FILE_CORRUPT. */
static int judge(zk_recorder_t* recorder, const zk_damage_t& damage) {
  recorder->damage = damage;
  return damage.reason == nullptr ? ZELK_SUCCESS : ZELK_FILE_CORRUPT;
}

/* Learns the state of the locked stack, which others may have changed, and not only recorders. Returns 0;
 * ZELK_FILE_CORRUPT; ZELK_FAILURE with errno set. */
static int learn_state(zk_recorder_t* recorder) {
  zk_stack_state_t* const state = &recorder->state;
  const size_t size = static_cast<size_t>(state->size);
  std::array<char, ZK_STACK_SIZE_MAX + 1> bytes;
  const size_t count = zk_read(recorder->fildes, bytes.data(), size, 0, 1); /* a byte more, if there is one */
  if (count < size && errno != 0) return ZELK_FAILURE;
  if (count != size) return judge(recorder, ZK_OTHER_SIZE);
  if (recorder->is_known && std::memcmp(bytes.data(), state->walk.window.data(), size) == 0) return ZELK_SUCCESS;
  std::memcpy(state->walk.window.data(), bytes.data(), size);
  const int result = judge(recorder, zk_check_stack(state));
  recorder->is_known = result == ZELK_SUCCESS;
  return result;
}

/* Writes `size` bytes at `position`, in the file and in what is known of it. Returns false with errno set. */
static bool write_at(zk_recorder_t* recorder, int32_t position, const void* bytes, size_t size) {
  if (!zk_write(recorder->fildes, bytes, size, position)) return false;
  std::memcpy(recorder->state.walk.window.data() + position, bytes, size);
  return true;
}

static bool write_header(zk_recorder_t* recorder) {
  const zk_estack_v1_header_t& header = recorder->state.walk.header;
  return write_at(recorder, ZK_STACK_HEADER_POS, &header, sizeof header);
}

/* Writes the record at its place and the header around it. Returns false with errno set. */
static bool write_record(zk_recorder_t* recorder, const zk_placement_t& place, zk_record_image_t* image) {
  static constexpr int32_t LAP_END = 0;
  zk_estack_v1_header_t& header = recorder->state.walk.header;
  const int32_t length = zk_record_length(image->bytes.data());
  const int32_t end = place.position + ZK_REC_LENGTH_SIZE + length;

  if (place.earliest != header.earliest_rec) {
    header.earliest_rec = place.earliest;
    if (!write_header(recorder)) return false;
  }
  if (place.is_wrap && header.write_pos <= header.file_size - ZK_REC_LENGTH_SIZE &&
      !write_at(recorder, header.write_pos, &LAP_END, sizeof LAP_END))
    return false;

  size_t size = image->size;
  std::memcpy(image->bytes.data(), &LAP_END, sizeof LAP_END);
  if (end != place.earliest && end <= header.file_size - ZK_REC_LENGTH_SIZE) {
    std::memcpy(image->bytes.data() + size, &LAP_END, sizeof LAP_END);
    size += sizeof LAP_END;
  }
  if (!write_at(recorder, place.position, image->bytes.data(), size)) return false;
  if (!write_at(recorder, place.position, &length, sizeof length)) return false;

  header.write_pos = end;
  if (place.is_wrap) header.has_wrapped = 1;
  if (!write_header(recorder)) return false;
  recorder->state.newest = place.position;
  return true;
}

/* ---- Error IDs ----------------------------------------------------------------------------------------------------- */

static bool is_address(const char* text) {
  if (text == nullptr || strnlen(text, ZK_ADDR_WIDTH + 1) != ZK_ADDR_WIDTH) return false;
  const char type = text[ZK_ADDR_WIDTH - 1];
  return std::strspn(text, base64_table) == ZK_ADDR_WIDTH && (type == ZK_IPV4_TYPE || type == ZK_IPV6_TYPE);
}

/* The time of the newest record, by its Error ID or, where it has none, by its time field; zero for none. */
static timeval newest_time(const zk_stack_state_t& state) {
  timeval time = {};
  if (state.newest == 0) return time;
  const char* record = state.walk.window.data() + state.newest;
  zk_eid_t eid;
  zk_record_eid(record, ZK_REC_EID_POS, eid);
  const zk_eid_parts_t* parts = reinterpret_cast<const zk_eid_parts_t*>(eid);
  if (std::strlen(eid) == ZELK_EID_LENGTH && zk_conv_base_64_time(0, nullptr, parts->time, &time) == ZELK_SUCCESS)
    return time;
  zk_cursor_t cursor = zk_record_cursor(record, ZK_REC_TIME_POS);
  return {.tv_sec = zk_read_int(&cursor), .tv_usec = 0};
}

/* Now, or a microsecond after the newest record where the clock does not tell of a later time. (Behind the last second
 * that an Error ID can hold comes now.) */
static timeval next_time(const zk_stack_state_t& state) {
  constexpr int64_t SECONDS_END = int64_t{1} << (6 * ZK_SECONDS_WIDTH);
  timeval now;
  gettimeofday(&now, nullptr);
  timeval after = newest_time(state);
  if (++after.tv_usec == 1000000) after = {.tv_sec = after.tv_sec + 1, .tv_usec = 0};
  const bool is_later = now.tv_sec != after.tv_sec ? now.tv_sec > after.tv_sec : now.tv_usec >= after.tv_usec;
  return is_later || after.tv_sec >= SECONDS_END ? now : after;
}

static void make_eid(const zk_recorder_t& recorder, const timeval& time, zk_eid_t eid) {
  const char* address = secure_getenv("ZELKADDR");
  zk_eid_parts_t parts;
  zk_write_header({0, nullptr, nullptr}, 2, ZELK_LOCATION_STACK, &parts);
  zk_write_digits(recorder.inode, parts.entry, ZK_ENTRY_WIDTH);
  zk_write_time(time, parts.time);
  std::memcpy(parts.address, is_address(address) ? address : recorder.own_address.data(), ZK_ADDR_WIDTH);
  zk_join_eid(parts, eid);
}

/* ---- The interface ------------------------------------------------------------------------------------------------- */

/* The node's own address; one without any gets the form that says so. */
static void read_own_address(const zk_trace_t& trace, std::array<char, ZK_ADDR_WIDTH>* address) {
  static_assert(ZK_ADDR_WIDTH == ZELK_ADDR_CODE_SIZE); /* the type stands where the code has its terminator */
  char type = ZK_IPV6_TYPE;
  address->fill(ZK_ZERO_DIGIT);
  zk_get_ipaddr(trace.active, trace.file, address->data(), &type);
  address->back() = type;
}

/* Moves a descriptor away from the standard streams: what a program prints must not get into a stack. Returns false, with
 * errno set, when that cannot be done. */
static bool leave_standard_streams(int* fildes) {
  if (*fildes > STDERR_FILENO) return true;
  const int moved = fcntl(*fildes, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  if (moved == -1) return false;
  close(*fildes);
  *fildes = moved;
  return true;
}

/* Reads the header and looks whether it is one that a recorder leaves. Returns 0; ZELK_FILE_CORRUPT; ZELK_FAILURE. */
static int check_header(zk_recorder_t* recorder) {
  zk_stack_state_t* const state = &recorder->state;
  const size_t count = zk_read(recorder->fildes, state->walk.window.data(), ZK_STACK_RECORDS_MIN, 0);
  if (count < ZK_STACK_RECORDS_MIN && errno != 0) return ZELK_FAILURE;
  return judge(recorder, count < ZK_STACK_RECORDS_MIN ? ZK_OTHER_SIZE : zk_check_stack_header(state));
}

/* Learns of the open file what stays as it is, and looks whether it is a stack. Returns as check_header. */
static int check_file(zk_recorder_t* recorder) {
  struct stat status;
  if (fstat(recorder->fildes, &status) != 0) return ZELK_FAILURE;
  if (!S_ISREG(status.st_mode)) return judge(recorder, ZK_NOT_REGULAR);
  if (status.st_size < ZK_STACK_SIZE_MIN || status.st_size > ZK_STACK_SIZE_MAX)
    return judge(recorder, ZK_BAD_FILE_SIZE);
  recorder->inode = status.st_ino;
  recorder->state.size = static_cast<int32_t>(status.st_size);

  int result = check_header(recorder);
  if (result == ZELK_FILE_CORRUPT && set_lock(recorder->fildes, F_WRLCK)) {
    result = check_header(recorder); /* another recorder may have been writing it */
    set_lock(recorder->fildes, F_UNLCK);
  }
  return result;
}

/* Opens the stack into `recorder`, whose descriptor is -1 after a failure to open it. Returns as zk_open_recorder. */
static int open_stack(const zk_trace_t& trace, const zk_stack_path_t& path, zk_recorder_t* recorder) {
  recorder->fildes = -1;
  int result = zk_open_stack_path(trace, path, &recorder->fildes);
  if (result != ZELK_SUCCESS) return result;
  if (!leave_standard_streams(&recorder->fildes)) return ZELK_TOO_MANY;
  result = check_file(recorder);
  if (result == ZELK_SUCCESS) read_own_address(trace, &recorder->own_address);
  if (result == ZELK_FILE_CORRUPT) zk_report_damage(trace, recorder->damage);
  return result;
}

int zk_open_recorder_or_say(const zk_trace_t& trace, const char* stack_file, zk_recorder_t** recorder,
                            zk_damage_t* damage) {
  if (stack_file == nullptr || *stack_file == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, "Called without a name for the stack\nReturning %s(%d) to caller");
  if (recorder == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM4, "Called without a place for the recorder\nReturning %s(%d) to caller");

  zk_recorder_t* opened = static_cast<zk_recorder_t*>(calloc(1, sizeof *opened));
  if (opened == nullptr)
    return zk_failed(trace, ZELK_NO_MEMORY, "No memory for a recorder\nReturning %s(%d) to caller");
  const zk_stack_path_t path = zk_stack_path(stack_file);
  int cancel_state; /* a thread that is cancelled between two calls would leave the stack open */
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
  const int result = open_stack(trace, path, opened);
  *damage = opened->damage;
  if (result != ZELK_SUCCESS) zk_close_recorder(opened);
  pthread_setcancelstate(cancel_state, nullptr);
  if (result != ZELK_SUCCESS)
    return zk_failed(trace, result, "Cannot record into stack %s\nReturning %s(%d) to caller", path.data());
  *recorder = opened;
  return zk_succeeded(trace, "Stack %s opened for recording\nReturning %s(%d) to caller", path.data());
}

int zk_open_recorder(int debug_active, const char* debug_file, const char* stack_file, zk_recorder_t** recorder) {
  zk_damage_t damage = {};
  return zk_open_recorder_or_say({debug_active, debug_file, __func__}, stack_file, recorder, &damage);
}

zk_damage_t zk_recorder_damage(const zk_recorder_t* recorder) {
  return recorder->damage;
}

static bool has_good_arguments(const zk_incident_t& incident) {
  if (incident.argument_count != 0 && incident.arguments == nullptr) return false;
  for (uint32_t i = 0; i < incident.argument_count; ++i) {
    const cu_error_arg_t& argument = incident.arguments[i];
    if (argument.cu_arg_type < CU_ERROR_ARG_INT || argument.cu_arg_type > CU_ERROR_ARG_VOID_PTR) return false;
    if (argument.cu_arg_type == CU_ERROR_ARG_CHAR_STR && argument.cu_arg_value.cu_arg_char_str == nullptr) return false;
  }
  return true;
}

/* Records under the lock; `image` is that of the incident for any stack of usual size. Returns as zk_record_incident; errno
 * says why something could not be read or written. Nothing is traced here: the trace file has a lock of its own. */
static int record_locked(zk_recorder_t* recorder, const zk_incident_t& incident, zk_record_image_t* image,
                         zk_eid_t eid) {
  static constexpr zk_errno_result_t WRITE_RESULTS[] = {
      {ENOSPC, ZELK_NO_SPACE}, {EFBIG, ZELK_NO_SPACE}, {EDQUOT, ZELK_NO_SPACE}};
  int result = learn_state(recorder);
  if (result != ZELK_SUCCESS) return result;

  const size_t body_max = zk_longest_body(recorder->state);
  if (body_max < ZK_REC_LISTED_MAX && zk_make_record_image(incident, body_max, image) != ZELK_SUCCESS)
    return ZELK_INV_RECLEN;
  const timeval time = next_time(recorder->state);
  make_eid(*recorder, time, eid);
  zk_stamp_record_image(image, eid, static_cast<int32_t>(time.tv_sec));
  const zk_placement_t place = zk_place_record(recorder->state, static_cast<int32_t>(image->size));
  recorder->is_known = write_record(recorder, place, image);
  return recorder->is_known ? ZELK_SUCCESS : zk_result_of_errno(errno, WRITE_RESULTS);
}

/* The work of zk_record_incident: `made` receives the Error ID, and may hold one after a failure too. */
static int record_incident(const zk_trace_t& trace, zk_recorder_t* recorder, const zk_incident_t* incident,
                           const char* eid, zk_eid_t made) {
  if (recorder == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM3, "Called without a recorder\nReturning %s(%d) to caller");
  if (incident == nullptr || !has_good_arguments(*incident))
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "Called without an incident, or with bad arguments\n"
                     "Returning %s(%d) to caller");
  if (eid == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM5, "Called without a place for the ZELK ID\nReturning %s(%d) to caller");
  const char* cause = incident->associated_eid;
  if (cause != nullptr && *cause != '\0' && strnlen(cause, ZELK_EID_SIZE) != ZELK_EID_LENGTH)
    return zk_failed(trace, ZELK_INV_FID, "Associated ZELK ID \"%s\" is not correct size\nReturning %s(%d) to caller",
                     cause);
  zk_record_image_t image;
  if (zk_make_record_image(*incident, ZK_REC_LISTED_MAX, &image) != ZELK_SUCCESS)
    return zk_failed(trace, ZELK_INV_RECLEN, "The incident is too long for a record\nReturning %s(%d) to caller");

  int cancel_state; /* a thread that is cancelled between two calls would leave the stack locked */
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
  int result = ZELK_LOCK;
  const bool is_locked = set_lock(recorder->fildes, F_WRLCK);
  if (is_locked) result = record_locked(recorder, *incident, &image, made);
  const int error = errno;
  if (is_locked) set_lock(recorder->fildes, F_UNLCK);
  pthread_setcancelstate(cancel_state, nullptr);
  if (result == ZELK_FILE_CORRUPT) {
    zk_report_damage(trace, recorder->damage);
    return zk_failed(trace, result, "Cannot record the incident\nReturning %s(%d) to caller");
  }
  if (result != ZELK_SUCCESS)
    return zk_failed(trace, result, "Cannot record the incident - error code %d\nReturning %s(%d) to caller", error);
  return zk_succeeded(trace, "Recorded incident %s\nReturning %s(%d) to caller", made);
}

int zk_record_incident(int debug_active, const char* debug_file, zk_recorder_t* recorder, const zk_incident_t* incident,
                       zk_eid_t eid) {
  zk_eid_t made = {};
  const int result = record_incident({debug_active, debug_file, __func__}, recorder, incident, eid, made);
  if (result != ZELK_SUCCESS) made[0] = '\0';
  if (eid != nullptr) std::memcpy(eid, made, sizeof made); /* last: its text may be the cause of the incident */
  return result;
}

void zk_close_recorder(zk_recorder_t* recorder) {
  if (recorder == nullptr) return;
  if (recorder->fildes != -1)
    close(recorder->fildes); /* and with it the lock, unless a process that was forked has the file open too */
  free(recorder);
}
