// What Btrfs tells the administrator alone: how much of the disk the extents of a file occupy, and
// who else refers to them. Without that right every question here fails.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <vector>

namespace tool::btrfs {

// A part of a file and the extent on disk to which it refers. An extent stays on disk as a whole as
// long as anything refers to a part of it.
struct FileExtent {
  uint64_t offset = 0;  // in the file
  uint64_t length = 0;
  uint64_t disk_begin = 0;
  uint64_t disk_bytes = 0;  // compressed, if it is
};

// An inode in a subvolume.
struct Inode {
  uint64_t subvolume = 0;
  uint64_t number = 0;
  auto operator<=>(const Inode &) const = default;  // NOLINT(modernize-use-nullptr)
};

// The subvolume of an open file. Needs no special right.
std::optional<uint64_t> subvolume_of(int fd);

// All extents of a file, in the order of the file; those behind its end are among them. Data that
// is not on disk yet is not.
std::optional<std::vector<FileExtent>> file_extents(int fd, const Inode &inode);

// Every inode that refers to the extent at that address, snapshots included. Empty when nothing
// does any more.
std::optional<std::vector<Inode>> references_of(int fd, uint64_t disk_begin);

}  // namespace tool::btrfs
