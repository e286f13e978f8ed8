/* support.h - what the tests share: stacks built in memory, the command run in an environment of its own, and
 * a private /var for what lives under /var/adm. */
#ifndef SUPPORT_H
#define SUPPORT_H

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "zk_int.h"
#include "zk_msg.h"

/* ---- Files -------------------------------------------------------------------------------------------- */

/* A folder of this test program's own, removed when it ends. */
const std::string& scratch();
std::string new_file(const std::string& contents); /* its path, in scratch() */
std::string contents(const std::string& path);

/* ---- Bytes -------------------------------------------------------------------------------------------- */

template <typename T>
std::string image(T value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}
/* The words of a text, separated by blanks. */
std::vector<std::string> words(const std::string& text);
inline std::string text(std::string_view characters) {
  return std::string(characters) + '\0';
}
/* A well-formed Error ID for tests that only compare: 42 characters, told apart by `name`. */
std::string eid(std::string_view name);

/* Arguments of a description as a record holds them. */
inline std::string int_arg(int32_t value, int32_t type = CU_ERROR_ARG_INT) {
  return image(type) + image(value) + std::string(4, '\0');
}
template <typename T>
std::string wide_arg(int32_t type, T value) {
  static_assert(sizeof value == 8);
  return image(type) + image(value);
}
inline std::string string_arg(std::string_view value) {
  return image(int32_t{CU_ERROR_ARG_CHAR_STR}) + text(value);
}

/* ---- Stacks ------------------------------------------------------------------------------------------- */

/* One incident; its body is what follows the length word. Times are seconds since the Epoch. */
struct incident {
  std::string id = eid("one");
  std::string related = "";
  int32_t time = 1170493500; /* 3 February 2007, 09:05:00 UTC */
  std::string process = "proc";
  int32_t pid = 100, parent = 1, thread = 7;
  std::string file = "a.c", file_version = "1.1", product = "prod";
  int32_t line = 12;
  std::string catalog = "";
  int32_t set = 1, number = 1;
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

/* Messages as the command prints them without a catalog. */
inline std::string message(int number) {
  return zk_mesgtbl_zkview_cmd[number];
}
/* The same with its arguments, which are plain texts, characters or numbers. */
std::string told(int number, const std::string& first = "", const std::string& second = "");
/* The message of a failure that has none of its own. */
inline std::string unexpected(const std::string& routine, int code) {
  return told(ZK_MSG_UNEXPECTED, routine, std::to_string(code));
}
inline const std::string HEADING = message(ZK_MSG_HEADING), SEPARATOR = message(ZK_MSG_SEPARATOR),
                         CORRUPT = message(ZK_MSG_REC_CORRUPT);
/* The brief line of an incident with the defaults of `incident`, in UTC. */
std::string line(std::string_view description, std::string_view process = "proc");

/* ---- Running things ----------------------------------------------------------------------------------- */

struct outcome {
  std::string out, err;
  int status; /* exit status, or 1000 + the signal that ended it */
  bool operator==(const outcome&) const = default;
};
std::ostream& operator<<(std::ostream& stream, const outcome& what);

using environment = std::map<std::string, std::string>;
/* Runs a program with nothing in its environment but `variables` and TZ, UTC unless given, and standard input empty. */
outcome run(const std::vector<std::string>& command, const environment& variables = {});
/* Runs the command. */
outcome zkview(std::vector<std::string> arguments, const environment& variables = {});
/* What the command prints about `what` in the view `options`; expects success. */
std::string report(const stack& what, std::vector<std::string> options);
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

/* ---- Traces and processes ----------------------------------------------------------------------------- */

/* Entries of a trace file in order of age, oldest first: what follows "\tZELK Routine: ", up to the next
 * entry, without the line about process and thread. */
std::vector<std::string> trace_entries(const std::string& path);

/* The lines that a message becomes in a trace entry, and a whole entry as trace_entries gives it. */
std::string folded(std::string message);
inline std::string traced(const std::string& routine, const std::string& message) {
  return routine + "\n" + folded(message);
}

/* Runs `work` in a child process, where it may change what it likes; its checks count here. */
void in_child(const std::function<void()>& work);
/* The same without the rights of root. */
void as_ordinary_user(const std::function<void()>& work);

/* Gives this process an empty /var of its own with /var/adm/zelk/stacks and dumps, once. False where the
 * machine forbids it. */
bool has_private_var();
#define NEEDS_PRIVATE_VAR() \
  if (!has_private_var()) GTEST_SKIP() << "the machine forbids a mount namespace"

#endif
