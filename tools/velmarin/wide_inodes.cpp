#include "wide_inodes.h"

#include <functional>
#include <utility>

namespace tool {
namespace {

uint64_t checksum_of(std::string_view path) {
  return std::hash<std::string_view>()(path);
}

uint32_t low_half(uint64_t inode) {
  return static_cast<uint32_t>(inode);
}

uint32_t upper_half(uint64_t inode) {
  return static_cast<uint32_t>(inode >> 32);
}

}  // namespace

void WideInodes::begin_further(KeptBack expected, bool is_second) {
  is_further_ = true;
  is_second_ = is_second;
  expected_ = std::move(expected);
  taken_.clear();
  kept_ = {};
}

// Two paths with one checksum only cost a look into one directory too many.
bool WideInodes::leads_to_files(std::string_view directory) const {
  return expected_.directories.contains(checksum_of(directory));
}

bool WideInodes::is_expected(uint64_t inode) const {
  return is_second_ ? inode > UINT32_MAX : expected_.inodes.contains(inode);
}

bool WideInodes::reserve(uint64_t inode) {
  return is_further_
             ? is_expected(inode) && taken_.try_emplace(low_half(inode), upper_half(inode)).second
             : inode <= UINT32_MAX;
}

// Another name of a file that was taken is taken too: the library recognises it.
bool WideInodes::take_wide(uint64_t inode, std::string_view path) {
  if (is_further_ && !is_expected(inode)) {
    return false;
  }
  const std::lock_guard guard(lock_);
  if (is_further_) {
    if (taken_.try_emplace(low_half(inode), upper_half(inode)).first->second == upper_half(inode)) {
      return true;
    }
    kept_.inodes.insert(inode);
  }
  note_directories(path);
  return false;
}

// All directories above one that is known are known too.
void WideInodes::note_directories(std::string_view path) {
  for (size_t end = path.rfind('/'); end != std::string_view::npos; end = path.rfind('/')) {
    path = path.substr(0, end);
    if (!kept_.directories.insert(checksum_of(path)).second) {
      return;
    }
  }
}

uint64_t WideInodes::whole_number(uint32_t low) const {
  const auto found = taken_.find(low);
  return found != taken_.end() ? uint64_t{found->second} << 32 | low : low;
}

KeptBack WideInodes::take_kept() {
  return std::exchange(kept_, {});
}

}  // namespace tool
