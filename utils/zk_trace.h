/* SPDX-License-Identifier: MIT */
/* zk_trace.h - how a routine traces what it decides. A public routine makes a zk_trace_t of the trace pair that it is
 * given and of its own name, and hands that on to the steps that work for it:
 *
 *   const zk_trace_t trace = {debug_active, debug_file, __func__};
 *   if (fildes == nullptr) return zk_failed(trace, ZELK_INV_PARAM3, "... - returning %s(%d) to caller");
 *
 * With tracing off each costs one comparison, and what the text would show is not evaluated. */
#pragma once

#include "qx_zelk.h"

/* The trace pair, and the routine whose name the entries bear. */
struct zk_trace_t {
  int active; /* tracing is on when it is 1 */
  const char* file;
  const char* routine;
};

/* Traces a text with its arguments, as printf takes them: zk_trace(trace, text, ...). */
#define zk_trace(trace, ...) \
  ((trace).active == 1 ? static_cast<void>(zk_debug((trace).file, (trace).routine, __VA_ARGS__)) : static_cast<void>(0))

/* Traces a text that does not tell the result, and is that result. It may be made of errno, which a trace leaves alone. */
#define zk_returned(trace, result, ...) (zk_trace(trace, __VA_ARGS__), static_cast<int>(result))

/* Traces a text that ends in a result's name and value, "%s(%d)", which are supplied, and is that result. */
#define zk_failed(trace, result, ...) \
  (zk_trace(trace, __VA_ARGS__, zk_result_name(result), static_cast<int>(result)), static_cast<int>(result))
#define zk_succeeded(trace, ...) zk_failed(trace, ZELK_SUCCESS, __VA_ARGS__)

/* Name of a result code as it stands in a trace; "" for a number that is none. */
const char* zk_result_name(int result);

/* What stands in a trace for a pointer: its low 32 bits. */
inline unsigned int zk_trace_pointer(const void* pointer) {
  return static_cast<unsigned int>(reinterpret_cast<uintptr_t>(pointer));
}

/* Result for the errno `error` by a routine's own table of pairs, `other` when the table does not list it.
 * The tables differ on purpose and stand beside the routines whose they are. */
struct zk_errno_result_t {
  int error;
  int result;
};

template <typename Table>
int zk_result_of_errno(int error, const Table& table, int other = ZELK_FAILURE) {
  for (const zk_errno_result_t& row : table)
    if (row.error == error) return row.result;
  return other;
}
