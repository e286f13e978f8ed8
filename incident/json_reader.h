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

bool read_json_string(json_reader_t* reader, std::string* text);
bool read_json_number(json_reader_t* reader, std::string_view* number);
bool read_json_word(json_reader_t* reader, std::string_view word); /* null, true or false */
bool skip_json_value(json_reader_t* reader);                       /* nested at most 16 deep */
bool is_json_over(json_reader_t* reader);

/* The elements of an array or members of an object that is being read. */
struct json_items_t {
  char end;      /* what closes it; 0 where there is none */
  bool is_first; /* no comma comes before the next one */
  bool is_over;  /* it has been read whole */
};

/* Begin with '[' or '{', and go on to the next element, or member behind its key. Behind the last one these return false,
 * too, with `is_over` set. */
json_items_t begin_json_items(json_reader_t* reader, char bracket);
bool next_json_element(json_reader_t* reader, json_items_t* elements);
bool next_json_member(json_reader_t* reader, json_items_t* members, std::string* key);

/* The first character of what comes next, 0 at the end. */
char peek_json(json_reader_t* reader);
