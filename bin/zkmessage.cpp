/* zkmessage.cpp - prints the command's messages: picks the text, fills in its arguments, keeps recorded texts
 * from driving the operator's terminal, and gathers the report. */
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "cu_format.h"
#include "zk_msg.h"

/* The report that is being gathered. What follows a failed write is dropped: a report with a hole would
 * mislead. */
static struct {
  char* block;
  size_t size;
  size_t used;
  int error; /* of the first write that failed, else 0 */
} report;

static void write_block() {
  for (size_t written = 0; written < report.used && report.error == 0;) {
    ssize_t count = write(STDOUT_FILENO, report.block + written, report.used - written);
    if (count > 0)
      written += static_cast<size_t>(count);
    else if (count == 0 || errno != EINTR)
      report.error = count == 0 ? EIO : errno;
  }
  report.used = 0;
}

static void put_text(FILE* stream, std::string_view text) {
  if (stream != stdout || report.block == nullptr) {
    std::fwrite(text.data(), 1, text.size(), stream);
    return;
  }
  while (!text.empty()) {
    size_t count = std::min(text.size(), report.size - report.used);
    std::memcpy(report.block + report.used, text.data(), count);
    report.used += count;
    text.remove_prefix(count);
    if (report.used == report.size) write_block();
  }
}

static bool is_between(char byte, unsigned int low, unsigned int high) {
  return static_cast<unsigned char>(byte) >= low && static_cast<unsigned char>(byte) <= high;
}

/* Length of the well-formed UTF-8 sequence of several bytes that `text` starts with, else 0. */
static size_t utf8_length(std::string_view text) {
  struct sequence {
    unsigned int lead_low, lead_high, second_low, second_high;
    size_t length;
  };
  static constexpr std::array<sequence, 8> SEQUENCES = {{{0xc2, 0xdf, 0x80, 0xbf, 2},
                                                         {0xe0, 0xe0, 0xa0, 0xbf, 3},
                                                         {0xe1, 0xec, 0x80, 0xbf, 3},
                                                         {0xed, 0xed, 0x80, 0x9f, 3},
                                                         {0xee, 0xef, 0x80, 0xbf, 3},
                                                         {0xf0, 0xf0, 0x90, 0xbf, 4},
                                                         {0xf1, 0xf3, 0x80, 0xbf, 4},
                                                         {0xf4, 0xf4, 0x80, 0x8f, 4}}};
  for (const sequence& row : SEQUENCES) {
    if (text.size() < row.length || !is_between(text[0], row.lead_low, row.lead_high) ||
        !is_between(text[1], row.second_low, row.second_high))
      continue;
    for (size_t i = 2; i < row.length; ++i)
      if (!is_between(text[i], 0x80, 0xbf)) return 0;
    return row.length;
  }
  return 0;
}

/* Length of the control character that `text` starts with, else 0. Newline and tab are none. */
static size_t control_length(std::string_view text) {
  if (text[0] == '\n' || text[0] == '\t') return 0;
  if (is_between(text[0], 0, 0x1f) || is_between(text[0], 0x7f, 0x9f)) return 1;
  return is_between(text[0], 0xc2, 0xc2) && text.size() > 1 && is_between(text[1], 0x80, 0x9f) ? 2 : 0;
}

/* Puts recorded text, with its control characters shown as "?" on a terminal. */
static void put_recorded(FILE* stream, std::string_view text) {
  size_t harmless = 0; /* bytes at the start of the text */
  while (harmless < text.size()) {
    std::string_view rest(text.data() + harmless, text.size() - harmless);
    size_t control = control_length(rest);
    if (control == 0) {
      harmless += std::max(utf8_length(rest), size_t{1});
      continue;
    }
    if (isatty(fileno(stream)) == 0) break;
    put_text(stream, {text.data(), harmless});
    put_text(stream, "?");
    text.remove_prefix(harmless + control);
    harmless = 0;
  }
  put_text(stream, text);
}

