// Measures how much of a file's data is shared.
#pragma once

#include <cstdint>
#include <string>

#include "space.h"

namespace tool {

struct Sharing {
  bool is_known = false;  // if false, the file system did not answer
  uint64_t mapped_bytes = 0;
  uint64_t shared_bytes = 0;
  Space taken;  // on disk, by the data that is not shared
  bool is_complete() const { return is_known && mapped_bytes > 0 && shared_bytes == mapped_bytes; }
};

// What the file shares with anything else: other files or snapshots.
Sharing sharing_of(const std::string &path);

// What the second file shares with the first.
Sharing sharing_between(const std::string &first, const std::string &second);

// In words: "all its extents are shared", "64 KiB of its 2 MiB are in shared extents", "none of its
// extents is shared"; empty for a file without data. On Btrfs a file may share an extent although
// nothing else uses the same part of it.
std::string describe(const Sharing &sharing);

}  // namespace tool
