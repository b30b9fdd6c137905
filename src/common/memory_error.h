// The errno of a failed allocation.
#pragma once

#include <cerrno>

namespace velmarin {

// To be called right after the failed call, before which errno was set to 0. An allocator need not
// set errno: the failure counts as ENOMEM then.
inline int allocation_error() {
  return errno != 0 ? errno : ENOMEM;
}

}  // namespace velmarin
