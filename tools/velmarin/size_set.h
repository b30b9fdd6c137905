// A compact set of file sizes: it may hold a size that was never added, but never lacks one that
// was.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace tool {

class SizeSet {
 public:
  SizeSet() : words_(BITS / 64) {}

  // Thread-safe.
  void add(uint64_t size) {
    const uint64_t bit = uint64_t{1} << bit_index(size) % 64;
    std::atomic<uint64_t> &word = words_[bit_index(size) / 64];
    if ((word.load(std::memory_order_relaxed) & bit) == 0) {
      word.fetch_or(bit, std::memory_order_relaxed);
    }
  }

  bool may_contain(uint64_t size) const {
    return (words_[bit_index(size) / 64] >> bit_index(size) % 64 & 1) != 0;
  }

  bool is_empty() const {
    return std::all_of(words_.begin(), words_.end(), [](const auto &word) { return word == 0; });
  }

  // Moves the sizes of `from` into this set; adds those in both sets to `both`.
  void absorb(SizeSet &from, SizeSet &both) {
    for (size_t i = 0; i < words_.size(); ++i) {
      both.words_[i] |= words_[i] & from.words_[i];
      words_[i] |= from.words_[i];
      from.words_[i] = 0;
    }
  }

 private:
  static constexpr unsigned BITS_LOG2 = 23;
  static constexpr size_t BITS = size_t{1} << BITS_LOG2;

  // Sizes often differ by whole blocks; a multiplication spreads them.
  static size_t bit_index(uint64_t size) {
    return static_cast<size_t>(size * 0x9e3779b97f4a7c15U >> (64 - BITS_LOG2));
  }

  std::vector<std::atomic<uint64_t>> words_;
};

}  // namespace tool
