// Btrfs queries, most of which need administrator rights: how much of the disk a file's extents
// occupy, and what else refers to them. Without these rights all but `subvolume_of`,
// `copies_kept` and `writing_of` fail.
#pragma once

#include <compare>
#include <cstdint>
#include <optional>
#include <vector>

namespace tool::btrfs {

// Part of a file and the extent on disk that it refers to. The whole extent stays on disk while
// anything refers to any part of it.
struct FileExtent {
  uint64_t offset = 0;  // in the file
  uint64_t length = 0;
  uint64_t disk_begin = 0;
  uint64_t disk_bytes = 0;  // after any compression
  uint64_t full_bytes = 0;  // before it
  uint64_t skipped = 0;     // of these, before the part
};

// An inode in a subvolume.
struct Inode {
  uint64_t subvolume = 0;
  uint64_t number = 0;
  auto operator<=>(const Inode &) const = default;  // NOLINT(modernize-use-nullptr)
};

// The subvolume of an open file. Needs no special rights.
std::optional<uint64_t> subvolume_of(int fd);

// How often the file system keeps each block.
struct Copies {
  uint64_t data = 1;
  uint64_t metadata = 1;
};

// Of the file system of an open file. Needs no special rights.
Copies copies_kept(int fd);

// All extents of a file in file order, including those beyond its end. Excludes data that has not
// reached the disk yet.
std::optional<std::vector<FileExtent>> file_extents(int fd, const Inode &inode);

// How a file's data is written: to new blocks with checksums, without them, or in place without
// them. Data with checksums and data without cannot be shared.
enum class Writing { checked, unchecked, in_place };

// How the open file is written. Without administrator rights `unchecked` is taken for `checked`.
Writing writing_of(int fd, const Inode &inode);

// Every inode that refers to the extent at that address, including inodes in snapshots. Empty if
// none does any more. Commits the running transaction if the extent cannot be found before that.
std::optional<std::vector<Inode>> references_of(int fd, uint64_t disk_begin);

}  // namespace tool::btrfs
