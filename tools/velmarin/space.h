// An amount of space on a file system, as far as it is known.
#pragma once

#include <algorithm>
#include <cstdint>

namespace tool {

struct Space {
  uint64_t certain = 0;
  uint64_t uncertain = 0;  // at most; others may hold it, or its size is unknown
  bool is_none() const { return certain == 0 && uncertain == 0; }
  // After that much was spent elsewhere.
  Space less(uint64_t bytes) const { return {certain - std::min(certain, bytes), uncertain}; }
  Space &operator+=(const Space &other) {
    certain += other.certain;
    uncertain += other.uncertain;
    return *this;
  }
};

}  // namespace tool
