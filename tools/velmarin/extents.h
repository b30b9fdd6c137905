// Where a file's data is on disk, as the file system reports it.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <vector>

#include "btrfs_extents.h"
#include "volume.h"

namespace tool {

// A range of a file, and where it is on disk. Two files with the same `data` share all their data.
struct MappedData {
  uint64_t offset = 0;
  uint64_t length = 0;
  uint64_t address = 0;

  uint64_t end() const { return offset + length; }
  uint64_t address_end() const { return address + length; }
  uint64_t distance() const { return address - offset; }
  auto operator<=>(const MappedData &) const = default;  // NOLINT(modernize-use-nullptr)
};

// A range on disk that stays occupied because a file refers to it.
struct HeldRange {
  uint64_t begin = 0;
  uint64_t end = 0;
  uint64_t bytes = 0;  // occupied; at most this if `is_size_known` is false
  bool is_size_known = true;
  bool is_shared = false;      // something else refers to it too
  bool is_perhaps = false;     // perhaps not occupied, or by something else alone
  bool is_beyond_end = false;  // the file still refers to it after merging
};

// A range on disk.
struct DiskRange {
  uint64_t begin = 0;
  uint64_t end = 0;
  auto operator<=>(const DiskRange &) const = default;  // NOLINT(modernize-use-nullptr)
};

struct ExtentMap {
  bool is_known = false;      // if false, the file system did not answer and the rest is invalid
  bool is_inline = false;     // the data is stored in the metadata
  uint64_t mapped_bytes = 0;  // in extents or inline, up to the end of the file, in whole blocks
  uint64_t shared_bytes = 0;  // of these, in extents that something else refers to too
  uint64_t bytes_beside = 0;  // in blocks of the file with attributes or the list of extents
  std::vector<MappedData> data;
  std::vector<MappedData> reserved;  // allocated but unwritten, up to the end of the file
  std::vector<HeldRange> held;
  std::vector<DiskRange> used;  // what a copy of the file would need, without data of unknown size
  std::optional<btrfs::Inode> inode;  // on Btrfs
};

// Queries the extents of an open file of `size` bytes. First flushes data that is not on disk yet;
// the file's contents do not change.
ExtentMap read_extents(int fd, uint64_t inode, uint64_t size, const Volume &volume);

// Whether an open file has data in the metadata. First flushes data that is not on disk yet.
bool has_inline_data(int fd);

}  // namespace tool
