/* SPDX-License-Identifier: MIT */
/* qx_record.h - recording incidents into an Error Stack. Usable from C11 and from C++.
 *
 * A recorder is an open stack. What a call of zk_record_incident acknowledged by returning 0 is in the file, and every
 * view of zkview shows it until the writing comes round. A recorder that is killed at any moment, or refused by the
 * disk at any write, leaves a stack that still opens; what it shows is an unbroken run of what was recorded, ending with
 * the newest acknowledged incident or with the one that was being recorded, and the next recorder goes on from there.
 * (After a crash of the machine the newest incidents may be missing: nothing is synchronised with the disk.)
 *
 * In C++20, qx_record.hpp records in one line too, and checks more of it when it is compiled.
 *
 * The trace pair, result codes and texts are as in qx_zelk.h. Any number of processes, threads and readers may use one
 * stack at a time:
 *   - A recorder is used by one thread at a time; threads may each open one of the same stack.
 *   - The stack is locked (waiting) while an incident is recorded, by a lock of the open file: it excludes zkview and
 *     every other recorder, also one of the same process, and closing other descriptors of the file does not lose it.
 *   - After fork the parent goes on with its recorder and the child opens its own. The child may close the one that it
 *     inherited. Recorders do not survive exec.
 *   - A thread is not cancelled while it records. No routine may be called from a signal handler.
 *   - Where a file size limit applies, writing beyond it raises SIGXFSZ: a program that wants an error in its place
 *     ignores that signal. */
#ifndef QX_RECORD_H
#define QX_RECORD_H

#include <stdint.h>

#include "qx_cu.h"
#include "qx_zelk.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What is recorded of an incident. Texts and arguments belong to the caller; a null text is an empty one. */
typedef struct {
  const char* process_name; /* null: the program's own short name */
  int32_t process_id;       /* 0: this process; the same for the next two */
  int32_t parent_id;        /* INT32_MIN: not known, which is recorded as 0 */
  int32_t thread_id;
  const char* detecting_file;
  const char* file_version;
  const char* product;
  int32_t line;
  const char* catalog; /* message catalog, null or empty: none */
  int32_t message_set;
  int32_t message_number;
  const char* default_message; /* its conversions are filled as cu_get_errmsg_1 fills them */
  const cu_error_arg_t* arguments;
  uint32_t argument_count;
  const char* details;
  const char* associated_eid; /* Error ID of the incident that caused this one, null or empty: none */
} zk_incident_t;

typedef struct zk_recorder zk_recorder_t;

/* Makes the empty Error Stack `stack_file` of `size` bytes, relative to ZELK_STACK_DIR unless it begins with "/". It
 * appears under its name whole or not at all, with permissions 0660 less the umask (who may read a stack can hold up its
 * writers by a lock), its space reserved by zeros.
 * Returns 0; ZELK_INV_PARAM3 null or empty name; ZELK_INV_PARAM4 a size outside 8192 to 16384; ZELK_FILE_EXIST something
 * of that name exists, and is left alone; ZELK_DIR_MISSING; ZELK_DIR_NO_ACCESS; ZELK_READ_ONLY; ZELK_NO_SPACE;
 * ZELK_TOO_MANY too many open files, or over quota; ZELK_FAILURE. A failure leaves nothing behind. */
int zk_create_stack(int debug_active, const char* debug_file, const char* stack_file, int32_t size);

/* Opens the Error Stack `stack_file`, named as above, for recording. `*recorder` is set on success only; the caller
 * closes it.
 * Returns 0; ZELK_INV_PARAM3 null or empty name; ZELK_INV_PARAM4 null `recorder`; ZELK_FILE_MISSING; ZELK_NO_ACCESS, also
 * for a part of the path that is not a directory; ZELK_TOO_MANY; ZELK_NO_MEMORY; ZELK_FAILURE; ZELK_FILE_CORRUPT not a
 * stack of version one, or with a control header that no recorder leaves. */
