/* SPDX-License-Identifier: MIT */
/* cursor.h - the file that says how far stacks have been given out. */
#pragma once

#include <map>
#include <string>
#include <vector>

#include "unread.h"

/* Marks of stacks, by their full paths. */
struct cursor_t {
  std::string file; /* empty: there is none, and nothing is kept */
  std::map<std::string, mark_t> marks;
};

/* Reads the cursor's file; one that does not exist has no marks. Returns false with `*reason` when it is damaged, or no
 * file that a cursor may replace. */
bool load_cursor(cursor_t* cursor, std::string* reason);

/* Forgets the marks of stacks that have gone from the stacks' folder, once there are more than a hundred; `there`, in
 * order, are the names that it has. Fewer are kept, as one may come back. Returns whether there were. */
bool forget_gone(cursor_t* cursor, const std::vector<std::string>& there);

/* Renames a new file over the cursor's, if it has one. Returns false when it cannot be written, which has been said. It is
 * tried before the first line, too: what is given and not marked would be given again. */
bool save_cursor(const cursor_t& cursor);

/* The mark of the stack with that path, open as `fildes`: its own, or that of another path from which its file has been
 * moved. Null for none. */
const mark_t* find_mark(const cursor_t& cursor, const std::string& path, int fildes);

/* Gives a path the mark of its file, which has been moved there. The paths that it has left keep that of the file before it,
 * which may have changed places with it, or stand between two names. */
void move_mark(cursor_t* cursor, const std::string& path, mark_t mark);

/* Gives each of the paths the mark of the file that it leads to now, before what has the file's former path takes its
 * place. */
void move_marks(cursor_t* cursor, const std::vector<std::string>& paths);
