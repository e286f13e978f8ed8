/* zkindex.h - finds what a walk has placed by a 64-bit key, so that grouping takes time in proportion to the records,
 * however many a file holds. */
#ifndef ZKINDEX_H
#define ZKINDEX_H

#include <cstddef>
#include <cstdint>

struct zk_index_slot {
  uint64_t key;
  void* item; /* null in an empty slot */
  bool is_repeated;
};

/* Starts out zero. Owns its slots; the items belong to the caller. */
struct zk_index {
  zk_index_slot* slots;
  size_t capacity; /* a power of 2, or 0 */
  size_t used;
  bool is_incomplete; /* memory ran out: nothing can be found by it */
};

/* What an index knows of a key. */
enum zk_index_answer {
  ZK_INDEX_NONE,   /* nothing has this key */
  ZK_INDEX_ONE,    /* one item has it */
  ZK_INDEX_UNKNOWN /* several have, or memory ran out: look through the lists */
};

/* Adds `item`, not null, to those that have the key; without memory the index becomes incomplete. */
void zk_index_add(zk_index* index, uint64_t key, void* item);

/* Makes `item`, not null, the one that has the key. */
void zk_index_set(zk_index* index, uint64_t key, void* item);

/* Stores the item in `*item` for the answer ZK_INDEX_ONE. */
zk_index_answer zk_index_find(const zk_index& index, uint64_t key, void** item);

/* A key for the text `text` of at most `size` bytes; different texts may share one. */
uint64_t zk_index_key(const char* text, size_t size);

void zk_index_release(zk_index* index);

#endif
