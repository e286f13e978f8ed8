/* SPDX-License-Identifier: MIT */
/* zk_open_or_create.cpp - opens a stack for recording, and makes it first where there is none. */
#include "qx_record.h"
#include "zk_layout.h"
#include "zk_trace.h"

int zk_open_or_create_recorder(int debug_active, const char* debug_file, const char* stack_file, int32_t size,
                               zk_recorder_t** recorder) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  const int32_t new_size = size != 0 ? size : int32_t{ZK_STACK_SIZE_MAX};
  if (stack_file == nullptr || *stack_file == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, "Called without a name for the stack\nReturning %s(%d) to caller");
  if (new_size < ZK_STACK_SIZE_MIN || new_size > ZK_STACK_SIZE_MAX)
    return zk_failed(trace, ZELK_INV_PARAM4, "Stack size %d is not within %d and %d\nReturning %s(%d) to caller", size,
                     int{ZK_STACK_SIZE_MIN}, int{ZK_STACK_SIZE_MAX});
  if (recorder == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM5, "Called without a place for the recorder\nReturning %s(%d) to caller");

  int result = zk_open_recorder(debug_active, debug_file, stack_file, recorder);
  if (result == ZELK_FILE_MISSING) {
    result = zk_create_stack(debug_active, debug_file, stack_file, new_size);
    if (result == ZELK_SUCCESS || result == ZELK_FILE_EXIST)
      result = zk_open_recorder(debug_active, debug_file, stack_file, recorder);
  }
  if (result != ZELK_SUCCESS) return zk_failed(trace, result, "Cannot open or create it\nReturning %s(%d) to caller");
  return zk_succeeded(trace, "Open for recording\nReturning %s(%d) to caller");
}
