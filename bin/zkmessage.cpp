/* SPDX-License-Identifier: MIT */
/* zkmessage.cpp - prints the command's messages: picks the text, fills in its arguments, keeps recorded texts from
 * driving the operator's terminal, and gathers what is to leave in one piece. */
#include <langinfo.h>

#include <algorithm>
#include <array>
#include <bit>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include "cu_format.h"
#include "zk_io.h"
#include "zk_msg.h"

/* ---- Where it goes ------------------------------------------------------------------------------------------------- */

/* What leaves for a descriptor when the block is full or is written. What follows a failed write is dropped: a report
 * with a hole would mislead. */
struct output_t {
  int fildes;
  bool is_terminal; /* control characters of recorded texts are not let through */
  char* block;
  size_t size;
  size_t used = 0;
  int error = 0; /* of the first write that failed */
};

static output_t report = {.fildes = STDOUT_FILENO, .is_terminal = false, .block = nullptr, .size = 0};

static void write_block(output_t* output) {
  if (output->error == 0 && !zk_write(output->fildes, output->block, output->used)) output->error = errno;
  output->used = 0;
}

static void put(output_t* output, std::string_view text) {
  for (;;) {
    const size_t count = std::min(text.size(), output->size - output->used);
    std::memcpy(output->block + output->used, text.data(), count);
    output->used += count;
    text.remove_prefix(count);
    if (text.empty()) return;
    write_block(output);
  }
}

void zk_buffer_report(char* block, size_t size) {
  report = {.fildes = STDOUT_FILENO, .is_terminal = isatty(STDOUT_FILENO) == 1, .block = block, .size = size};
}

int zk_flush_report() {
  write_block(&report);
  return report.error;
}

/* ---- Recorded texts on a terminal ---------------------------------------------------------------------------------- */

static bool is_between(char byte, unsigned int low, unsigned int high) {
  return static_cast<unsigned char>(byte) >= low && static_cast<unsigned char>(byte) <= high;
}

/* What bytes from 0x80 on are to the locale. */
enum class high_bytes_t {
  UTF8,    /* also in C, where terminals are UTF-8 */
  SINGLE,  /* characters of their own */
  UNKNOWN, /* parts of characters that only the locale knows */
};

static high_bytes_t high_bytes() {
  if (MB_CUR_MAX > 1)
    return std::strcmp(nl_langinfo(CODESET), "UTF-8") == 0 ? high_bytes_t::UTF8 : high_bytes_t::UNKNOWN;
  return std::strcmp(std::setlocale(LC_CTYPE, nullptr), "C") == 0 ? high_bytes_t::UTF8 : high_bytes_t::SINGLE;
}

/* Length of the well-formed UTF-8 sequence of several bytes that `text` starts with, else 0. */
static size_t utf8_length(std::string_view text) {
  static constexpr uint32_t LEAST_CODES[] = {0, 0, 0x80, 0x800, 0x10000}; /* by length: fewer bytes hold what is less */
  const auto lead = static_cast<unsigned char>(text[0]);
  const size_t length = static_cast<size_t>(std::countl_one(lead));
  if (length < 2 || length > 4 || text.size() < length) return 0;
  uint32_t code = lead & (0x7fU >> length);
  for (size_t i = 1; i < length; ++i) {
    if (!is_between(text[i], 0x80, 0xbf)) return 0;
    code = code << 6 | (static_cast<unsigned char>(text[i]) & 0x3fU);
  }
  const bool is_surrogate = code >= 0xd800 && code <= 0xdfff;
  return code < LEAST_CODES[length] || code > 0x10ffff || is_surrogate ? 0 : length;
}

/* Length of the control character that `text` starts with, else 0. Newline and tab are none. */
static size_t control_length(std::string_view text, high_bytes_t high) {
  if (text[0] == '\n' || text[0] == '\t') return 0;
  if (is_between(text[0], 0, 0x1f) || text[0] == 0x7f) return 1;
  if (high == high_bytes_t::UNKNOWN) return 0;
  if (is_between(text[0], 0x80, 0x9f)) return 1;
  if (high != high_bytes_t::UTF8 || !text.starts_with('\xc2')) return 0;
  return text.size() > 1 && is_between(text[1], 0x80, 0x9f) ? 2 : 0;
}

/* Puts a text with its control characters shown as "?". */
static void put_harmless(output_t* output, std::string_view text) {
  const high_bytes_t high = high_bytes();
  while (!text.empty()) {
    size_t control = control_length(text, high);
    size_t length = control != 0 ? control : high == high_bytes_t::UTF8 ? std::max(utf8_length(text), size_t{1}) : 1;
    put(output, control != 0 ? "?" : text.substr(0, length));
    text.remove_prefix(length);
  }
}

