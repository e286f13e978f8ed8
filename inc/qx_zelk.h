/* SPDX-License-Identifier: MIT */
/* qx_zelk.h - what a program that records incidents links: Error IDs, node addresses, the shared debug trace file
 * and file utilities. Usable from C11 and from C++.
 *
 * Conventions of every routine below:
 *   - Unless its comment says otherwise, the result is one of the codes of ZELK_RESULT_CODES; 0 is success, a failure
 *     is negative.
 *   - `debug_active` and `debug_file` are the trace pair: when the flag is 1 the routine writes what it decides into
 *     the trace file of that name (see zk_debug). A trace that cannot be written is lost; it never changes a result.
 *     With the flag at any other value, `debug_file` may be null.
 *   - Texts are NUL-terminated. Output buffers belong to the caller, who hands them over filled with zeros; a size
 *     given for one is the least that the routine relies on.
 *   - Unless its comment says otherwise, a routine keeps no state and may be called from any thread.
 *   - Environment variables are read with secure_getenv: in a program that has more rights than its caller (set-user-ID,
 *     set-group-ID or file capabilities: secure mode) ZELKDEBUG, ZELKADDR, ZELKPNAME, NLSPATH and LANG count as unset,
 *     also when the program has set them itself. TZ is the C library's, which then opens no zone files but its own.
 *   - Some routines write files. A program that may run under a file size limit must ignore SIGXFSZ, or it is killed by
 *     the write that passes the limit and leaves a half-made file. With the signal ignored the write fails: a new file
 *     or copy is removed again (ZELK_NO_SPACE), a trace entry is lost (ZELK_FILE_CORRUPT).
 */
#ifndef QX_ZELK_H
#define QX_ZELK_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>
#include <sys/types.h>

