// Words that several threads access without a lock. They are plain fields of records whose layout
// is fixed, so they are read and written through these helpers instead of std::atomic.
#pragma once

#include <cstdint>

namespace velmarin {

template <typename Word>
Word load_relaxed(const Word *word) {
  return __atomic_load_n(word, __ATOMIC_RELAXED);
}

template <typename Word>
Word load_acquire(const Word *word) {
  return __atomic_load_n(word, __ATOMIC_ACQUIRE);
}

template <typename Word>
void store_relaxed(Word *word, Word value) {
  __atomic_store_n(word, value, __ATOMIC_RELAXED);
}

template <typename Word>
void store_release(Word *word, Word value) {
  __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

// Sequentially consistent: all threads see the operations of these four functions in one order.
template <typename Word>
Word load_ordered(const Word *word) {
  return __atomic_load_n(word, __ATOMIC_SEQ_CST);
}

template <typename Word>
void store_ordered(Word *word, Word value) {
  __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
}

inline void increment_ordered(uint64_t *counter) {
  __atomic_fetch_add(counter, 1, __ATOMIC_SEQ_CST);
}

inline void decrement_ordered(uint64_t *counter) {
  __atomic_fetch_sub(counter, 1, __ATOMIC_SEQ_CST);
}

// Sets the word to null if it still holds `expected`; only one of several threads succeeds.
template <typename Target>
bool take_pointer(Target **word, Target *expected) {
  return __atomic_compare_exchange_n(word, &expected, static_cast<Target *>(nullptr), false,
                                     __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Adds with acquire-release order and returns the previous value.
inline uint64_t fetch_add(uint64_t *counter, uint64_t amount) {
  return __atomic_fetch_add(counter, amount, __ATOMIC_ACQ_REL);
}

}  // namespace velmarin
