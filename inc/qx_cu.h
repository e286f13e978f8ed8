/* SPDX-License-Identifier: MIT */
/* qx_cu.h - the description of an incident as the common-utility library takes it, and the call that turns it
 * into text. Usable from C11 and from C++. The same layout serves the bundled library and a site's own
 * libqx_cu.so. */
#ifndef QX_CU_H
#define QX_CU_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Kinds of an argument. A recorded kind may be any 32-bit value, hence the plain integer. */
enum {
  CU_ERROR_ARG_INT = 0,       /* cu_arg_int */
  CU_ERROR_ARG_LONG = 1,      /* cu_arg_long */
  CU_ERROR_ARG_LONG_LONG = 2, /* cu_arg_long_long */
  CU_ERROR_ARG_DOUBLE = 3,    /* cu_arg_double */
  CU_ERROR_ARG_RESERVED = 4,  /* carried, never printed */
  CU_ERROR_ARG_CHAR_STR = 5,  /* cu_arg_char_str */
  CU_ERROR_ARG_VOID_PTR = 6   /* cu_arg_void_ptr */
};
typedef int32_t cu_error_arg_type_t;

/* One argument. The value is 8 bytes, copied as a record holds them; a 32-bit integer is in the first 4. */
typedef struct {
  cu_error_arg_type_t cu_arg_type;
  union {
    int32_t cu_arg_int;
    int32_t cu_arg_long;
    int64_t cu_arg_long_long;
    double cu_arg_double;
    char* cu_arg_char_str;
    void* cu_arg_void_ptr;
  } cu_arg_value;
} cu_error_arg_t;

/* A message with its arguments; all texts and the array belong to the caller. */
typedef struct {
  int32_t cu_error_id;
  const char* cu_zelk_id;
  const char* cu_msg_cat; /* message catalog: a path, or a name looked up along NLSPATH (in secure mode the default) */
  int32_t cu_msg_set;
  int32_t cu_msg_num;
  const char* cu_msg_default; /* used when the catalog or the message cannot be had */
  uint32_t cu_arg_cnt;
  cu_error_arg_t* cu_args;
} cu_error_t;

/* Stores in `*text` a newly allocated text, to be released with free(): the message of the catalog, or the
 * default one, with its conversions ("%1$s", "%d", ...) filled from the arguments, each by its own type. A
 * conversion that names no argument, that is unknown or asks for more than 1024 columns comes out as it
 * stands; one that does not fit its argument prints the argument plainly. Nothing but a regular file is
 * opened, and nothing outside it is read, whatever `cu_msg_cat` names and the file holds. Returns 0; -1 when
 * memory is exhausted or an argument is null (`*text` is then null). May be called from any thread while no
 * other changes the environment or the locale. */
int cu_get_errmsg_1(const cu_error_t* error, char** text);

#ifdef __cplusplus
}
#endif

#endif
