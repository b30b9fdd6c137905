// Spinlocks of a fixed size, and a guard that holds one for a scope.
#pragma once

#include <pthread.h>

#include <cstdint>

namespace velmarin {

// Eight bytes on every platform, whatever the size of the platform's own spinlock.
union spinlock_slot {
  pthread_spinlock_t lock;
  uint64_t storage;
};
static_assert(sizeof(spinlock_slot) == 8);

// Returns 0 or an errno.
inline int spinlock_init(spinlock_slot *slot) {
  return pthread_spin_init(&slot->lock, PTHREAD_PROCESS_PRIVATE);
}

inline void spinlock_destroy(spinlock_slot *slot) {
  pthread_spin_destroy(&slot->lock);
}

class spinlock_guard {
 public:
  explicit spinlock_guard(spinlock_slot *slot) : slot_(slot) { pthread_spin_lock(&slot->lock); }
  ~spinlock_guard() { pthread_spin_unlock(&slot_->lock); }
  spinlock_guard(const spinlock_guard &) = delete;
  spinlock_guard &operator=(const spinlock_guard &) = delete;

 private:
  spinlock_slot *slot_;
};

}  // namespace velmarin