/* ---- Which text ---------------------------------------------------------------------------------------------------- */

static bool is_known(int number) {
  return number >= 1 && number < ZK_MSG_COUNT;
}

static const char* message_text(nl_catd catfd, int number) {
  const char* builtin = is_known(number) ? zk_mesgtbl_zkview_cmd[number] : zk_badid_zkview_cmd;
  /* Whoever prints an unknown message has one text to show. */
  const char* arguments = is_known(number) ? builtin : "%s";
  if (catfd == ZK_NO_CATALOG) return builtin;
  const char* text = catgets(catfd, ZK_MSG_SET, number, builtin);
  return text == builtin || cu_takes_same_arguments(text, arguments) ? text : builtin;
}

/* The texts of the catalog in use, taken apart when they are first printed. */
static constexpr size_t PIECES_MAX = 24;
static struct {
  nl_catd catfd;
  std::array<size_t, ZK_MSG_COUNT> counts; /* pieces by message; 0 before the first use */
  std::array<std::array<cu_piece_t, PIECES_MAX>, ZK_MSG_COUNT> pieces;
} in_use = {.catfd = ZK_NO_CATALOG, .counts = {}, .pieces = {}};

static void use_catalog(nl_catd catfd) {
  in_use.catfd = catfd;
  in_use.counts = {};
}

nl_catd zk_open_catalog(const char* name) {
  nl_catd catfd = catopen(name, NL_CAT_LOCALE);
  if (catfd == ZK_NO_CATALOG) catfd = catopen(name, 0);
  use_catalog(catfd);
  return catfd;
}

void zk_close_catalog(nl_catd catfd) {
  use_catalog(ZK_NO_CATALOG);
  if (catfd != ZK_NO_CATALOG) catclose(catfd);
}

static void put_message(cu_sink_t* sink, nl_catd catfd, int number, std::span<const cu_error_arg_t> arguments) {
  if (catfd == in_use.catfd && is_known(number)) {
    size_t* count = &in_use.counts[static_cast<size_t>(number)];
    std::span<cu_piece_t> pieces = in_use.pieces[static_cast<size_t>(number)];
    if (*count == 0) *count = cu_parse_format(message_text(catfd, number), pieces);
    if (*count <= pieces.size()) return cu_put_pieces(sink, pieces.first(*count), arguments);
  }
  cu_put_format(sink, message_text(catfd, number), arguments);
}

/* ---- Printing ------------------------------------------------------------------------------------------------------ */

struct output_sink_t {
  cu_sink_t sink; /* first: the formatter's view of it */
  output_t* output;
  bool is_filtered;
};

static void put_piece(cu_sink_t* sink, std::string_view text, const cu_error_arg_t* argument) {
  const output_sink_t* const to = reinterpret_cast<const output_sink_t*>(sink);
  if (to->is_filtered && argument != nullptr)
    put_harmless(to->output, text);
  else
    put(to->output, text);
}

/* Prints a message: into the report's block or, where that is not used, at once and in one piece. Even one with a file name
 * of 4096 characters fits. */
static void print(FILE* stream, nl_catd catfd, int number, std::span<const cu_error_arg_t> arguments,
                  bool is_recorded) {
  const bool is_gathered = stream == stdout && report.block != nullptr;
  std::array<char, 16384> block;
  output_t own = {.fildes = fileno(stream), .is_terminal = false, .block = block.data(), .size = block.size()};
  if (!is_gathered) own.is_terminal = isatty(own.fildes) == 1;
  if (stream == stderr) zk_flush_report();
  if (!is_gathered) std::fflush(stream);

  output_t* const output = is_gathered ? &report : &own;
  output_sink_t sink = {{put_piece}, output, is_recorded && output->is_terminal};
  put_message(&sink.sink, catfd, number, arguments);
  if (is_gathered) return;
  write_block(&own);
  if (stream == stdout && report.error == 0) report.error = own.error;
}

cu_error_arg_t zk_msg_arg(int value) {
  return {.cu_arg_type = CU_ERROR_ARG_INT, .cu_arg_value = {.cu_arg_int = value}};
}

cu_error_arg_t zk_msg_arg(const char* text) {
  if (text == nullptr) text = "";
  return {.cu_arg_type = CU_ERROR_ARG_CHAR_STR, .cu_arg_value = {.cu_arg_char_str = const_cast<char*>(text)}};
}

void zk_print_message(FILE* stream, nl_catd catfd, int number, std::initializer_list<cu_error_arg_t> args) {
  print(stream, catfd, number, {args.begin(), args.size()}, true);
}

void zk_print_own_text(nl_catd catfd, int number, const char* text) {
  const cu_error_arg_t argument = zk_msg_arg(text);
  print(stdout, catfd, number, {&argument, 1}, false);
}
