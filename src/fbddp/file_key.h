// The key of a file within a run and in the digest file: device and inode number, 32 bits each.
#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace velmarin {

inline uint64_t file_key_of(const struct stat &status) {
  return static_cast<uint64_t>(static_cast<uint32_t>(status.st_dev)) << 32 |
         static_cast<uint32_t>(status.st_ino);
}

inline uint32_t inode_of_key(uint64_t key) {
  return static_cast<uint32_t>(key);
}

}  // namespace velmarin
