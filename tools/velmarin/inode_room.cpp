#include "inode_room.h"

#include <linux/posix_acl_xattr.h>
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

// The name is stored without the namespace.
uint64_t attribute_bytes(std::string_view name, uint64_t value_bytes) {
  return ATTRIBUTE_HEADER_BYTES + name.size() - (name.find('.') + 1) + value_bytes;
}

// An access list is stored in another form, under a name that root sees too.
constexpr std::string_view ACCESS_LIST = "system.posix_acl_access";
constexpr std::string_view STORED_ACCESS_LIST = "trusted.SGI_ACL_FILE";

uint64_t access_list_bytes(uint64_t value_bytes) {
  const uint64_t entries =
      (value_bytes - sizeof(posix_acl_xattr_header)) / sizeof(posix_acl_xattr_entry);
  return attribute_bytes(STORED_ACCESS_LIST, 4 + 12 * entries);
}

// All attributes but the record, as far as the user may see them.
uint64_t other_attributes_bytes(int fd) {
  char names[MAX_LIST_BYTES];
  const ssize_t length = flistxattr(fd, names, sizeof names);
  uint64_t bytes = 0;
  for (const char *at = names; at - names < length; at += std::strlen(at) + 1) {
    const std::string_view name = at;
    const ssize_t size = fgetxattr(fd, at, nullptr, 0);
    if (size < 0 || name == RECORD || name == STORED_ACCESS_LIST) {
      continue;
    }
    const auto value_bytes = static_cast<uint64_t>(size);
    bytes +=
        name == ACCESS_LIST ? access_list_bytes(value_bytes) : attribute_bytes(name, value_bytes);
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
