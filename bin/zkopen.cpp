/* SPDX-License-Identifier: MIT */
/* zkopen.cpp - opens an Error Stack: by its name, or by an Error ID that was recorded in it. */
#include "zkopen.h"

#include <unistd.h>

#include <cstring>

#include "zk_stack_file.h"
#include "zkprint.h"

int zk_open_stack_by_name(int debug_active, const char* debug_file, int* fildes, const char* stack_file) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  if (fildes == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM3, "Called with NULL value for fildes pointer - returning %s(%d) to caller");
  if (stack_file == nullptr || *stack_file == '\0')
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "stack_file parameter is NULL or references NULL value - returning %s(%d) to the caller");

  const zk_stack_path_t path = zk_stack_path(stack_file);
  int result = zk_open_stack_path(trace, path, fildes);
  if (result == ZELK_SUCCESS) zk_trace(trace, "ZELK Error Stack file \"%s\" successfully opened", path.data());
  return result;
}

int zk_find_candidates(const zk_trace_t& trace, const char* fid, zk_candidates_t* candidates) {
  std::array<char, 16> address = {};
  timeval timestamp = {};
  int is_local = 0, version = 0, location = 0, facility = 0, priority = 0, is_ipv6 = 0;
  unsigned int template_id = 0;

  if (fid == nullptr || *fid == '\0')
    return zk_failed(trace, ZELK_INV_PARAM4,
                     "fid parameter is NULL or references NULL value - returning %s(%d) to the caller");
  if (std::strlen(fid) != ZELK_EID_LENGTH)
    return zk_failed(trace, ZELK_INV_FID, "ZELK Error ID \"%s\"is not correct size\nReturning %s(%d) to the caller",
                     fid);

  int result =
      zk_decode_eid_2(trace.active, trace.file, fid, &is_local, &version, &location, candidates->data(),
                      ZK_CANDIDATES_MAX, &template_id, &facility, &priority, &timestamp, address.data(), &is_ipv6);
  if (result <= ZELK_INV_PARAM2 && result >= ZELK_INV_PARAMCOMBO) return ZELK_FAILURE;
  if (result != ZELK_SUCCESS) return result;
  if (location != ZELK_LOCATION_STACK)
    return zk_failed(trace, ZELK_INV_FID,
                     "ZELK Error ID \"%s\" not generated from an ZELK Error Stack - returning %s(%d)", fid);
  if (is_local == 0)
    return zk_failed(trace, ZELK_REMOTE_FID, "ZELK ID \"%s\" was generated remotely\nReturning %s(%d) to caller", fid);
  if ((*candidates)[0] == '\0')
    return zk_failed(trace, ZELK_INV_STACKNAME,
                     "ZELK Error ID \"%s\" yielded a NULL stack file name - returning %s(%d) to caller", fid);
  return ZELK_SUCCESS;
}

int zk_open_stack_with_fid(int debug_active, const char* debug_file, int* fildes, const char* fid, nl_catd catfd) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  zk_candidates_t candidates = {};
  if (fildes == nullptr)
    return zk_failed(trace, ZELK_INV_PARAM3, "Called with NULL value for fildes pointer - returning %s(%d) to caller");
  int result = zk_find_candidates(trace, fid, &candidates);
  if (result != ZELK_SUCCESS) return result;
  result = zk_scan_files_for_fid(debug_active, debug_file, fid, candidates.data(), ZK_CANDIDATES_MAX, fildes, nullptr,
                                 catfd);
  return result == ZELK_INV_FID ? int{ZELK_FILE_MISSING} : result;
}

int zk_scan_files_for_fid(int debug_active, const char* debug_file, const char* fid, const char* stack_file_list,
                          int stack_list_limit, int* fildes_to_use, char** correct_file, nl_catd catfd) {
  const zk_trace_t trace = {debug_active, debug_file, __func__};
  auto slot = [&](int index) { return stack_file_list + ptrdiff_t{index} * ZELK_FILE_SLOT_SIZE; };
  if (fid == nullptr || *fid == '\0')
    return zk_failed(trace, ZELK_INV_PARAM3, "Invalid value of 'fid' - returning %s(%d)");
  if (stack_file_list == nullptr || *stack_file_list == '\0')
    return zk_failed(trace, ZELK_INV_PARAM4, "No valid file names detected in array at address 0x%x - returning %s(%d)",
                     zk_trace_pointer(stack_file_list));

  int count = 0;
  while (count < stack_list_limit && *slot(count) != '\0') ++count;
  for (int index = 0; index < count; ++index) {
    const zk_stack_path_t path = zk_stack_path(slot(index), ZELK_FILE_SLOT_SIZE - 1);
    int fildes = -1;
    int result = zk_open_stack_path(trace, path, &fildes);
    if (result != ZELK_SUCCESS) return result;

    if (count == 1) {
      zk_trace(trace, "Using file \"%s\" without checking for ZELK ID", path.data());
    } else {
      zk_trace(trace, "Checking file \"%s\" for ZELK ID \"%s\"", path.data(), fid);
      result = zk_dump_stack(debug_active, debug_file, 0, 0, fid, 1, fildes, catfd);
      if (result != ZELK_SUCCESS) close(fildes);
      if (result == ZELK_INV_FID) continue;
      if (result != ZELK_SUCCESS) return ZELK_FAILURE;
      zk_trace(trace, "Entry found in file \"%s\"", path.data());
    }
    if (correct_file != nullptr) {
      close(fildes);
      *correct_file = const_cast<char*>(slot(index)); /* the caller's own list */
    } else {
      *fildes_to_use = fildes;
    }
    return ZELK_SUCCESS;
  }
  return zk_failed(trace, ZELK_INV_FID, "FID \"%s\" not found in any file - returning %s(%d)", fid);
}
