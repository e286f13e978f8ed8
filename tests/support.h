/* SPDX-License-Identifier: MIT */
/* support.h - what the tests share: stacks built in memory, programs run in an environment of their own, traces, golden
 * files, and a private /var for what lives under /var/adm. */
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <thread>
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
/* The words of a text, separated by blanks; its first one, and what follows that. */
std::vector<std::string> words(const std::string& text);
std::pair<std::string, std::string> split(const std::string& line);
/* A text of a golden file, in which a newline stands as "\\n", and any byte as in "\\x9b". */
std::string unescaped(std::string text);
std::string replaced(std::string text, const std::string& what, const std::string& by);
/* A well-formed Error ID for tests that only compare: 42 characters, told apart by `name`. */
std::string eid(std::string_view name);

/* Arguments of a description as a record holds them; what a 32-bit value leaves of its 8 bytes is not zero. */
inline std::string int_arg(int32_t value, int32_t type = 0) {
  return image(type) + image(value) + "left";
}
template <typename T>
std::string wide_arg(int32_t type, T value) {
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
  stack& add(const incident& what) { return add_raw(static_cast<int32_t>(what.body().size()), what.body()); }
  stack& add(std::string_view name) { return add({.id = eid(name), .description = std::string(name)}); }
  /* An incident of its own, caused by another. */
  stack& add(std::string_view name, std::string_view cause) {
    return add({.id = eid(name), .related = eid(cause), .description = std::string(name)});
  }
  stack& add_raw(int32_t length, const std::string& body) { return add_bytes(image(length) + body); }
  stack& add_bytes(const std::string& record); /* with its length word */
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

/* As a golden file describes them. A record, with its length word, by its fields, each after two blanks: "NAME  FIELD
 * VALUE  ..."; "cut TEXT" ends it behind that text, "fill N" gives it N bytes by more details, "length N" is for a length word that is wrong. A stack, by lines
 * "record ...", "records COUNT", "wrap", "FIELD VALUE" of its header, "word OFFSET VALUE" for what is to stand there in
 * the end, and "bytes N" for a file that ends early. */
std::string recorded(const std::string& fields);
std::string described_stack(const std::string& description);

/* ---- What the command prints --------------------------------------------------------------------------------- */

inline const std::string HEADING = "TIMESTAMP    PROCESS          DESCRIPTION\n",
                         SEPARATOR = "\n------------------------------------------------------------\n\n";
/* The brief line of an incident with the defaults of `incident`, in UTC. */
std::string line(std::string_view description);
/* A brief report of such lines, for descriptions separated by blanks. */
std::string lines(const std::string& descriptions);

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
/* Runs a line of the shell in scratch(), where `zkview` is the command and CATALOGS the folder of the translations. FAULT
 * as fault_shim.cpp takes it. */
outcome shell(const std::string& line, environment variables = {});
/* Runs the command, once more with tracing, which must make no difference. */
outcome zkview(std::vector<std::string> arguments, const environment& variables = {});
/* The same with a stack. */
outcome view(const stack& what, std::vector<std::string> options, const environment& variables = {});
inline outcome good(const std::string& shown) {
  return {shown, "", 0};
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

/* A trace file without an entry: the writers make do with its control line. */
inline const std::string EMPTY_TRACE = "ZKTFO=36    ZKTFW=0     ZKTFS=16384\n";

/* Entries of a trace file in order of age, oldest first: what follows "\tZELK Routine: ", up to the next
 * entry, without the line about process and thread. */
std::vector<std::string> trace_entries(const std::string& path);

/* ---- Golden files -------------------------------------------------------------------------------------------- */

/* Expects of a golden file that it says `now`; with RENEW_GOLDEN set in the environment (script/golden) it is written anew. */
void expect_golden(const std::string& path, const std::string& now);

/* ---- Processes ----------------------------------------------------------------------------------------------- */

/* Waits until a thread of this process sleeps: it is where it waits. */
void await_sleep(pid_t thread);
/* A thread that does something once the calling one waits. */
std::thread once_asleep(const std::function<void()>& action);
/* Runs `work` in a child process, where it may change what it likes; its checks count here. */
void in_child(const std::function<void()>& work);

/* Gives this process an empty /var of its own with /var/adm/zelk/stacks and dumps, once. False where the
 * machine forbids it. */
bool has_private_var();
/* Whether the machine has a program, or "stacks-directory" (/var as above), "faults", "native" and other abilities. */
bool has(const std::string& ability);
#define NEEDS_PRIVATE_VAR() \
  if (!has_private_var()) GTEST_SKIP() << "the machine forbids a mount namespace"
