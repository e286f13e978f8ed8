/* SPDX-License-Identifier: MIT */
/* judge.h - what a line is, as far as the database need not find it out. */
#pragma once

#include <string>
#include <string_view>

/* Whether a line is that of an incident with an Error ID, its `key`, byte for byte as zkexport writes it; `cause` is empty for
 * none. Of a few that are, and of all that is something else, it says no: the database will read them. */
bool judge_line(std::string_view line, std::string* key, std::string* cause);
