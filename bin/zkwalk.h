/* zkwalk.h - one reading of an Error Stack: the lock, the control header, and the step from record to record.
 * Every view walks a stack through it. */
#ifndef ZKWALK_H
#define ZKWALK_H

#include <nl_types.h>
#include <sys/types.h>

#include <array>

#include "zk_int.h"

/* Opens the stack file `name`, relative to ZELK_STACK_DIR unless it begins with "/", for reading and locking,
 * without waiting for whatever else the name stands for. Traces as `routine`; `path` receives the name that
 * was opened, cut at 4096 characters. Returns 0 with `*fildes` set; ZELK_FILE_MISSING; ZELK_NO_ACCESS;
 * ZELK_TOO_MANY; ZELK_FAILURE. */
int zk_open_stack_path(int debug_active, const char* debug_file, const char* routine, const char* name,
                       std::array<char, ZELK_PATH_SIZE>& path, int* fildes);

/* Result of zk_walk_next beside the codes of qx_zelk.h. */
enum { ZK_WALK_END = 1 };

struct zk_walk {
  int debug_active;
  const char* debug_file;
  const char* routine; /* whose walk it is, for the trace */
  int fildes;
  nl_catd catfd;

  int stack_version = 0;
  zk_estack_v1_header_t header = {};
  bool may_wrap = false; /* the one return to records_start is still to come */
  off_t position = 0;    /* of the next byte to take */

  /* The record that the last step took, with its length word and a zero byte behind it. */
  std::array<char, ZK_REC_SIZE_MAX + 1> record = {};

  /* A stretch of the file that has been read. The area that a stack of version one can have fits whole, so
   * that its report is one snapshot even if the lock is lost meanwhile (closing any other descriptor of the
   * file drops it). */
  std::array<char, ZK_STACK_SIZE_MAX + ZK_REC_SIZE_MAX> window = {};
  off_t window_start = 0;
  size_t window_size = 0;
  bool window_at_end = false; /* the file ended behind it */
};

/* Locks the stack and reads its header. The caller fills the members before stack_version; unless the result
 * is ZELK_LOCK, zk_walk_end must follow. Returns 0; ZELK_LOCK; ZELK_INV_PARAM3; ZELK_FILE_CORRUPT. */
int zk_walk_begin(zk_walk* walk);

/* Takes the next record, going back to records_start once where the stack has wrapped.
 * Returns 0; ZK_WALK_END no record is left; ZELK_FILE_CORRUPT. */
int zk_walk_next(zk_walk* walk);

/* Whether the last record taken is the newest one. */
bool zk_walk_at_write_pos(zk_walk* walk);

/* Releases the lock and leaves the file at its start. */
void zk_walk_end(zk_walk* walk);

#endif
