/* SPDX-License-Identifier: MIT */
/* json_writer.h - writing lines of JSON, an object each, which no recorded byte can break. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

struct json_writer_t {
  std::string* lines;
  bool is_first; /* no comma comes before what is written next */
};

/* Begin and end the object that is a line at the end of `lines`. */
json_writer_t begin_json_line(std::string* lines);
void end_json_line(json_writer_t* writer);

/* Begin and end an object, by '{' and '}', or an array, by '[' and ']'. */
void begin_json(json_writer_t* writer, char bracket);
void end_json(json_writer_t* writer, char bracket);

/* A member's name, which needs no escapes; its value has to follow. */
void put_key(json_writer_t* writer, std::string_view key);

/* A value: a text, which has to be UTF-8. Control characters that JSON lets pass are escaped too: the line may go to a
 * terminal. */
void put_string(json_writer_t* writer, std::string_view text);

/* Members. The word is null, true, false or a number as JSON has them. A recorded text that is not UTF-8 is also given by its
 * bytes, in the member `key`_base64. */
void put_word(json_writer_t* writer, std::string_view key, std::string_view word);
void put_number(json_writer_t* writer, std::string_view key, int64_t number);
void put_text(json_writer_t* writer, std::string_view key, std::string_view text);