#ifdef __cplusplus
static_assert(sizeof(off_t) == 8, "compile with -D_FILE_OFFSET_BITS=64");
static_assert(sizeof(time_t) == 8, "compile with -D_TIME_BITS=64");
extern "C" {
#else
_Static_assert(sizeof(off_t) == 8, "compile with -D_FILE_OFFSET_BITS=64");
_Static_assert(sizeof(time_t) == 8, "compile with -D_TIME_BITS=64");
#endif

#if defined(__GNUC__)
#define ZELK_PRINTF_LIKE(text, arguments) __attribute__((format(printf, text, arguments)))
#else
#define ZELK_PRINTF_LIKE(text, arguments)
#endif

/* ---- Result codes -------------------------------------------------------------------------------------------- */

/* X(name, value): every result code, the one list that both the enumeration and the names in a trace come from.
 * A bad parameter n, counted with the trace pair, is -(n + 1); a few routines number their checks differently. */
#define ZELK_RESULT_CODES(X)                                                                 \
  X(ZELK_SUCCESS, 0)                                                                         \
  X(ZELK_FAILURE, -1)    /* unexpected failure */                                            \
  X(ZELK_INV_PARAM1, -2) /* first parameter bad */                                           \
  X(ZELK_INV_PARAM2, -3)                                                                     \
  X(ZELK_INV_PARAM3, -4)                                                                     \
  X(ZELK_INV_PARAM4, -5)                                                                     \
  X(ZELK_INV_PARAM5, -6)                                                                     \
  X(ZELK_INV_PARAM6, -7)                                                                     \
  X(ZELK_INV_PARAM7, -8)                                                                     \
  X(ZELK_INV_PARAM8, -9)                                                                     \
  X(ZELK_INV_PARAM9, -10)                                                                    \
  X(ZELK_INV_PARAMCOMBO, -11) /* parameters that exclude each other */                       \
  X(ZELK_DIR_NO_ACCESS, -13)  /* a directory may not be searched or read */                  \
  X(ZELK_DIR_MISSING, -14)    /* a directory is missing, or a part of its path is not one */ \
  X(ZELK_STALE, -15)          /* stale file handle */                                        \
  X(ZELK_READ_ONLY, -16)      /* read-only file system, or creation not permitted */         \
  X(ZELK_NOT_A_DIR, -17)      /* exists but is not a directory */                            \
  X(ZELK_NO_SPACE, -18)       /* file system too full */                                     \
  X(ZELK_NO_MEMORY, -19)      /* memory exhausted */                                         \
  X(ZELK_TOO_MANY, -20)       /* too many open files, or over quota */                       \
  X(ZELK_LINK_LOOP, -21)      /* too many symbolic links */                                  \
  X(ZELK_NAME_TOO_LONG, -22)  /* file name too long */                                       \
  X(ZELK_IS_A_DIR, -23)       /* is a directory */                                           \
  X(ZELK_FILE_MISSING, -24)   /* file not found */                                           \
  X(ZELK_NO_ACCESS, -25)      /* file access refused */                                      \
  X(ZELK_FILE_CORRUPT, -26)   /* Error Stack or trace file corrupted */                      \
  X(ZELK_FILE_EXIST, -27)     /* file already exists */                                      \
  X(ZELK_LOCK, -28)           /* file lock not obtained */                                   \
  X(ZELK_UNLOCK, -29)         /* file lock not released */                                   \
  X(ZELK_IO_ERROR, -30)       /* read failure during a copy */                               \
  X(ZELK_INV_ENV, -31)        /* environment variable missing or bad */                      \
  X(ZELK_INV_STACKNAME, -32)  /* Error ID yields no Error Stack file name */                 \
  X(ZELK_INV_RECLEN, -33)     /* record length bad */                                        \
  X(ZELK_INV_RECVERSN, -34)   /* record version bad */                                       \
  X(ZELK_REC_CORRUPT, -35)    /* record contents corrupted */                                \
  X(ZELK_INV_FID, -36)        /* Error ID bad or not found */                                \
  X(ZELK_REMOTE_FID, -37)     /* Error ID made on another node */                            \
  X(ZELK_UNSUPPORTED, -99)    /* later version of a format */

#define ZELK_ENUMERATOR(name, value) name = (value),
enum { ZELK_RESULT_CODES(ZELK_ENUMERATOR) };
#undef ZELK_ENUMERATOR

/* A short text for a result code, one line without a full stop, and a text that says so for a number that is none: in the
 * language of LC_MESSAGES, as it is set at the first call, where the message catalog "zelk.cat" is found and has it, else
 * in English. Never null; the text stays valid for the life of the process and must not be freed. Leaves errno as it was.
 * The first call reads the environment: no other thread may change it, or the locale, meanwhile. */
const char* zk_result_text(int result);

/* ---- Places and sizes ---------------------------------------------------------------------------------------- */

#define ZELK_DIR "/var/adm/zelk"
#define ZELK_STACK_DIR ZELK_DIR "/stacks" /* relative Error Stack names are relative to it */
#define ZELK_DUMP_DIR ZELK_DIR "/dumps"   /* copies of dump files */

enum {
  ZELK_EID_LENGTH = 42,      /* characters of an Error ID */
  ZELK_EID_SIZE = 43,        /* the same with the terminator */
  ZELK_PATH_SIZE = 4097,     /* buffer for a path name: 4096 characters and the terminator */
  ZELK_FILE_SLOT_SIZE = 256, /* one name in a list of file names: 255 characters and the terminator */
  ZELK_ADDR_SLOT_SIZE = 46,  /* one address text in a list of addresses, terminator included */
  ZELK_ADDR_LIST_SLOTS = 65, /* as many addresses as the interface query can yield, and an empty slot */
  ZELK_ADDR_CODE_SIZE = 25,  /* an encoded address: 24 characters and the terminator */
  ZELK_DUMP_NAME_SIZE = 4096 /* buffer for the name of a dump file */
};

/* An Error ID: 42 characters of the base-64 alphabet, and the terminator. By position:
 *    0       header: one digit, version and location bits
 *    1 ..  6 entry: the i-node of the Error Stack, the error template label or the syslog selector, by location
 *    7 .. 16 time stamp: 6 digits of seconds, 4 digits of microseconds
 *   17 .. 40 node address
 *   41       address type: "." for IPv4, anything else (written as "/") for IPv6
 * Numbers stand with their least significant digit first, padded with ".", the digit 0. */
typedef char zk_eid_t[ZELK_EID_SIZE];

enum {
  ZELK_LOCATION_TEMPLATE = 0, /* the incident is an entry of the node's Error Log, under an error template */
  ZELK_LOCATION_STACK = 1,    /* it is a record of an Error Stack file */
  ZELK_LOCATION_SYSLOG = 2    /* it is a syslog message */
};

/* ---- Base-64 numbers ----------------------------------------------------------------------------------------- */

/* The 64 digits in the order of their values, and a terminator. */
extern const char base64_table[65];

/* Writes the digits of `convert`, least significant first, and a NUL into `buffer`. At most 6 digits are written, so
 * only the low 36 bits count; 0 gives the empty text. `buffer` holds at least 7 bytes; with a `length` below 5,
 * `length` + 2 are enough, at least 1. The call fails when a digit's index passes `length`: up to `length` + 1 digits
 * are accepted.
 * Returns 0, or -1 with errno EINVAL when `buffer` is null or `length` too small (then the text is empty). */
int zk_l64a_r(uint64_t convert, char* buffer, int length);

/* Returns the value of the whole text `convert`, 0 for a null or empty one. A character outside the alphabet counts
 * as the digit 0; digits beyond 64 bits are lost. */
uint64_t zk_a64l(const char* convert);

/* ---- Fields of an Error ID ----------------------------------------------------------------------------------- *
 * "get" turns a value into a field's text, "conv" a text into the value. The text outputs of the get routines are 2
 * bytes (header), 7 bytes (entry) or 11 bytes (time), zero-filled by the caller. The conv routines read no more than
 * the field's width (the header's: its whole text), nothing past a NUL, and take missing characters as absent. */

/* Header digit from `version_id` (1 or 2) and `location_mask` (ZELK_LOCATION_..., 0 to 2).
 * Returns 0; ZELK_INV_PARAM3 bad version; ZELK_INV_PARAM4 bad location; ZELK_INV_PARAM5 null output. */
int zk_get_base_64_hdr(int debug_active, const char* debug_file, int version_id, int location_mask, char* hdr64rep);

/* Version and location from a header text, which is decoded whole. `*version_id` is set as soon as it is known, also
 * when the location is then refused.
 * Returns 0; ZELK_INV_PARAM3 null or empty text; ZELK_INV_PARAM4, ZELK_INV_PARAM5 null output;
 * ZELK_UNSUPPORTED a version or location of a later format. */
int zk_conv_base_64_hdr(int debug_active, const char* debug_file, const char* hdr64rep, int* version_id,
                        int* location_mask);

/* Entry text from the i-node number of the file `filename` (its low 36 bits).
 * Returns 0; ZELK_INV_PARAM3 null or empty name; ZELK_INV_PARAM4 null output; ZELK_NO_ACCESS, ZELK_FILE_MISSING,
 * ZELK_DIR_MISSING, ZELK_FAILURE when the file's status cannot be had. */
int zk_get_base_64_inode(int debug_active, const char* debug_file, const char* filename, char* inode64rep);

/* Names of the entries of `directory` whose i-node number has these low 36 bits, in directory order. `filename_list`
 * is `filelist_limit` slots of ZELK_FILE_SLOT_SIZE bytes, zero-filled by the caller; names, not paths, are written,
 * and the last byte of a slot never is.
 * Returns 0; ZELK_INV_PARAM3 null or empty directory; ZELK_INV_PARAM4 null or empty text; ZELK_INV_PARAM5 null list
 * or a limit below 1; ZELK_DIR_NO_ACCESS, ZELK_DIR_MISSING, ZELK_FAILURE when the directory cannot be opened;
 * ZELK_FILE_MISSING no entry matches. */
int zk_conv_base_64_inode(int debug_active, const char* debug_file, const char* directory, const char* inode64rep,
                          char* filename_list, int filelist_limit);

/* Entry text from an error template label.
 * Returns 0; ZELK_INV_PARAM4 null output. */
int zk_get_base_64_templ(int debug_active, const char* debug_file, unsigned int template_id, char* templ64rep);

/* Error template label from an entry text.
 * Returns 0; ZELK_INV_PARAM3 null text; ZELK_INV_PARAM4 null output; ZELK_FAILURE when the label is 0, which is
 * stored all the same. */
int zk_conv_base_64_templ(int debug_active, const char* debug_file, const char* templ64rep, unsigned int* template_id);

/* Entry text from a syslog facility in its shifted form (facility number times 8: 0 to 184) and a severity, 0 to 7.
 * Returns 0; ZELK_INV_PARAM3 bad facility; ZELK_INV_PARAM4 bad severity; ZELK_INV_PARAM5 null output. */
int zk_get_base_64_selector(int debug_active, const char* debug_file, int facility, int priority, char* sel64rep);

/* Facility (shifted form) and severity from an entry text; both are written on success only.
 * Returns 0; ZELK_INV_PARAM3 null, empty or malformed text or a value out of range; ZELK_INV_PARAM4,
 * ZELK_INV_PARAM5 null output. */
int zk_conv_base_64_selector(int debug_active, const char* debug_file, const char* sel64rep, int* facility,
                             int* priority);

/* Copies the 6 characters of the entry field of the Error ID `fid` (fewer when it is shorter) to `selector`, without a
 * terminator; does nothing when `selector` is null. */
void zk_selector_substr(const char* fid, char* selector);

/* Time stamp text of the present moment; `*seconds` receives its seconds since the Epoch.
 * Returns 0; ZELK_INV_PARAM3, ZELK_INV_PARAM4 null output; ZELK_FAILURE the clock cannot be read. */
int zk_get_base_64_time(int debug_active, const char* debug_file, char* tod64rep, long* seconds);

/* Seconds since the Epoch and microseconds from a time stamp text.
 * Returns 0; ZELK_INV_PARAM3 null or empty text; ZELK_INV_PARAM4 null output; ZELK_INV_FID when the seconds are 0 or
 * the microseconds above 999999 (`*tbuf` is then cleared). */
int zk_conv_base_64_time(int debug_active, const char* debug_file, const char* tod64rep, struct timeval* tbuf);

/* ---- Error IDs ----------------------------------------------------------------------------------------------- */

/* Decodes the 42-character Error ID `zelkid` of version 1 or 2.
 *   local_fid         1 when the node address in the ID is one of this node's, else 0; never null
 *   version_id        1 or 2
 *   location_mask     ZELK_LOCATION_TEMPLATE, _STACK or _SYSLOG
 *   stack_file_list   stack_file_limit slots of ZELK_FILE_SLOT_SIZE bytes, zero-filled by the caller: the names (not
 *                     paths) of the files in ZELK_STACK_DIR with the recorded i-node. Only for ZELK_LOCATION_STACK
 *                     and an ID of this node; a limit below 1 then is ZELK_INV_PARAM5
 *   err_templ_label   only for ZELK_LOCATION_TEMPLATE
 *   bsd_facility, bsd_priority  syslog facility (number times 8) and severity, only for ZELK_LOCATION_SYSLOG
 *   timestamp         a struct timeval: seconds since the Epoch, microseconds 0 to 999999
 *   ip_addr           16 bytes: the address in network byte order, 4 bytes of it for IPv4
 *   ipv6_flag         0 for IPv4, 1 for IPv6
 * Outputs that the location does not concern stay as they were (a trace shows them, so set them before); after a
 * failure, what earlier steps wrote stays, and a bad time stamp clears `timestamp`.
 * Returns 0; ZELK_FILE_MISSING when no file has that i-node (every other output is valid then);
 * ZELK_INV_PARAM2 a null or empty ID, or one whose length is not 42; ZELK_INV_PARAM3 to ZELK_INV_PARAM9 null
 * version_id, location_mask, stack_file_list, err_templ_label, timestamp, ip_addr, ipv6_flag; ZELK_INV_PARAMCOMBO
 * null bsd_facility or bsd_priority; ZELK_UNSUPPORTED a later version or location; ZELK_INV_FID a bad time stamp;
 * ZELK_INV_PARAM4 also for an address type other than "." and "/"; ZELK_INV_PARAM3 also for a malformed selector;
 * ZELK_FAILURE a label of 0; ZELK_DIR_NO_ACCESS, ZELK_DIR_MISSING, ZELK_FAILURE when ZELK_STACK_DIR cannot be read.
 * Nothing is kept: each call reads the node's interfaces and, for an Error Stack of this node, the directory. */
int zk_decode_eid_2(int debug_active, const char* debug_file, const char* zelkid, int* local_fid, int* version_id,
                    int* location_mask, char* stack_file_list, int stack_file_limit, unsigned int* err_templ_label,
                    int* bsd_facility, int* bsd_priority, void* timestamp, void* ip_addr, int* ipv6_flag);

/* As zk_decode_eid_2, for an Error ID of version 1 that names an Error Stack or an error template. `stack_file` is one
 * slot of ZELK_FILE_SLOT_SIZE bytes. Returns the same codes, less ZELK_INV_PARAMCOMBO; ZELK_UNSUPPORTED for version
 * 2, ZELK_FAILURE for ZELK_LOCATION_SYSLOG. */
int zk_decode_eid(int debug_active, const char* debug_file, const char* zelkid, int* local_fid, int* version_id,
                  int* location_mask, char* stack_file, unsigned int* err_templ_label, void* timestamp, void* ip_addr,
                  int* ipv6_flag);

/* Makes an Error ID of version 2 for an incident that is about to be recorded now.
 *   stack_file       path of the Error Stack file, or null
 *   err_templ_label  error template label, or 0
 *   bsd_facility     syslog facility (number times 8, 0 to 184), or a value out of that range for none
 *   bsd_priority     syslog severity, 0 to 7
 *   timestamp        receives the seconds of the ID's time stamp; not null
 *   zelkid           receives the ID, ZELK_EID_SIZE bytes; not null. Both are written on success only
 * The node address is the value of the environment variable ZELKADDR: 24 characters of encoded address and the type
 * character, as zk_get_ipaddr makes them. Where several locations are given, the last in the order stack, template,
 * syslog is used.
 * Returns 0; ZELK_INV_PARAMCOMBO a stack file together with a template label or a facility of 0 to 23, or no location
 * at all; ZELK_INV_PARAM3 an empty stack file name; ZELK_FAILURE anything else (ZELKADDR missing or not 25
 * characters, the stack file missing, a bad severity).
 * Reads the environment: no other thread may change it meanwhile. */
int zk_generate_eid_2(int debug_active, const char* debug_file, const char* stack_file, unsigned int err_templ_label,
                      int bsd_facility, int bsd_priority, long* timestamp, char* zelkid);

/* As zk_generate_eid_2, for version 1, which makes none of syslog messages: ZELK_INV_PARAMCOMBO when both or neither of
 * `stack_file` and `err_templ_label` are given. */
int zk_generate_eid(int debug_active, const char* debug_file, const char* stack_file, unsigned int err_templ_label,
                    long* timestamp, char* zelkid);

/* ---- Node addresses ------------------------------------------------------------------------------------------ */

/* The IPv4 addresses of this node's network interfaces, in the kernel's order.
 *   findfirst 0      `addr` is a list of slots of ZELK_ADDR_SLOT_SIZE bytes, zero-filled, ZELK_ADDR_LIST_SLOTS of them
 *                    to hold whatever can be found; every address is listed, up or down, loopback or not, and
 *                    `*num_found` raised by one for each. The list ends at the first empty slot
 *   findfirst not 0  `addr` is one slot: the first address that is not a loopback that is up, else the loopback's,
 *                    else empty; `*num_found` is set to 1
 * `num_found` may be null. An interface that vanishes meanwhile is passed over.
 * Returns 0; ZELK_FAILURE when the interfaces cannot be queried (what was listed stays). */
int zk_obtain_ipaddrs(int debug_active, const char* debug_file, char* addr, int findfirst, int* num_found);

/* Returns 0 when `addr` consists of four runs of digits (an empty run counts) separated by ".", else 1. */
int zk_is_addr_ipv6_type(const char* addr);

/* This node's address for an Error ID: 24 characters and a terminator into `ip_addr` (ZELK_ADDR_CODE_SIZE bytes), "."
 * or "/" into `*ipv6_flag`. A node without any IPv4 address gets 24 "." and "/". A failed query is traced into
 * `debug_file`, when that is not null, whatever the flag.
 * Returns 0; ZELK_INV_PARAM3, ZELK_INV_PARAM4 null output; ZELK_FAILURE when the interfaces cannot be queried. */
int zk_get_ipaddr(int debug_active, const char* debug_file, char* ip_addr, char* ipv6_flag);

/* Decodes an encoded address (at most 24 characters are read) of the type `ipv6_flag` into network byte order: 4 bytes
 * at `ip_addr` for ".", 16 for "/".
 * Returns 0; ZELK_INV_PARAM3 null or empty text; ZELK_INV_PARAM4 another type character. */
int zk_conv_ipaddr(int debug_active, const char* debug_file, const char* ip64_rep, char ipv6_flag, void* ip_addr);

/* Looks for the address text `ip_addr` in `ip_list`, slots of ZELK_ADDR_SLOT_SIZE bytes up to an empty one.
 * Returns 0 found; ZELK_FAILURE not found; ZELK_INV_PARAM3 null or empty text; ZELK_INV_PARAM4 null or empty list. */
int zk_test_ipaddr(int debug_active, const char* debug_file, const char* ip_addr, const char* ip_list);

/* ---- Debug trace file ---------------------------------------------------------------------------------------- *
 * A text file of fixed size that all tracing programs share and that is written round and round:
 *    0 .. 35  control line: "ZKTFO=" next-write offset, "ZKTFW=" wrap count, "ZKTFS=" file size, each 5 wide
 *   36 ..     entries, each starting with a byte 0x01; "[END OF FINAL ENTRY]" after the newest, at the next-write
 *             offset; "[FILE RECYCLES HERE]" where writing went back to offset 36 */

/* Values of zk_is_debug_file_set. */
enum { ZELK_TRACE_EXISTS = 1, ZELK_TRACE_MISSING = 2, ZELK_TRACE_UNSET = 3 };

/* Decides from the environment variable ZELKDEBUG whether to trace, and copies its value into `trace_filename`
 * (ZELK_PATH_SIZE bytes).
 * Returns ZELK_TRACE_EXISTS; ZELK_TRACE_MISSING: the file must be made; ZELK_TRACE_UNSET (nothing copied); or, with
 * nothing copied, ZELK_INV_PARAM1 null buffer; ZELK_IS_A_DIR; ZELK_NAME_TOO_LONG; ZELK_DIR_NO_ACCESS; ZELK_LINK_LOOP;
 * ZELK_STALE; ZELK_DIR_MISSING a part of the path is not a directory; ZELK_FAILURE.
 * Reads the environment: no other thread may change it meanwhile. */
int zk_is_debug_file_set(char* trace_filename);

/* Makes the trace file `debug_file`: zk_allocate_file with 16384 bytes, 8192 at the least; its results. */
int zk_create_debug_file(const char* debug_file);

/* Appends one entry to the trace file: time, `interface_name` (the calling routine), process, thread, and the
 * message, of which 254 characters are kept, folded into lines of 72. An entry is cut at 1023 bytes. errno is left as
 * it was.
 * Any number of processes and threads may write to one file: it is locked while an entry is written, and waited for
 * while another process has it locked or leased; the threads of a process take turns. The thread's signals are blocked
 * while the entry is written, but not while it waits: what ends the program ends it then, too. A signal handler that
 * returns ends the wait for the file's lock (ZELK_LOCK), unless it was installed with SA_RESTART; the wait for other
 * threads goes on. The thread is not cancelled before the call returns. A child may be forked at any time, in a signal
 * handler too; one that a handler forks during a wait gives the entry up. A thread that forks waits until the others
 * have written theirs, with its own signal mask; handlers of pthread_atfork may call it.
 * A signal handler must not call it, nor end it by siglongjmp: others would wait for that thread for ever. Neither must a
 * child call it before exec that was made by _Fork or vfork, or forked while another thread converted a time (the C
 * library's lock for that is then taken for ever). TZ is read from the environment.
 * Returns 0; ZELK_INV_PARAM1 to ZELK_INV_PARAM3 a null argument; ZELK_FILE_MISSING, ZELK_NO_ACCESS, ZELK_TOO_MANY,
 * ZELK_DIR_MISSING, ZELK_READ_ONLY, ZELK_LINK_LOOP, ZELK_FAILURE the file cannot be opened; ZELK_LOCK, ZELK_UNLOCK;
 * ZELK_FILE_CORRUPT not a trace file, or it cannot be read or written. */
int zk_debug(const char* trace_filename, const char* interface_name, const char* debug_info_fmt, ...)
    ZELK_PRINTF_LIKE(3, 4);

/* Appends the folded lines of the message to the text in `output_buffer`, at most 510 bytes with the terminator.
 * Returns 0; ZELK_INV_PARAM1, ZELK_INV_PARAM2 null buffer, null format. */
int zk_format_debug_info(char* output_buffer, const char* debug_info_fmt, va_list varargs) ZELK_PRINTF_LIKE(2, 0);

/* Writes the prepared entry `output_buffer` into the trace file open for reading and writing as `fildes`, locked by the
 * caller and positioned at 0, and updates its control line. Leaves the file positioned at 0 on success.
 * Returns 0; ZELK_INV_PARAM1 bad descriptor; ZELK_INV_PARAM2 null entry; ZELK_FILE_CORRUPT. */
int zk_record_debug_info(int fildes, const char* output_buffer);

/* Takes the three numbers of the control line `buf` apart, without checking their ranges: next-write offset, file
 * size, wrap count. Those found before a missing marker are stored.
 * Returns 0; ZELK_INV_PARAM1 to ZELK_INV_PARAM4 a null argument; ZELK_FILE_CORRUPT a marker is missing. */
int zk_get_file_ctrl_info(const char* buf, off_t* record_pos, off_t* end_pos, int* wrapped);

/* Zeroes what a write left of an older entry: from the file's position up to the next entry, when one starts within
 * 1024 bytes. Returns 0; ZELK_INV_PARAM1 bad descriptor; ZELK_FILE_CORRUPT the file cannot be read or written. */
int zk_clear_record_remnant(int fildes);

/* ---- Files --------------------------------------------------------------------------------------------------- */

/* Writes `offset` zero bytes (a length, despite its name) at the descriptor's position.
 * Returns the length, with nothing written when that is below 0; -1 with errno set, what was written stays written, EFBIG
 * when the end would lie beyond the largest offset or, of a length below 0, before the file. */
off_t fclear(int fildes, off_t offset);

/* The largest size in bytes, from `requested_size` down in steps of two blocks, with which a new file `filename`
 * leaves 5% of its file system available; always above `min_size` unless `requested_size` itself fits.
 * Returns 0; ZELK_INV_PARAM3 null name; ZELK_INV_PARAM4 null result; ZELK_DIR_MISSING, ZELK_DIR_NO_ACCESS,
 * ZELK_STALE, ZELK_FAILURE the directory cannot be examined; ZELK_NO_SPACE. */
int zk_determine_max_fsize(int debug_active, const char* debug_file, const char* filename, off_t requested_size,
                           off_t min_size, off_t* file_size);

/* Creates the trace file `filename`, filled with zeros but for its control line, permissions 0666 whatever the umask,
 * with the size that zk_determine_max_fsize allows. A file that exists is left alone and counts as made. On failure no
 * file is left behind. `*actual_size` (may be null) is set when the file was made.
 * Returns 0; ZELK_INV_PARAM3 null name; the codes of zk_determine_max_fsize; ZELK_READ_ONLY creation or its
 * permissions refused; ZELK_TOO_MANY; ZELK_LOCK; ZELK_NO_SPACE; ZELK_FAILURE. */
int zk_allocate_file(int debug_active, const char* debug_file, const char* filename, off_t requested_size,
                     off_t min_size, off_t* actual_size);

/* What `check_file` is. Returns 0 exists and is not a directory (by one mode bit: block devices and sockets count as
 * directories); ZELK_INV_PARAM1 null or empty name; ZELK_IS_A_DIR; ZELK_FILE_MISSING; ZELK_NO_ACCESS;
 * ZELK_DIR_NO_ACCESS, ZELK_DIR_MISSING its directory; ZELK_FAILURE, also for a name of 4096 bytes or more. */
int zk_test_for_file(int debug_active, const char* debug_file, const char* check_file);

/* As zk_test_for_file, but 0 for a directory and ZELK_NOT_A_DIR for anything else that exists. */
int zk_test_for_dir(int debug_active, const char* debug_file, const char* check_dir);

/* Forms the name of a new dump file, ZELK_DUMP_DIR/command.pid.date.time, in `dump_file` (ZELK_DUMP_NAME_SIZE bytes).
 * The command is the value of the environment variable ZELKPNAME. One name a process and second.
 * Returns 0; ZELK_INV_ENV ZELKPNAME unset, empty or with a "/"; ZELK_FILE_EXIST the name is taken; ZELK_FAILURE the
 * name is too long; the codes of zk_test_for_file.
 * Reads the environment: no other thread may change it meanwhile. */
int zk_get_dump_file_name(int debug_active, const char* debug_file, char* dump_file);

/* Copies from one open descriptor to the other until the end of input; both are closed on success and left open on
 * failure. Returns 0; ZELK_IO_ERROR reading failed; ZELK_NO_SPACE, ZELK_FAILURE writing failed. */
int zk_copy_file(int debug_active, const char* debug_file, int input_file, int output_file);

/* Preserves the dump file `dump_input_file` by a copy in ZELK_DUMP_DIR and puts the name to record into
 * `dump_output_file` (ZELK_DUMP_NAME_SIZE bytes): the copy's on success, else the input's own. A half-written copy is
 * removed. Each descriptor it opens is closed once.
 * Returns 0; ZELK_INV_PARAM3 null or empty input name; ZELK_INV_PARAM4 null output; the codes of zk_test_for_file for
 * the input (the output is then left alone), of zk_test_for_dir for the directory, of zk_get_dump_file_name, of
 * zk_copy_file; ZELK_READ_ONLY, ZELK_TOO_MANY, ZELK_NO_SPACE, ZELK_FAILURE a file cannot be opened, ZELK_FAILURE also
 * for an input that is not a regular file.
 * Reads the environment: no other thread may change it meanwhile. */
int zk_make_dump_file_copy(int debug_active, const char* debug_file, const char* dump_input_file,
                           char* dump_output_file);

/* ---- Small utilities ----------------------------------------------------------------------------------------- */

/* Entries of a recording program's array of error flags (ints, not zero when set). */
enum {
  ZELK_FLAG_FILE = 5,       /* the detecting file name is not usable */
  ZELK_FLAG_VERSION = 6,    /* the version is not usable */
  ZELK_FLAG_PRODUCT = 7,    /* the product name is not usable */
  ZELK_FLAG_LINE = 8,       /* the line number is not usable */
  ZELK_FLAG_EVENT_TYPE = 10 /* the event type was not valid */
};

/* Width of the field that zk_make_file_info_msg makes. */
enum { ZELK_FILE_INFO_SIZE = 46 };

/* Writes the 46 characters "product,file,version,line" to `buffer`, padded with blanks, without a terminator; the file
 * is the base name of `detecting_file`. A text that does not fit ends in ">" after its first 45 characters, and the
 * bytes of `buffer` from 46 up to the full text's length are zeroed: the buffer must be as long as the longest text
 * that the arguments can give, at least 46. A null argument is allowed only where its flag in `error_flags` (at
 * least ZELK_FLAG_LINE + 1 ints) is set. Returns 46. */
int zk_make_file_info_msg(int debug_active, const char* debug_file, char* buffer, const char* lpp_name,
                          const char* detecting_file, const char* sid_level, int line_pos, int* error_flags);

/* Event types. */
enum { ZELK_DEBUG = 6 };

/* Stores the syslog severity of an event of type `event_type` in `*bsd_pri`. A type outside 0 to 6 counts as
 * ZELK_DEBUG and, when `track_errors` is 1, sets error_flags[ZELK_FLAG_EVENT_TYPE]; otherwise `error_flags` may be
 * null. */
void zk_determine_bsd_priority(int debug_active, const char* debug_file, int event_type, int* bsd_pri, int track_errors,
                               int* error_flags);

#ifdef __cplusplus
}
#endif

#endif
