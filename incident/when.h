/* SPDX-License-Identifier: MIT */
/* when.h - a time as somebody writes it on a command line. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/* Parses a time as journalctl(1) takes it: a date, a time of day or both, in local time or with "Z" or an offset; now,
 * today, yesterday, tomorrow; how long before or after `now`; "@" and seconds. A fraction counts as the next second.
 * Returns true with `*seconds` since the Epoch, or false with `*place`, the index of what cannot be read. */
bool parse_when(std::string_view text, int64_t now, int64_t* seconds, size_t* place);
