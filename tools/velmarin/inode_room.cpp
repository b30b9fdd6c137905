#include "inode_room.h"

#include <sys/xattr.h>

#include <algorithm>
#include <cstring>
#include <string_view>

#include "layer.h"

namespace tool {
namespace {

// How XFS uses an inode: first the fixed fields, then the list of extents, whose place has a lower
// limit, then the attributes. If these do not fit all move to a block of their own.
constexpr uint64_t FIELDS_BYTES = 176;
constexpr uint64_t EXTENT_BYTES = 16;
constexpr uint64_t MIN_EXTENTS_BYTES = 56;
constexpr uint64_t ATTRIBUTES_HEADER_BYTES = 4;
constexpr uint64_t ATTRIBUTE_HEADER_BYTES = 3;  // for each

constexpr uint64_t RECORD_BYTES = 56;
constexpr size_t MAX_LIST_BYTES = 8 << 10;  // of the names that fit into the largest inode, 2 KiB

// An attribute in the inode. Its name is stored without the namespace.
uint64_t attribute_bytes(std::string_view name, uint64_t value_bytes) {
  return ATTRIBUTE_HEADER_BYTES + name.size() - (name.find('.') + 1) + value_bytes;
}

// All attributes but the record, as far as the user may see them.
uint64_t other_attributes_bytes(int fd) {
  char names[MAX_LIST_BYTES];
  const ssize_t length = flistxattr(fd, names, sizeof names);
  uint64_t bytes = 0;
  for (const char *name = names; name - names < length; name += std::strlen(name) + 1) {
    const ssize_t size = fgetxattr(fd, name, nullptr, 0);
    if (size >= 0 && std::strcmp(name, RECORD) != 0) {
      bytes += attribute_bytes(name, static_cast<uint64_t>(size));
    }
  }
  return bytes;
}

}  // namespace

// A block beside the data has the attributes, which then grow there, or a long list of extents,
// which then leaves them more room.
uint64_t record_bytes_outside(int fd, const ExtentMap &map, const Volume &volume) {
  if (volume.xfs_inode_bytes == 0 || !map.is_known || map.bytes_beside > 0) {
    return 0;
  }
  const uint64_t extents = EXTENT_BYTES * (map.data.size() + map.reserved.size());
  const uint64_t needed = FIELDS_BYTES + std::max(extents, MIN_EXTENTS_BYTES) +
                          ATTRIBUTES_HEADER_BYTES + attribute_bytes(RECORD, RECORD_BYTES) +
                          other_attributes_bytes(fd);
  return needed > volume.xfs_inode_bytes ? volume.block_size : 0;
}

}  // namespace tool
