#include "btrfs_extents.h"

#include <linux/btrfs.h>
#include <linux/btrfs_tree.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <span>

namespace tool::btrfs {
namespace {

constexpr uint64_t INODE_WITHOUT_CHECKSUMS = 1;  // a flag of an inode in the tree
constexpr size_t MAX_SPACES = 16;  // data, metadata and system, each in up to a few profiles
constexpr size_t INODE_BYTES = sizeof(btrfs_ioctl_search_header) + sizeof(btrfs_inode_item);
constexpr size_t SEARCH_BYTES = 8 << 10;
// The largest search item. If less space than this is left, there may be more items.
constexpr size_t ITEM_BYTES = sizeof(btrfs_ioctl_search_header) + sizeof(btrfs_file_extent_item);
// Enough for 2,730 references, which usually suffices, and for 43,690.
constexpr size_t REFERENCE_BYTES[] = {64 << 10, 1 << 20};

// Memory aligned for the kernel's records.
std::vector<uint64_t> record_memory(size_t bytes) {
  return std::vector<uint64_t>(bytes / sizeof(uint64_t) + 1);
}

btrfs_ioctl_search_key extent_key(const Inode &inode, uint64_t offset) {
  btrfs_ioctl_search_key key = {};
  key.tree_id = inode.subvolume;
  key.min_objectid = key.max_objectid = inode.number;
  key.min_type = key.max_type = BTRFS_EXTENT_DATA_KEY;
  key.min_offset = offset;
  key.max_offset = UINT64_MAX;
  key.max_transid = UINT64_MAX;
  key.nr_items = UINT32_MAX;
  return key;
}

// Adds the extent that a tree item refers to. Inline data refers to none, a hole to an empty one.
void add_extent(const char *item, uint32_t length, uint64_t offset,
                std::vector<FileExtent> &extents) {
  btrfs_file_extent_item extent = {};
  if (length < sizeof extent) {
    return;
  }
  std::memcpy(&extent, item, sizeof extent);
  if (extent.type != BTRFS_FILE_EXTENT_INLINE) {
    extents.push_back({.offset = offset,
                       .length = extent.num_bytes,
                       .disk_begin = extent.disk_bytenr,
                       .disk_bytes = extent.disk_num_bytes,
                       .full_bytes = extent.compression != 0 ? uint64_t{extent.ram_bytes}
                                                             : uint64_t{extent.disk_num_bytes},
                       .skipped = extent.offset});
  }
}

// Each reference is three words: inode, offset, subvolume.
std::vector<Inode> inodes_in(const btrfs_data_container &answer) {
  std::vector<Inode> inodes;
  inodes.reserve(answer.elem_cnt / 3);
  for (uint32_t i = 0; i + 2 < answer.elem_cnt; i += 3) {
    inodes.push_back({answer.val[i + 2], answer.val[i]});
  }
  return inodes;
}

uint64_t copies_by(uint64_t profile) {
  if ((profile & BTRFS_BLOCK_GROUP_RAID1C4) != 0) {
    return 4;
  }
  if ((profile & BTRFS_BLOCK_GROUP_RAID1C3) != 0) {
    return 3;
  }
  constexpr uint64_t TWO =
      BTRFS_BLOCK_GROUP_DUP | BTRFS_BLOCK_GROUP_RAID1 | BTRFS_BLOCK_GROUP_RAID10;
  return (profile & TWO) != 0 ? 2 : 1;
}

}  // namespace

Copies copies_kept(int fd) {
  std::vector<uint64_t> memory =
      record_memory(sizeof(btrfs_ioctl_space_args) + MAX_SPACES * sizeof(btrfs_ioctl_space_info));
  auto *const answer = reinterpret_cast<btrfs_ioctl_space_args *>(memory.data());
  answer->space_slots = MAX_SPACES;
  Copies copies;
  if (ioctl(fd, BTRFS_IOC_SPACE_INFO, answer) != 0) {
    return copies;
  }
  for (const btrfs_ioctl_space_info &space : std::span(answer->spaces, answer->total_spaces)) {
    const uint64_t flags = space.flags;
    if ((flags & BTRFS_BLOCK_GROUP_METADATA) != 0) {
      copies.metadata = std::max(copies.metadata, copies_by(flags));
    }
    if ((flags & BTRFS_BLOCK_GROUP_DATA) != 0) {
      copies.data = std::max(copies.data, copies_by(flags));
    }
  }
  return copies;
}

std::optional<uint64_t> subvolume_of(int fd) {
  btrfs_ioctl_ino_lookup_args lookup = {};
  lookup.objectid = BTRFS_FIRST_FREE_OBJECTID;  // with tree 0: the subvolume of the file
  return ioctl(fd, BTRFS_IOC_INO_LOOKUP, &lookup) == 0 ? std::optional(lookup.treeid)
                                                       : std::nullopt;
}

std::optional<std::vector<FileExtent>> file_extents(int fd, const Inode &inode) {
  std::vector<uint64_t> memory = record_memory(sizeof(btrfs_ioctl_search_args_v2) + SEARCH_BYTES);
  auto *const search = reinterpret_cast<btrfs_ioctl_search_args_v2 *>(memory.data());
  std::vector<FileExtent> extents;
  for (uint64_t offset = 0;;) {
    search->key = extent_key(inode, offset);
    search->buf_size = SEARCH_BYTES;
    if (ioctl(fd, BTRFS_IOC_TREE_SEARCH_V2, search) != 0) {
      return std::nullopt;
    }
    const char *cursor = reinterpret_cast<const char *>(search->buf);
    const char *const end = cursor + SEARCH_BYTES;
    for (uint32_t i = 0; i < search->key.nr_items; ++i) {
      btrfs_ioctl_search_header header = {};
      std::memcpy(&header, cursor, sizeof header);
      cursor += sizeof header;
      add_extent(cursor, header.len, header.offset, extents);
      cursor += header.len;
      offset = header.offset + 1;
    }
    if (search->key.nr_items == 0 || static_cast<size_t>(end - cursor) >= ITEM_BYTES) {
      return extents;
    }
  }
}

Writing writing_of(int fd, const Inode &inode) {
  unsigned flags = 0;
  if (ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_NOCOW_FL) != 0) {
    return Writing::in_place;
  }
  std::vector<uint64_t> memory = record_memory(sizeof(btrfs_ioctl_search_args_v2) + INODE_BYTES);
  auto *const search = reinterpret_cast<btrfs_ioctl_search_args_v2 *>(memory.data());
  search->key = extent_key(inode, 0);
  search->key.min_type = search->key.max_type = BTRFS_INODE_ITEM_KEY;
  search->buf_size = INODE_BYTES;
  btrfs_inode_item item = {};
  if (ioctl(fd, BTRFS_IOC_TREE_SEARCH_V2, search) != 0 || search->key.nr_items == 0) {
    return Writing::checked;
  }
  const char *const answer = reinterpret_cast<const char *>(search->buf);
  std::memcpy(&item, answer + sizeof(btrfs_ioctl_search_header), sizeof item);
  return (item.flags & INODE_WITHOUT_CHECKSUMS) != 0 ? Writing::unchecked : Writing::checked;
}

