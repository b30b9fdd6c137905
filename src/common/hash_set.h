// A hash set of small records, with open addressing and linear probing. When it cannot grow, its
// users fall back on a slower search.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace velmarin {

// Spreads the bits of a word over the whole word (the finalizer of MurmurHash3 by Austin Appleby).
inline uint64_t mix_bits(uint64_t word) {
  word = (word ^ (word >> 33)) * 0xff51afd7ed558ccd;
  word = (word ^ (word >> 33)) * 0xc4ceb9fe1a85ec53;
  return word ^ (word >> 33);
}

// `Entry` has `is_empty()`, true for a zero-filled entry; `hash()`; and `equals(other)`.
// Zero-filled memory is an empty set. No function here locks.
template <typename Entry>
struct hash_set {
  Entry *slots;
  size_t capacity;  // a power of two, or 0
  size_t count;
};

// The slot of an equal entry, or the empty slot where it belongs. The set must have a free slot.
template <typename Entry>
Entry *hash_set_slot(const hash_set<Entry> *set, const Entry &wanted) {
  size_t index = wanted.hash() & (set->capacity - 1);
  while (!set->slots[index].is_empty() && !set->slots[index].equals(wanted)) {
    index = (index + 1) & (set->capacity - 1);
  }
  return &set->slots[index];
}

template <typename Entry>
Entry *hash_set_find(const hash_set<Entry> *set, const Entry &wanted) {
  if (set->count == 0) {
    return nullptr;
  }
  Entry *slot = hash_set_slot(set, wanted);
  return slot->is_empty() ? nullptr : slot;
}

template <typename Entry>
void hash_set_free(hash_set<Entry> *set) {
  free(set->slots);
  *set = {};
}

// Doubles the capacity. Returns false when out of memory and leaves the set unchanged.
template <typename Entry>
bool hash_set_grow(hash_set<Entry> *set) {
  constexpr size_t FIRST_CAPACITY = 16;
  const size_t capacity = set->capacity == 0 ? FIRST_CAPACITY : 2 * set->capacity;
  hash_set<Entry> grown = {static_cast<Entry *>(calloc(capacity, sizeof(Entry))), capacity,
                           set->count};
  if (grown.slots == nullptr) {
    return false;
  }
  for (size_t i = 0; i < set->capacity; i++) {
    if (!set->slots[i].is_empty()) {
      *hash_set_slot(&grown, set->slots[i]) = set->slots[i];
    }
  }
  free(set->slots);
  *set = grown;
  return true;
}

// Adds an entry that is not in the set. At least half of the slots stay free. Returns false when
// out of memory.
template <typename Entry>
bool hash_set_add(hash_set<Entry> *set, const Entry &added) {
  if (2 * (set->count + 1) > set->capacity && !hash_set_grow(set)) {
    return false;
  }
  *hash_set_slot(set, added) = added;
  set->count++;
  return true;
}

}  // namespace velmarin
