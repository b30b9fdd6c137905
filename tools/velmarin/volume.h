// What each file system can do with identical data.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "common/unique_fd.h"

namespace tool {

struct Volume {
  dev_t id = 0;            // one of its device numbers, the same for all subvolumes of a Btrfs
  bool can_share = false;  // files of this file system can share extents
  bool is_btrfs = false;
  std::optional<uint64_t> subvolume;  // of a Btrfs
  uint64_t block_size = 4096;
  uint64_t xfs_inode_bytes = 0;     // 0 if it is not XFS
  uint64_t btrfs_record_bytes = 0;  // estimated: of a file once it is merged for the first time
  velmarin::unique_fd fd;           // open on a file of a Btrfs, for queries
};

// Whether files on the file system of an open file can share extents.
bool can_share_data(int fd);

// As above, for a path; false if it cannot be opened.
bool can_share_data(const std::string &path);

bool is_btrfs(int fd);

// The estimated metadata that a file takes on the Btrfs of an open file once it is first marked.
// Other file systems return 0: they count it among the blocks of the file.
uint64_t btrfs_mark_bytes(int fd);

// What the commands add if the file system cannot share data.
inline constexpr const char *CANNOT_SHARE = "; its file system cannot share data";

// The file systems seen so far.
class Volumes {
 public:
  // Returns null for a device not seen yet.
  const Volume *find(dev_t device) const;

  // The file system of the open file `fd`, which is on that device.
  const Volume &get_or_add(dev_t device, int fd);

 private:
  using FileSystemId = std::array<uint8_t, 16>;

  std::map<dev_t, Volume> volumes_;
  std::map<FileSystemId, dev_t> btrfs_;  // the first device number seen of each Btrfs
};

}  // namespace tool
