// Asks the file system which layered inode a file is attached to.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// The number of the file's layered inode, 0 for a plain file, or minus an errno.
int64_t query_layer(int fd);
int64_t query_layer(const std::string &path);

// In words: "a plain file", "deduplicated onto layered inode 12", ...; with a note if the file
// system cannot share data.
std::string describe_layer(const std::string &path);

}  // namespace tool
