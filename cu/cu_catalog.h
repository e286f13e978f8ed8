/* SPDX-License-Identifier: MIT */
/* cu_catalog.h - finds and reads the message catalog that a message names. */
#pragma once

#include <stdint.h>

/* The text of message `number` of set `set` in the catalog `name`, to be released with free(). A name with a
 * "/" is a path; another one is looked for where catopen() looks, for the locale of the messages and then for
 * LANG, and the first file that is a catalog is the one. Null when the catalog or the message cannot be had:
 * nothing but a regular file is opened, and a file that does not hold together, or a text of 64 KiB or more,
 * counts as absent. */
char* cu_read_message(const char* name, int32_t set, int32_t number);
