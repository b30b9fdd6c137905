// Remembers which file system had which device number. Btrfs gets a new number for each subvolume
// whenever it is mounted, but saved digests are keyed by device number.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "digest_file.h"

namespace tool {

class DeviceNumbers {
 public:
  // Reads the file at `path`, if there is one, and looks at each directory named in it: if it still
  // leads to the same file system, the file system's number is known.
  void load(const std::string &path);

  // Adjusts the keys of digests that were saved under the numbers in the file. Drops those whose
  // number is another file system's now. Returns whether any key was changed or dropped.
  bool renumber(SavedDigests &digests) const;

  // Adds the device of a directory.
  void add(dev_t device, const std::string &directory);

  // Writes the file anew. Failure only costs time in a later scan.
  void save() const;

 private:
  struct Entry {
    uint64_t file_system = 0;
    std::string directory;
  };

  std::string path_;
  std::map<uint32_t, uint32_t> changed_;  // new number by old number
  std::set<uint32_t> replaced_;           // numbers of file systems where others were before
  std::map<uint32_t, Entry> entries_;     // by current number
};

}  // namespace tool
