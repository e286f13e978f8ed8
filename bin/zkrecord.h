/* zkrecord.h - the cursor over a record's fixed fields; zk_int.h has the routines for texts and the
 * description. */
#ifndef ZKRECORD_H
#define ZKRECORD_H

#include <cstddef>
#include <cstdint>

#include "zk_int.h"

/* The length word of a record. */
int32_t zk_record_length(const void* record);

/* The Error ID field at `position` of a record: at most 42 characters, whatever the 43rd byte holds. */
void zk_record_eid(const void* record, int position, zk_eid_t eid);

/* Takes `size` bytes at the cursor. What lies past the record's end counts as zeros and is not read, but
 * moves the cursor and the count all the same. */
void zk_take_bytes(void** buffer, size_t* remaining_len, void* bytes, size_t size);

/* The same for a 4-byte integer, and for an Error ID. */
int32_t zk_take_int(void** buffer, size_t* remaining_len);
void zk_take_eid(void** buffer, size_t* remaining_len, zk_eid_t eid);

#endif
