/* cu_errmsg.cpp - turns the description of an incident into text. */
#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "cu_catalog.h"
#include "cu_format.h"
#include "qx_cu.h"

enum { FIRST_SIZE = 256 };

/* A text that grows on the heap; null after memory has run out. */
struct cu_text {
  cu_sink_t sink; /* first, so that its address is that of the text */
  char* text;
  size_t length;
  size_t size;
};

static void put_text(cu_sink_t* sink, std::string_view piece, const cu_error_arg_t*) {
  cu_text* grown = reinterpret_cast<cu_text*>(sink);
  if (grown->text == nullptr) return;

  if (piece.size() >= grown->size - grown->length) {
    size_t size = std::max(grown->size, piece.size()); /* at least doubled */
    char* text = nullptr;
    if (size < SIZE_MAX - grown->size) text = static_cast<char*>(realloc(grown->text, grown->size + size));
    if (text == nullptr) free(grown->text);
    grown->text = text;
    if (text == nullptr) return;
    grown->size += size;
  }
  memcpy(grown->text + grown->length, piece.data(), piece.size());
  grown->length += piece.size();
  grown->text[grown->length] = '\0';
}

int cu_get_errmsg_1(const cu_error_t* error, char** text) {
  if (text == nullptr) return -1;
  *text = nullptr;
  if (error == nullptr) return -1;

  cu_text grown = {{put_text}, static_cast<char*>(malloc(FIRST_SIZE)), 0, FIRST_SIZE};
  if (grown.text == nullptr) return -1;
  grown.text[0] = '\0';

  char* message = cu_read_message(error->cu_msg_cat, error->cu_msg_set, error->cu_msg_num);
  const char* format = message != nullptr ? message : error->cu_msg_default;
  size_t count = error->cu_args != nullptr ? error->cu_arg_cnt : 0;
  if (format != nullptr) cu_put_format(&grown.sink, format, {error->cu_args, count});
  free(message);

  *text = grown.text;
  return grown.text != nullptr ? 0 : -1;
}
