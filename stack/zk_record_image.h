/* SPDX-License-Identifier: MIT */
/* zk_record_image.h - makes the bytes of a record: the writing side of the layout that zk_layout.h draws. */
#pragma once

#include <array>

#include "qx_record.h"
#include "zk_layout.h"

/* A record as the file will hold it, its length word included, and room for the length word of 0 that may follow it. */
struct zk_record_image_t {
  size_t size = 0; /* without what follows */
  std::array<char, ZK_REC_LENGTH_SIZE + ZK_REC_LISTED_MAX + ZK_REC_LENGTH_SIZE> bytes;
};

/* As the parent of a process: recorded as 0, not known. */
enum : int32_t { ZK_NO_PROCESS = INT32_MIN };

/* Makes the record of an incident, whose fields have been checked, without its Error ID and time. `body_max` is the
 * longest body that the stack can take; every view takes ZK_REC_LISTED_MAX. So that it fits, details are cut and, where that
 * is not enough, the longest text argument, of equal ones the last, as far as it takes, then the longest of the others: each
 * at a whole UTF-8 character, with "..." at its end.
 * Returns 0; ZELK_INV_RECLEN when it does not fit even so. */
int zk_make_record_image(const zk_incident_t& incident, size_t body_max, zk_record_image_t* image);

/* Enters the Error ID and the time, in seconds since the Epoch, when they are known. */
void zk_stamp_record_image(zk_record_image_t* image, const zk_eid_t eid, int32_t seconds);
