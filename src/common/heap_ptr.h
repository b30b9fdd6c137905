// The owner of a block from malloc or calloc.
#pragma once

#include <cstdlib>
#include <memory>

namespace velmarin {

struct heap_deleter {
  void operator()(void *block) const { free(block); }
};

// Null after a failed allocation.
template <typename Record>
using heap_ptr = std::unique_ptr<Record, heap_deleter>;

template <typename Record>
heap_ptr<Record> heap_allocate(size_t size = sizeof(Record)) {
  // NOLINTNEXTLINE(clang-analyzer-optin.portability.UnixAPI): a caller may ask for 0 bytes
  return heap_ptr<Record>(static_cast<Record *>(malloc(size)));
}

}  // namespace velmarin
