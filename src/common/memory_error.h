// The errno of a failed allocation.
#pragma once

#include <cerrno>

namespace velmarin {

// Call it right after the failed call; set errno to 0 before that call. If the allocator left errno
// alone, the error is ENOMEM.
inline int allocation_error() {
  return errno != 0 ? errno : ENOMEM;
}

}  // namespace velmarin
