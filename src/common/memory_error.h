// The errno of a failed allocation.
#pragma once

#include <cerrno>

namespace velmarin {

// Call it right after the failed call; set errno to 0 before that call. An allocator that leaves
// errno alone is taken to have run out of memory.
inline int allocation_error() {
  return errno != 0 ? errno : ENOMEM;
}

}  // namespace velmarin
