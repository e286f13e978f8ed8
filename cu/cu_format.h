/* SPDX-License-Identifier: MIT */
/* cu_format.h - fills the conversions of a text with typed arguments. The text may come from a record or from a message
 * catalog, so it is never handed to printf: it is taken apart here, and each argument is printed by its own type.
 *
 * A conversion is %[n$][flags][width][.precision][length]letter. Those without "n$" take the arguments in order. What
 * cannot be filled comes out as it stands: an unknown or incomplete conversion, "*", "%n", a width or precision above
 * CU_WIDTH_MAX, an argument that is missing or of a type that is not printed. A conversion that does not fit its
 * argument's type prints the argument plainly.
 *
 * Nothing here allocates memory, keeps anything between calls or needs the C++ library at run time. Numbers are written
 * as the process's locale does. Every routine may be called from any thread while no other changes the locale. */
#pragma once

#include <span>
#include <string_view>

#include "qx_cu.h"

enum { CU_WIDTH_MAX = 1024 }; /* largest width and precision, in bytes */

/* Where the text goes, bit by bit. `argument` is the one whose string or character `text` is, and null for everything
 * else: the format's own text, padding, numbers, "(null)". `text` may be empty; it is valid during the call only. */
struct cu_sink_t {
  void (*put)(cu_sink_t* sink, std::string_view text, const cu_error_arg_t* argument);
};

enum cu_piece_kind_t : uint8_t {
  CU_PIECE_TEXT,      /* the format's own text; "%" for "%%" */
  CU_PIECE_ARGUMENT,  /* a conversion that prints an argument */
  CU_PIECE_UNFILLABLE /* a conversion that comes out as it stands, whatever the arguments */
};

/* A piece of a format. What follows `kind` matters to CU_PIECE_ARGUMENT only. */
struct cu_piece_t {
  std::string_view text; /* as it stands in the format, which has to outlive the piece */
  cu_piece_kind_t kind;
  bool is_numbered;  /* it has an "n$" */
  bool has_length;   /* it has a length modifier, which changes nothing */
  uint8_t flags;     /* a bit for each of "-+ #0'", in this order from the lowest */
  char letter;       /* 'd' for "%i" too */
  int32_t width;     /* 0 when absent */
  int32_t precision; /* -1 when absent */
  size_t argument;   /* index of its argument */
};

/* Takes the first piece of the format `*at`, which is not empty, and moves `*at` behind it. `*unnumbered`, 0 at the
 * start of a format, counts the conversions that have taken an argument in order. */
cu_piece_t cu_parse_piece(const char** at, size_t* unnumbered);

/* Takes the whole `format` apart. Returns how many pieces it has; as many as fit are stored in `pieces`. */
size_t cu_parse_format(const char* format, std::span<cu_piece_t> pieces);

/* Puts a parsed format, or one of any length as it is parsed, with its conversions filled from `arguments`. */
void cu_put_pieces(cu_sink_t* sink, std::span<const cu_piece_t> pieces, std::span<const cu_error_arg_t> arguments);
void cu_put_format(cu_sink_t* sink, const char* format, std::span<const cu_error_arg_t> arguments);

/* Whether a translation of `original` can be filled from its arguments: it takes any of them, in any order, each by the
 * kind of conversion that `original` has for it, "s", "c" or "d" without a length modifier. False where either text has
 * a conversion of another kind, or numbered ones beside others. */
bool cu_takes_same_arguments(const char* translation, const char* original);