int zk_open_recorder(int debug_active, const char* debug_file, const char* stack_file, zk_recorder_t** recorder);

/* Opens the Error Stack `stack_file` for recording, as zk_open_recorder does; where there is none, makes one of `size` bytes
 * first (0: 16384), as zk_create_stack does. Of two that make it at once both get the one stack. `*recorder` is set on
 * success only; the caller closes it.
 * Returns 0; ZELK_INV_PARAM3 null or empty name; ZELK_INV_PARAM4 a size that is neither 0 nor within 8192 and 16384;
 * ZELK_INV_PARAM5 null `recorder`; the other codes of the two but ZELK_FILE_EXIST. */
int zk_open_or_create_recorder(int debug_active, const char* debug_file, const char* stack_file, int32_t size,
                               zk_recorder_t** recorder);

/* Records an incident, now, and stores its new Error ID, of version 2, in `eid`: no two of a node are equal, and records
 * stand in the order of their times. The node address in it is the value of ZELKADDR when that is one (in secure mode it
 * counts as unset, see qx_zelk.h), else the node's own as it was when the recorder was opened. A record's body is at most 1024 bytes. Details that do not fit are cut and
 * end in "..."; where not even that fits, they are empty, and the longest text argument, of equal ones the last, is cut in
 * the same way, but to no less than "...", then the longest of the others, until the rest fits. Texts are cut at whole UTF-8
 * characters, whatever else they hold. `eid` may be where the associated Error ID stands.
 * Returns 0; ZELK_INV_PARAM3 null recorder; ZELK_INV_PARAM4 null incident, or arguments that are null while counted, of
 * a kind other than CU_ERROR_ARG_..., or null texts; ZELK_INV_PARAM5 null `eid`; ZELK_INV_FID an associated Error ID that
 * is neither empty nor 42 characters; ZELK_INV_RECLEN names, default message and the
 * arguments that are no texts are too long by themselves; ZELK_LOCK; ZELK_FILE_CORRUPT the
 * stack is damaged, and left alone; ZELK_NO_SPACE, ZELK_FAILURE it cannot be read or written. After a failure `eid` is
 * the empty text.
 * Reads the environment: no other thread may change it meanwhile. */
int zk_record_incident(int debug_active, const char* debug_file, zk_recorder_t* recorder, const zk_incident_t* incident,
                       zk_eid_t eid);

/* Records, untraced, an incident of the calling thread: zk_record_incident in one line.
 *   cause    Error ID of the incident that caused this one; null or empty: none
 *   details  null: none
 *   eid      receives the new Error ID, the empty text after a failure; may be null, and may be where `cause` stands
 *   format   as printf takes it. It is recorded as it stands and each argument beside it by its kind, so that a
 *            translation can order them anew: an integer as an `int` or a `long long`, whichever holds its type, a
 *            floating-point number as a `double`, a text and a pointer as such. A null text is recorded as "(null)". Of a
 *            text whose conversion has a precision no byte behind that is read.
 * Returns 0; ZELK_INV_PARAM3 null recorder; ZELK_INV_PARAM4 a null format, or one with what cannot be recorded: "%n", "*",
 * "%m", wide characters ("%lc", "%ls"), a conversion or length that printf does not define, a width or precision above 1024,
 * numbered conversions beside others or with gaps, one argument as two kinds (nothing is recorded then);
 * ZELK_INV_RECLEN more than 200 arguments; ZELK_NO_MEMORY; the other codes of zk_record_incident. */
int zk_record_message(zk_recorder_t* recorder, const char* cause, const char* details, zk_eid_t eid, const char* format,
                      ...) ZELK_PRINTF_LIKE(5, 6);

/* Closes a recorder; a null one does nothing. */
void zk_close_recorder(zk_recorder_t* recorder);

#ifdef __cplusplus
}
#endif

#endif
