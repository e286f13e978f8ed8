/* SPDX-License-Identifier: MIT */
/* cu_errmsg.cpp - turns the description of an incident into text. */
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "cu_catalog.h"
#include "cu_format.h"

enum { FIRST_SIZE = 256 };

/* A text that grows on the heap. */
struct growing_text_t {
  cu_sink_t sink; /* first, so that its address is that of the text */
  char* text;     /* null once memory has run out */
  size_t length;
  size_t size; /* always above the length, for the terminator */
};

static void append_piece(cu_sink_t* sink, std::string_view piece, const cu_error_arg_t*) {
  growing_text_t* grown = reinterpret_cast<growing_text_t*>(sink);
  if (grown->text == nullptr) return;

  if (piece.size() >= grown->size - grown->length) {
    /* No object has more than SIZE_MAX / 2 bytes: this cannot wrap. */
    grown->size += std::max(grown->size, piece.size());
    char* text = static_cast<char*>(realloc(grown->text, grown->size));
    if (text == nullptr) free(grown->text);
    grown->text = text;
    if (text == nullptr) return;
  }
  memcpy(grown->text + grown->length, piece.data(), piece.size());
  grown->length += piece.size();
}

int cu_get_errmsg_1(const cu_error_t* error, char** text) {
  if (text == nullptr) return -1;
  *text = nullptr;
  if (error == nullptr) return -1;

  char* message = cu_read_message(error->cu_msg_cat, error->cu_msg_set, error->cu_msg_num);
  const char* format = message != nullptr ? message : error->cu_msg_default;
  size_t count = error->cu_args != nullptr ? error->cu_arg_cnt : 0;
  growing_text_t grown = {{append_piece}, static_cast<char*>(malloc(FIRST_SIZE)), 0, FIRST_SIZE};
  if (format != nullptr) cu_put_format(&grown.sink, format, {error->cu_args, count});
  free(message);
  if (grown.text == nullptr) return -1;

  grown.text[grown.length] = '\0';
  *text = grown.text;
  return 0;
}
