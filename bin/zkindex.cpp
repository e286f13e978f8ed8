/* zkindex.cpp - a hash table with open addressing that doubles when it is half full. */
#include "zkindex.h"

#include <cstdlib>
#include <cstring>

static constexpr size_t FIRST_CAPACITY = 256;

static size_t slot_of(const zk_index_slot* slots, size_t capacity, uint64_t key) {
  uint64_t mixed = key * 0x9e3779b97f4a7c15; /* spreads neighbouring keys */
  size_t at = static_cast<size_t>(mixed >> 32) & (capacity - 1);
  while (slots[at].item != nullptr && slots[at].key != key) at = (at + 1) & (capacity - 1);
  return at;
}

static bool grow(zk_index* index) {
  size_t capacity = index->capacity != 0 ? 2 * index->capacity : FIRST_CAPACITY;
  zk_index_slot* slots = static_cast<zk_index_slot*>(calloc(capacity, sizeof *slots));
  if (slots == nullptr) return false;
  for (size_t i = 0; i < index->capacity; ++i)
    if (index->slots[i].item != nullptr) slots[slot_of(slots, capacity, index->slots[i].key)] = index->slots[i];
  free(index->slots);
  index->slots = slots;
  index->capacity = capacity;
  return true;
}

/* The slot for `key`, empty when nothing has it yet; null without memory. */
static zk_index_slot* make_slot(zk_index* index, uint64_t key) {
  if (2 * index->used >= index->capacity && !grow(index)) index->is_incomplete = true;
  if (index->is_incomplete) return nullptr;
  zk_index_slot* slot = &index->slots[slot_of(index->slots, index->capacity, key)];
  if (slot->item == nullptr) ++index->used;
  slot->key = key;
  return slot;
}

void zk_index_add(zk_index* index, uint64_t key, void* item) {
  zk_index_slot* slot = make_slot(index, key);
  if (slot == nullptr) return;
  slot->is_repeated = slot->item != nullptr;
  slot->item = item;
}

void zk_index_set(zk_index* index, uint64_t key, void* item) {
  zk_index_slot* slot = make_slot(index, key);
  if (slot != nullptr) slot->item = item;
}

zk_index_answer zk_index_find(const zk_index& index, uint64_t key, void** item) {
  if (index.is_incomplete) return ZK_INDEX_UNKNOWN;
  if (index.capacity == 0) return ZK_INDEX_NONE;
  const zk_index_slot& slot = index.slots[slot_of(index.slots, index.capacity, key)];
  if (slot.item == nullptr) return ZK_INDEX_NONE;
  if (slot.is_repeated) return ZK_INDEX_UNKNOWN;
  *item = slot.item;
  return ZK_INDEX_ONE;
}

uint64_t zk_index_key(const char* text, size_t size) {
  uint64_t key = 0xcbf29ce484222325;
  for (size_t i = 0; i < size && text[i] != '\0'; ++i)
    key = (key ^ static_cast<unsigned char>(text[i])) * 0x100000001b3;
  return key;
}

void zk_index_release(zk_index* index) {
  free(index->slots);
  *index = {};
}