namespace {

// Ends the running transaction. Until then the file system does not find an extent that was written
// in it, nor who else refers to it.
void commit(int fd) {
  uint64_t transaction = 0;
  if (ioctl(fd, BTRFS_IOC_START_SYNC, &transaction) == 0) {
    ioctl(fd, BTRFS_IOC_WAIT_SYNC, &transaction);
  }
}

// Returns 0 or an errno.
int query_references(int fd, uint64_t disk_begin, std::vector<uint64_t> &answer) {
  btrfs_ioctl_logical_ino_args request = {};
  request.logical = disk_begin;
  request.size = answer.size() * sizeof answer.front();
  request.flags = BTRFS_LOGICAL_INO_ARGS_IGNORE_OFFSET;
  request.inodes = reinterpret_cast<uintptr_t>(answer.data());
  return ioctl(fd, BTRFS_IOC_LOGICAL_INO_V2, &request) == 0 ? 0 : errno;
}

}  // namespace

std::optional<std::vector<Inode>> references_of(int fd, uint64_t disk_begin) {
  for (const size_t bytes : REFERENCE_BYTES) {
    std::vector<uint64_t> memory = record_memory(bytes);
    int error = query_references(fd, disk_begin, memory);
    if (error == ENOENT) {
      commit(fd);
      error = query_references(fd, disk_begin, memory);
    }
    if (error != 0) {
      return error == ENOENT ? std::optional(std::vector<Inode>()) : std::nullopt;
    }
    const auto &answer = *reinterpret_cast<const btrfs_data_container *>(memory.data());
    if (answer.elem_missed == 0) {
      return inodes_in(answer);
    }
  }
  return std::nullopt;
}

}  // namespace tool::btrfs