struct stream_sink {
  cu_sink_t sink; /* first: the formatter's view of it */
  FILE* stream;
};

static void put_on_stream(cu_sink_t* sink, std::string_view text, const cu_error_arg_t* argument) {
  FILE* stream = reinterpret_cast<stream_sink*>(sink)->stream;
  if (argument != nullptr)
    put_recorded(stream, text);
  else
    put_text(stream, text);
}

static constexpr size_t ARGUMENTS_MAX = 9;
using argument_kinds = std::array<char, ARGUMENTS_MAX>; /* 's', 'c' or 'd' by argument, NUL for none */

/* Notes in `kinds` what kind of argument each conversion of `text` takes; false when one is not of the simple
 * form that every text of this command has, or when plain and numbered ones are mixed. */
static bool note_kinds(const char* text, argument_kinds* kinds) {
  size_t plain = 0;
  size_t numbered = 0;
  while (*text != '\0') {
    cu_piece_t piece = cu_take_piece(&text, &plain);
    if (piece.kind == CU_PIECE_TEXT) continue;
    if (piece.kind == CU_PIECE_UNFILLABLE || piece.has_length || piece.argument >= ARGUMENTS_MAX) return false;
    if (std::strchr("scd", piece.letter) == nullptr) return false;
    if (piece.is_numbered) ++numbered;
    char& kind = (*kinds)[piece.argument];
    if (kind != '\0' && kind != piece.letter) return false;
    kind = piece.letter;
  }
  return plain == 0 || numbered == 0;
}

/* Whether a translated text takes the arguments of the built-in one: any of them, each by its own kind. */
static bool takes_same_arguments(const char* translated, const char* builtin) {
  argument_kinds wanted = {};
  argument_kinds given = {};
  if (!note_kinds(translated, &wanted) || !note_kinds(builtin, &given)) return false;
  for (size_t i = 0; i < ARGUMENTS_MAX; ++i)
    if (wanted[i] != '\0' && wanted[i] != given[i]) return false;
  return true;
}

static const char* message_text(nl_catd catfd, int number) {
  bool known = number >= 1 && number < ZK_MSG_COUNT;
  const char* builtin = known ? zk_mesgtbl_zkview_cmd[number] : zk_badid_zkview_cmd;
  const char* arguments = known ? builtin : "%s"; /* whoever prints an unknown message has one text to show */
  if (catfd == ZK_NO_CATALOG) return builtin;
  const char* text = catgets(catfd, ZK_MSG_SET, number, builtin);
  return text == builtin || takes_same_arguments(text, arguments) ? text : builtin;
}

void zk_buffer_report(char* block, size_t size) {
  report = {.block = block, .size = size, .used = 0, .error = 0};
}

int zk_flush_report() {
  if (report.block == nullptr) return std::fflush(stdout) == 0 ? 0 : errno;
  write_block();
  return report.error;
}

cu_error_arg_t zk_msg_arg(int value) {
  cu_error_arg_t argument = {};
  argument.cu_arg_type = CU_ERROR_ARG_INT;
  argument.cu_arg_value.cu_arg_int = value;
  return argument;
}

cu_error_arg_t zk_msg_arg(const char* text) {
  cu_error_arg_t argument = {};
  argument.cu_arg_type = CU_ERROR_ARG_CHAR_STR;
  argument.cu_arg_value.cu_arg_char_str = const_cast<char*>(text != nullptr ? text : ""); /* only read */
  return argument;
}

void zk_print_message(FILE* stream, nl_catd catfd, int number, std::initializer_list<cu_error_arg_t> args) {
  if (stream == stderr) zk_flush_report();
  stream_sink to = {.sink = {.put = put_on_stream}, .stream = stream};
  cu_put_format(&to.sink, message_text(catfd, number), {args.begin(), args.size()});
}
