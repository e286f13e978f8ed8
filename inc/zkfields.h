/* SPDX-License-Identifier: MIT */
/* zkfields.h - what the views show of a record taken apart, and the routines that move a caller's own cursor over one. */
#pragma once

#include "zk_record.h"

struct zk_trace_t;

extern "C" {

/* ---- For a caller's own cursor -------------------------------------------------------------------------------------- *
 * `*buffer` is the cursor, `*remaining_len` the count of unread body bytes, which goes below zero (as a signed
 * number) when fixed fields reach past the record's end. A field that is read moves both; a failure leaves both
 * alone. The record must be followed by one zero byte; nothing behind that is read. */

/* Copies a text of at most 1024 bytes into `substring`, zero-filled by the caller: no terminator is written.
 * Returns 0; ZELK_REC_CORRUPT. */
int zk_get_rec_substring(int debug_active, const char* debug_file, void** buffer, char* substring,
                         size_t* remaining_len);

/* Reads the argument count and the arguments. The caller releases the array `*args` and the text of each of its
 * CU_ERROR_ARG_CHAR_STR entries. Without arguments `*args` is null and `*num_args` left alone.
 * Returns 0; ZELK_NO_MEMORY; ZELK_REC_CORRUPT, also when the count asks for more than the record can hold. */
int zk_extract_arg_values(int debug_active, const char* debug_file, void** buffer, size_t* remaining_len, int* num_args,
                          cu_error_arg_t** args);

/* Reads the description block and stores its text in `*descript`, which the caller releases; it stays null when
 * cu_get_errmsg_1 gives none. Returns 0; ZELK_REC_CORRUPT. */
int zk_get_description(int debug_active, const char* debug_file, char** descript, void** buffer, size_t* remaining_len);

} /* extern "C" */

/* ---- For the views --------------------------------------------------------------------------------------------------- */

/* A record for a view. */
struct zk_decoded_t {
  zk_record_t fields;
  bool has_description; /* with its arguments */
};

/* Takes a record apart: its fields, from the damaged text on without texts. The arguments come with zk_decode_record.
 * Returns 0, also when a field is damaged; ZELK_INV_PARAM4 null record; ZELK_INV_RECLEN a length below 1;
 * ZELK_INV_RECVERSN. */
int zk_open_record(const zk_trace_t& trace, const void* record, zk_decoded_t* decoded);

/* Decodes the rest of an opened record. zk_release_arguments must follow, also after damage. Returns 0;
 * ZELK_REC_CORRUPT. */
int zk_decode_record(const zk_trace_t& trace, zk_decoded_t* decoded);
void zk_release_arguments(zk_decoded_t* decoded);

/* The text of a description, filled in, to be released with free(); null without memory. */
char* zk_describe(const zk_decoded_t& decoded);
