// Buffers for paths.
#pragma once

#include <cstddef>

namespace velmarin {

// The size of every path buffer, terminator included.
inline constexpr size_t PATH_BUF_SIZE = 4096;

struct path_buffer {
  char text[PATH_BUF_SIZE];
};

}  // namespace velmarin
