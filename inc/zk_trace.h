/* zk_trace.h - the step "the flag is on, so trace" of every routine. The macros use the routine's own trace
 * pair; with tracing off they cost one comparison, and their arguments are not evaluated. */
#ifndef ZK_TRACE_H
#define ZK_TRACE_H

#include <cstdint>

#include "qx_zelk.h"

/* Writes a trace entry under the routine name `routine`. */
#define ZK_TRACE_AS(routine, ...)                                        \
  do {                                                                   \
    if (debug_active == 1) zk_debug(debug_file, (routine), __VA_ARGS__); \
  } while (0)

/* The same under the name of the enclosing routine. */
#define ZK_TRACE(...) ZK_TRACE_AS(__func__, __VA_ARGS__)

/* The same with the name and the value of the result code `rc` behind the other arguments: for texts that end
 * in "%s(%d)". */
#if defined(__cppcheck__) /* it does not know __VA_OPT__ */
#define ZK_TRACE_RC_AS(routine, rc, ...) ZK_TRACE_AS(routine, __VA_ARGS__)
#else
#define ZK_TRACE_RC_AS(routine, rc, format, ...) \
  ZK_TRACE_AS(routine, format __VA_OPT__(, ) __VA_ARGS__, zk_result_name(rc), (rc))
#endif
#define ZK_TRACE_RC(rc, ...) ZK_TRACE_RC_AS(__func__, rc, __VA_ARGS__)

/* The same, and returns `rc`. */
#define ZK_RETURN_AS(routine, rc, ...)          \
  do {                                          \
    ZK_TRACE_RC_AS(routine, (rc), __VA_ARGS__); \
    return (rc);                                \
  } while (0)
#define ZK_RETURN(rc, ...) ZK_RETURN_AS(__func__, rc, __VA_ARGS__)

/* Name of a result code as it stands in a trace; "" for a number that is none. */
const char* zk_result_name(int result);

/* What stands in a trace for a text that may be null, and for a pointer: its low 32 bits. */
inline const char* zk_trace_text(const char* text) {
  return text != nullptr ? text : "(null)";
}
inline unsigned int zk_trace_pointer(const void* pointer) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer));
}

/* Result for the errno `error` by a routine's own table of pairs, `other` when the table does not list it.
 * The tables differ on purpose and stand beside the routines whose they are. */
struct zk_errno_result {
  int error;
  int result;
};

template <typename Table>
int zk_result_of_errno(int error, const Table& table, int other = ZELK_FAILURE) {
  for (const zk_errno_result& row : table)
    if (row.error == error) return row.result;
  return other;
}

#endif
