/* SPDX-License-Identifier: MIT */
/* export.h - what zkexport is asked for, the formats in which it answers, and what they share. */
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "selection.h"
#include "stack_reader.h"

inline constexpr char EXPORT_NAME[] = "zkexport";

struct export_request_t;

/* A format, by its name on the command line. `give` gives out what the request asks for and returns the exit status. */
struct format_t {
  const char* name;
  int (*give)(const zk_trace_t& trace, const export_request_t& request);
  bool can_follow; /* and begin at a cursor, and go on behind what its output holds */
};

/* The command line. */
struct export_request_t {
  const format_t* format;
  std::vector<std::string> stacks;
  std::string id; /* of the one incident that is wanted, empty for all */
  bool is_chain;  /* all that belongs to it is wanted, too */
  bool is_every;  /* all stacks of this node */
  bool is_input;  /* incidents come from standard input */
  bool is_follow;
  int32_t largest; /* size of a stack that is followed, in bytes */
  selection_t selection;
  std::string cursor_file; /* empty for none */
  std::string output;      /* a file in place of standard output, empty for none */
  bool has_colours;
};

/* All formats; the first is the one that is given unless another is asked for. */
std::span<const format_t> formats();

/* The format of that name, null for none. */
const format_t* find_format(std::string_view name);

/* How the formats are given. */
int give_json(const zk_trace_t& trace, const export_request_t& request);
int give_tree(const zk_trace_t& trace, const export_request_t& request);
int give_dot(const zk_trace_t& trace, const export_request_t& request);
int give_html(const zk_trace_t& trace, const export_request_t& request);

/* Gives lines of JSON as incidents are recorded, until SIGTERM or SIGINT. Returns the exit status. */
int follow_json(const zk_trace_t& trace, const export_request_t& request);

/* The names of the stacks that are asked for. Returns the exit status, not 0 when they cannot be had, which has been
 * said. */
int stacks_to_export(const zk_trace_t& trace, const export_request_t& request, std::vector<std::string>* names);

/* Ends the reading of a stack, and says so where the one incident that was asked for is no longer there. Returns what is
 * wrong with the stack. */
damage_t end_reading(stack_reader_t* reader);

/* Notes what ended the reading of a stack too early, which is said where no format has a place for it: as a line of JSON,
 * appended to `lines`. Returns the worse of `status` and that of the damage. */
int report_damage(const export_request_t& request, const std::string& name, const damage_t& damage, int status,
                  std::string* lines);

/* Whether the file holds an Error Stack: what is written there would be the end of it. */
bool holds_stack(const char* name);

/* Makes the file that the request asks for standard output, now or once again. Returns false when it cannot be opened,
 * which has been said. */
bool open_output(const export_request_t& request);

/* Writes on standard output, at once. Returns false when that fails, which has been said. */
bool write_out(std::string_view text);

/* Says in one line on standard error what is wrong with `what`. Returns STATUS_FAILED. */
int complain(std::string_view what, std::string_view reason);

/* The same of a stack, by its full path. Returns STATUS_FAILED. */
int complain_of_stack(const std::string& name, const std::string& reason);

/* The name of a file that was named on the command line, from the root on. */
std::string full_path(const std::string& file);

/* The folder that holds what a path names. */
std::string folder_of(const std::string& path);

/* Replaces the path of a link by the one that it leads to. Returns false where it is none. */
inline constexpr int LINKS_MAX = 40; /* more in a row are not followed by Linux either */
bool follow_link(std::string* path);
