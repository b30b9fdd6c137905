// Asks the file system which layered inode a file is attached to.
#pragma once

#include <cstdint>
#include <string>

namespace tool {

// The attribute that attaches a file to a layered inode.
inline constexpr const char *RECORD = "user.velmarin.layer";

// The number of the file's layered inode, 0 for a plain file, or minus an errno.
int64_t query_layer(int fd);
int64_t query_layer(const std::string &path);

// Removes the record that attaches the file to a layered inode. Its data stays where it is.
void drop_layer(int fd);
void drop_layer(const std::string &path);

// "; " and what the file's extents say, or that its file system cannot share data. Empty if they
// say what is expected of a file that shares nothing.
std::string sharing_remark(const std::string &path, bool expects_sharing);

// In words: "a plain file", "deduplicated onto layered inode 12", ...; with the remark above.
std::string describe_layer(const std::string &path);

}  // namespace tool
