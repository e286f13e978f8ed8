/* SPDX-License-Identifier: MIT */
/* support.h - what the tests share: stacks built in memory, programs run in an environment of their own, traces, golden
 * files, and a private /var for what lives under /var/adm. */
#ifndef SUPPORT_H
#define SUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "zk_int.h"

/* ---- Files --------------------------------------------------------------------------------------------------- */

/* A folder of this test program's own, removed when it ends. */
const std::string& scratch();
std::string new_file(const std::string& contents); /* its path, in scratch() */
std::string contents(const std::string& path);
size_t open_descriptors();

/* ---- Bytes --------------------------------------------------------------------------------------------------- */

template <typename T>
std::string image(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}
inline std::string text(std::string_view characters) {
  return std::string(characters) + '\0';
}
/* The words of a text, separated by blanks. */
std::vector<std::string> words(const std::string& text);
std::string replaced(std::string text, const std::string& what, const std::string& by);
/* A well-formed Error ID for tests that only compare: 42 characters, told apart by `name`. */
std::string eid(std::string_view name);

/* Arguments of a description as a record holds them; what a 32-bit value leaves of its 8 bytes is not zero. */
inline std::string int_arg(int32_t value, int32_t type = 0) {
  return image(type) + image(value) + "left";
}
template <typename T>
std::string wide_arg(int32_t type, T value) {
  static_assert(sizeof value == 8);
  return image(type) + image(value);
}
inline std::string string_arg(std::string_view value) {
  return image(int32_t{5}) + text(value);
}

/* Keeps memory that its routine never releases, such as the lists of a walk, in sight of leak detection. */
void keep(const void* memory);

/* ---- Stacks -------------------------------------------------------------------------------------------------- */

/* One incident; its body is what follows the length word. Times are seconds since the Epoch. */
struct incident {
  std::string id = eid("one");
  std::string related = "";
  int32_t time = 1170493500; /* 3 February 2007, 09:05:00 UTC */
  std::string process = "proc";
  int32_t pid = 100, parent = 41, thread = 7;
  std::string file = "a.c", file_version = "1.1", product = "prod";
  int32_t line = 12;
  std::string catalog = "";
  int32_t set = 3, number = 14;
  std::string description = "text";
  int32_t arg_count = 0;
  std::string args = "";
  std::string details = "details";
  int32_t version = 0;

  std::string body() const;
};

/* A stack file in the making. Records are appended at write_pos; fields may be changed at will before use. */
struct stack {
  explicit stack(int32_t size = 8192);
  stack& add(const incident& what) { return add_raw(what.body()); }
  stack& add(std::string_view name) { return add({.id = eid(name), .description = std::string(name)}); }
  /* An incident of its own, caused by another. */
  stack& add(std::string_view name, std::string_view cause) {
    return add({.id = eid(name), .related = eid(cause), .description = std::string(name)});
  }
  stack& add_raw(std::string_view body) { return add_raw(static_cast<int32_t>(body.size()), body); }
  stack& add_raw(int32_t length, std::string_view body);
  /* The next record goes to records_start; what is added before counts as the older lap. */
  stack& wrap();
  /* The whole file, header included. */
  std::string bytes() const { return image(version) + image(header) + area; }
  /* Path of a file that holds bytes(), removed when the test program ends. */
  std::string file() const { return new_file(bytes()); }

  int32_t version = 0;
  zk_estack_v1_header_t header;
  std::string area; /* from offset 24 */
};

/* ---- What the command prints --------------------------------------------------------------------------------- */

inline const std::string
    HEADING = "TIMESTAMP    PROCESS          DESCRIPTION\n",
    SEPARATOR = "\n------------------------------------------------------------\n\n",
    RECORD_CORRUPT =
        "Remaining record contents appear to be corrupted.  Unable to display\nremaining record information.\n",
    NO_MEMORY = "2615-701 zkview Error: Memory allocation failure. Exiting.\n",
    STACK_CORRUPT =
        "2615-719 zkview Error: The ZELK Error Stack file appears to be\n\t corrupted.  Ending the report of the ZELK "
        "Error Stack file\n\t contents at this point.\n";
/* The brief line of an incident with the defaults of `incident`, in UTC. */
std::string line(std::string_view description, std::string_view process = "proc");
/* A brief report of such lines, for descriptions separated by blanks. */
std::string lines(const std::string& descriptions);
/* Message 2615-713. */
std::string unexpected(const std::string& routine, int code);

/* ---- Running things ------------------------------------------------------------------------------------------ */

struct outcome {
  std::string out, err;
  int status; /* exit status, or 1000 + the signal that ended it */
  bool operator==(const outcome&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const outcome& what);

using environment = std::map<std::string, std::string>;
/* Runs a program with nothing in its environment but `variables` and TZ, UTC unless given, and standard input empty. */
outcome run(const std::vector<std::string>& command, const environment& variables = {});
/* Runs a line of the shell in scratch(), where `zkview` is the command. FAULT as fault_shim.cpp takes it. */
outcome shell(const std::string& line, environment variables = {});
/* Runs the command, once more with tracing, which must make no difference. */
outcome zkview(std::vector<std::string> arguments, const environment& variables = {});
/* The same with a stack. */
outcome view(const stack& what, std::vector<std::string> options, const environment& variables = {});
/* A report that succeeds, and one that ends at a damaged place. */
inline outcome good(const std::string& shown) {
  return {shown, "", 0};
}
inline outcome corrupt(const std::string& shown) {
  return {shown, STACK_CORRUPT, 24};
}
/* The program under test, or another one of this build: "zkview", "record_incidents", ... */
inline std::string program(const std::string& name) {
  return std::string(PROGRAM_FOLDER "/") + name;
}
/* What `work` prints on standard output. */
template <typename Work>
std::string printed(Work&& work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

/* ---- Traces -------------------------------------------------------------------------------------------------- */

/* Entries of a trace file in order of age, oldest first: what follows "\tZELK Routine: ", up to the next
 * entry, without the line about process and thread. */
std::vector<std::string> trace_entries(const std::string& path);

/* The lines that a message becomes in a trace entry, and a whole entry as trace_entries gives it. */
std::string folded(std::string message);
inline std::string traced(const std::string& routine, const std::string& message) {
  return routine + "\n" + folded(message);
}

/* ---- Golden files -------------------------------------------------------------------------------------------- */

/* Compares `text` with tests/golden/NAME.golden, in which FOLDER stands for scratch(); with RENEW_GOLDEN set in the
 * environment the file is written anew. */
void expect_golden(const std::string& name, const std::string& text);

/* ---- Processes ----------------------------------------------------------------------------------------------- */

/* Runs `work` in a child process, where it may change what it likes; its checks count here. */
void in_child(const std::function<void()>& work);
/* The same without the rights of root. */
void as_ordinary_user(const std::function<void()>& work);

/* Gives this process an empty /var of its own with /var/adm/zelk/stacks and dumps, once. False where the
 * machine forbids it. */
bool has_private_var();
#define NEEDS_PRIVATE_VAR() \
  if (!has_private_var()) GTEST_SKIP() << "the machine forbids a mount namespace"

/* Faults can be had in the command where a library can be preloaded into it. */
#define NEEDS_FAULTS() \
  if (*FAULT_SHIM == '\0') GTEST_SKIP() << "nothing can be preloaded into this build of the command"
#define NEEDS_NATIVE() \
  if (*EMULATOR != '\0') GTEST_SKIP() << "an emulator has descriptors, locks and signals of its own"

#endif
