/* SPDX-License-Identifier: MIT */
/* json_reader.h - reads a line of JSON piece by piece, without memory for more than one text.
 *
 * Each routine returns false where the line does not go on with what it reads; the reading is over then. Nothing but
 * JSON passes: texts are UTF-8 without the character 0, numbers have no leading zero, nothing stands behind the end. */
#pragma once

#include <string>
#include <string_view>

struct json_reader_t {
  std::string_view rest;
};

bool read_json(json_reader_t* reader, char mark); /* one of "{[:" */
bool read_json_string(json_reader_t* reader, std::string* text);
bool read_json_number(json_reader_t* reader, std::string_view* number);
bool read_json_word(json_reader_t* reader, std::string_view word); /* null, true or false */
bool skip_json_value(json_reader_t* reader);                       /* nested at most 16 deep */
bool is_json_over(json_reader_t* reader);

/* Goes on to the next element of an array or member of an object, which `end` closes. `*count` is 0 before the first
 * and counts them. Returns false behind the last, where `*is_over` is set, too. */
bool next_json_item(json_reader_t* reader, char end, int* count, bool* is_over);

/* The first character of what comes next, 0 at the end. */
char peek_json(json_reader_t* reader);
