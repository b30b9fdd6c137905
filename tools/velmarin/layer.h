// To which layered inode a file is attached, asked of the file system directly.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// The layered inode of a file: its number, 0 for a plain file, or minus an errno.
int64_t query_layer(int fd);
int64_t query_layer(const std::string &path);

// In words: "a plain file", "deduplicated onto layered inode 12", ...; and whether its file system
// cannot share data.
std::string describe_layer(const std::string &path);

}  // namespace tool
