/* SPDX-License-Identifier: MIT */
/* fuzz.h - what the fuzz targets share. A target builds what its input stands for, hands it to the product
 * and checks what the product promises; the sanitizers see to the rest. A failed check aborts: the line is in
 * the stack that libFuzzer prints. */
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "qx_cu.h"
#include "zk_int.h"

#define FUZZ_EXPECT(condition) ((condition) ? void() : std::abort())

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

/* Reports are made in full, but nobody reads them. A time zone without a file keeps the file system out. */
extern "C" int LLVMFuzzerInitialize(int*, char***);
int LLVMFuzzerInitialize(int*, char***) {
  FUZZ_EXPECT(dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO) == STDOUT_FILENO);
  return setenv("TZ", "UTC0", 1);
}

/* An open file in memory that holds `contents`, and a name by which it can be opened. */
inline int fuzz_file(const std::string& contents) {
  const int fildes = memfd_create("fuzz", MFD_CLOEXEC);
  FUZZ_EXPECT(pwrite(fildes, contents.data(), contents.size(), 0) == static_cast<ssize_t>(contents.size()));
  return fildes;
}
inline std::string fuzz_path(int fildes) {
  return "/proc/self/fd/" + std::to_string(fildes);
}

/* Takes what such a file holds, and closes it. */
inline std::string fuzz_contents(int fildes) {
  std::string contents(static_cast<size_t>(lseek(fildes, 0, SEEK_END)), '\0');
  FUZZ_EXPECT(pread(fildes, contents.data(), contents.size(), 0) == static_cast<ssize_t>(contents.size()));
  close(fildes);
  return contents;
}

/* The text that a description comes out as. */
inline std::string fuzz_message(const cu_error_t& error) {
  char* text = nullptr;
  FUZZ_EXPECT(cu_get_errmsg_1(&error, &text) == 0 && text != nullptr);
  const std::string copy = text;
  free(text);
  return copy;
}

/* Release a list of the command's, which it leaves to its end, and return the number of records. */
inline size_t fuzz_release(zk_stack_rec_t* element) {
  if (element == nullptr) return 0;
  const size_t others = fuzz_release(element->related) + fuzz_release(element->next);
  free(element->record);
  free(element);
  return others + 1;
}
inline size_t fuzz_release(zk_proc_list_t* process) {
  if (process == nullptr) return 0;
  const size_t count = fuzz_release(process->records) + fuzz_release(process->next);
  free(process);
  return count;
}

/* A trace file for the routines that are tried with tracing on. */
inline const char* fuzz_trace() {
  static const std::string path = fuzz_path(fuzz_file("ZKTFO=36    ZKTFW=0     ZKTFS=8192 \n"));
  return path.c_str();
}
