/* SPDX-License-Identifier: MIT */
/* message.cpp - finds the texts of the companion commands and fills them in. */
#include "message.h"

#include <cerrno>

#include "cu_format.h"
#include "zk_msg.h"

static constexpr int TOOL_MSG_SET = 7;
static constexpr const char* ENGLISH[] = {
    "", /* numbers start at 1 */
#include "companions.inc"
};

static nl_catd catalog = ZK_NO_CATALOG;

void open_messages() {
  catalog = catopen(ZK_CATALOG_NAME, NL_CAT_LOCALE);
  if (catalog == ZK_NO_CATALOG) catalog = catopen(ZK_CATALOG_NAME, 0);
}

const char* english_text(tool_message_t message) {
  return ENGLISH[message];
}

/* Gathers a text. */
struct string_sink_t {
  cu_sink_t sink; /* first: the formatter's view of it */
  std::string text;
};

static void append(cu_sink_t* sink, std::string_view text, const cu_error_arg_t*) {
  reinterpret_cast<string_sink_t*>(sink)->text += text;
}

std::string message_text(tool_message_t message, const std::vector<std::string>& values) {
  const char* const english = ENGLISH[message];
  const int error = errno;
  const char* text = catalog != ZK_NO_CATALOG ? catgets(catalog, TOOL_MSG_SET, message, english) : english;
  errno = error;
  if (text != english && !cu_takes_same_arguments(text, english)) text = english;

  std::vector<cu_error_arg_t> arguments;
  for (const std::string& value : values) {
    cu_error_arg_t argument = {.cu_arg_type = CU_ERROR_ARG_CHAR_STR, .cu_arg_value = {}};
    argument.cu_arg_value.cu_arg_char_str = const_cast<char*>(value.c_str()); /* only read */
    arguments.push_back(argument);
  }
  string_sink_t sink = {.sink = {.put = append}, .text = {}};
  cu_put_format(&sink.sink, text, arguments);
  return sink.text;
}
