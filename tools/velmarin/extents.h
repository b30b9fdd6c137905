// Where the data of a file lies on disk, as the file system tells it.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <vector>

#include "btrfs_extents.h"
#include "volume.h"

namespace tool {

// Data that was written, at its place in the file and on disk. Two files that have the same list of
// these share all their data.
struct MappedData {
  uint64_t offset = 0;
  uint64_t length = 0;
  uint64_t address = 0;
  auto operator<=>(const MappedData &) const = default;  // NOLINT(modernize-use-nullptr)
};

// A range on disk to which a file refers, so that it stays occupied.
struct HeldRange {
  uint64_t begin = 0;
  uint64_t end = 0;
  uint64_t bytes = 0;  // occupied; no more than that if `is_size_known` is false
  bool is_size_known = true;
  bool is_shared = false;      // something else refers to it, too
  bool is_beyond_end = false;  // the file goes on referring to it when its data is merged
};

struct ExtentMap {
  bool is_known = false;   // otherwise the file system did not answer, and the rest means nothing
  bool is_inline = false;  // the data lies among the metadata
  std::vector<MappedData> data;
  std::vector<MappedData> reserved;  // allocated and not written, up to the end of the file
  std::vector<HeldRange> held;
  std::optional<btrfs::Inode> inode;  // on Btrfs
};

// Asks for the extents of an open file of `size` bytes. Data that is not on disk yet is written
// there first; nothing in the file changes.
ExtentMap read_extents(int fd, uint64_t inode, uint64_t size, const Volume &volume);

}  // namespace tool
