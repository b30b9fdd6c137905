// Identifies the file system of a file.
#pragma once

#include <sys/stat.h>

#include <cstdint>

namespace tool {

// A number shared by all files of one file system. The subvolumes of a Btrfs have their own device
// numbers, but are one file system. `fd` is open on the file; `status` is its fstat result.
uint64_t file_system_of(int fd, const struct stat &status);

}  // namespace tool
