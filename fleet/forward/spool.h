/* SPDX-License-Identifier: MIT */
/* spool.h - the lines of the spool folder, in their order. Its files are named for the nanosecond in which they were begun, NUMBER.json;
 * the newest one may still grow. A file is deleted when all its lines have been acknowledged and another has been begun. */
#pragma once

#include <sys/types.h>

#include <deque>
#include <string>

/* Lines that have been given out, and are not acknowledged yet: so far in a file. */
struct spool_mark_t {
  std::string name;
  off_t end;
  bool is_line; /* else what was passed over, which nobody acknowledges */
  bool is_last; /* of its file: with it the file can go */
};

struct spool_t {
  std::string folder;
  std::string state; /* a file that says how far lines have been acknowledged, for the next start; empty for none */

  std::string acknowledged_name; /* in this file all before this offset has been acknowledged */
  off_t acknowledged;
  bool is_noted; /* in `state` */

  int fildes = -1; /* the file that is read, which is `name` */
  std::string name;
  off_t at;          /* of the next line */
  std::string read;  /* bytes behind `at` */
  std::string begun; /* what is kept of a line that is too long, and where it begins, once the rest of that is passed */
  off_t begun_at;
  bool has_successor;
  std::deque<spool_mark_t> marks;
};

struct spool_line_t {
  std::string line;
  std::string place; /* FILE:OFFSET */
};

/* Begins with the oldest file, in the one that `state` names behind what it says. */
void open_spool(spool_t* spool);

/* Gives the next line, without its newline, and of one that is longer than `limit` bytes as many: it is none of zkexport, and is kept
 * where it is rejected. A line that was cut short is passed over. Returns false when none is there yet. */
bool next_line(spool_t* spool, size_t limit, spool_line_t* line);

/* The oldest line that was given out has been acknowledged. */
void acknowledge_line(spool_t* spool);

/* What has not been acknowledged is given out once more. */
void rewind_spool(spool_t* spool);

/* Notes in `state` how far lines have been acknowledged, if that has changed. */
void note_acknowledged(spool_t* spool);
