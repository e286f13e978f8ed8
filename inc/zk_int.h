/* SPDX-License-Identifier: MIT */
/* zk_int.h - the command's own routines: opening and walking an Error Stack, decoding and printing its records. For one
 * thread. Unless its comment says otherwise, a routine takes the trace pair first and returns one of the codes of
 * qx_zelk.h. What they print goes through zk_msg.h. */
#pragma once

#include "zk_header.h" /* the control header */
#include "zkfields.h"  /* the fields of a record */
#include "zklist.h"    /* records in lists */
#include "zkopen.h"    /* opening a stack */
#include "zkprint.h"   /* printing */
