// Which file system a file lies on.
#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace tool {

// A number that is the same for all files of one file system. The subvolumes of a Btrfs have device
// numbers of their own, yet are one file system. `fd` is open on the file, `status` is its fstat.
uint64_t file_system_of(int fd, const struct stat &status);

}  // namespace tool
