#include "extents.h"

#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <set>

namespace tool {
namespace {

constexpr size_t EXTENTS_PER_CALL = 128;
constexpr uint64_t MAX_BTRFS_EXTENT = 256 << 20;  // reserved; half of that if written

// Queries all extents of the file, including those beyond its end. Returns false on failure.
bool query_extents(int fd, std::vector<fiemap_extent> &extents) {
  alignas(fiemap) char memory[sizeof(fiemap) + EXTENTS_PER_CALL * sizeof(fiemap_extent)] = {};
  auto *const request = reinterpret_cast<fiemap *>(memory);
  for (uint64_t start = 0;;) {
    *request = {};
    request->fm_start = start;
    request->fm_length = FIEMAP_MAX_OFFSET - start;
    request->fm_flags = FIEMAP_FLAG_SYNC;
    request->fm_extent_count = EXTENTS_PER_CALL;
    if (ioctl(fd, FS_IOC_FIEMAP, request) != 0) {
      return false;
    }
    const uint32_t count = request->fm_mapped_extents;
    extents.insert(extents.end(), request->fm_extents, request->fm_extents + count);
    if (count == 0 || (extents.back().fe_flags & FIEMAP_EXTENT_LAST) != 0) {
      return true;
    }
    start = extents.back().fe_logical + extents.back().fe_length;
  }
}

bool has(const fiemap_extent &extent, uint32_t flags) {
  return (extent.fe_flags & flags) != 0;
}

// Adds data to the list, merged with the piece before it if contiguous.
void add_data(std::vector<MappedData> &data, const MappedData &piece) {
  if (!data.empty()) {
    MappedData &last = data.back();
    if (last.end() == piece.offset && last.address_end() == piece.address) {
      last.length += piece.length;
      return;
    }
  }
  data.push_back(piece);
}

// A compressed extent's blocks are contiguous, but their number, at least one, is not reported.
HeldRange compressed_range(const fiemap_extent &extent, uint64_t block_size) {
  return {.begin = extent.fe_physical,
          .end = extent.fe_physical + block_size,
          .bytes = extent.fe_length,
          .is_size_known = false,
          .is_shared = has(extent, FIEMAP_EXTENT_SHARED)};
}

HeldRange plain_range(const fiemap_extent &extent) {
  return {.begin = extent.fe_physical,
          .end = extent.fe_physical + extent.fe_length,
          .bytes = extent.fe_length,
          .is_shared = has(extent, FIEMAP_EXTENT_SHARED)};
}

// Blocks reserved beyond `end` stay with the file, whatever it shares.
void add_extent(ExtentMap &map, fiemap_extent extent, uint64_t end, uint64_t block_size) {
  if (has(extent, FIEMAP_EXTENT_DATA_INLINE)) {
    map.is_inline = true;
    map.mapped_bytes += extent.fe_length;
    return;
  }
  if (has(extent, FIEMAP_EXTENT_UNKNOWN)) {
    map.is_known = false;
    return;
  }
  extent.fe_length =
      std::min<uint64_t>(extent.fe_length, end - std::min(end, uint64_t{extent.fe_logical}));
  if (extent.fe_length == 0) {
    return;
  }
  if (has(extent, FIEMAP_EXTENT_ENCODED)) {
    map.held.push_back(compressed_range(extent, block_size));
  } else {
    map.held.push_back(plain_range(extent));
    map.used.push_back({extent.fe_physical, extent.fe_physical + extent.fe_length});
  }
  const bool is_written = !has(extent, FIEMAP_EXTENT_UNWRITTEN);
  add_data(is_written ? map.data : map.reserved,
           {extent.fe_logical, extent.fe_length, extent.fe_physical});
  map.mapped_bytes += extent.fe_length;
  map.shared_bytes += has(extent, FIEMAP_EXTENT_SHARED) ? extent.fe_length : 0;
}

bool is_shared_at(const std::vector<fiemap_extent> &extents, uint64_t offset) {
  const auto next = std::upper_bound(
      extents.begin(), extents.end(), offset,
      [](uint64_t wanted, const fiemap_extent &extent) { return wanted < extent.fe_logical; });
  return next != extents.begin() && has(*(next - 1), FIEMAP_EXTENT_SHARED);
}

// On Btrfs, what was overwritten in the middle of an extent stays on disk with the rest. Two parts
// of a file that are as far apart on disk as in the file are perhaps such a rest.
void add_overwritten(const std::vector<MappedData> &data, std::vector<HeldRange> &held) {
  std::map<uint64_t, const MappedData *> last;  // by the distance between address and offset
  for (const MappedData &piece : data) {
    const MappedData *&before = last[piece.distance()];
    const uint64_t begin = before != nullptr ? before->address_end() : piece.address;
    if (begin < piece.address && piece.address - begin < MAX_BTRFS_EXTENT) {
      held.push_back({.begin = begin,
                      .end = piece.address,
                      .bytes = piece.address - begin,
                      .is_perhaps = true});
    }
    before = &piece;
  }
}

// Blocks before those reserved beyond the end, at the same distance between address and offset, are
// perhaps of the same Btrfs extent, which then stays whole.
void doubt_what_is_reserved_beyond(const std::vector<fiemap_extent> &extents, uint64_t end,
                                   std::vector<HeldRange> &held) {
  std::set<uint64_t> distances;
  for (const fiemap_extent &extent : extents) {
    if (extent.fe_logical + extent.fe_length > end) {
      distances.insert(extent.fe_physical - extent.fe_logical);
    }
  }
  std::set<uint64_t> doubtful;  // first addresses
  for (const fiemap_extent &extent : extents) {
    if (extent.fe_logical + extent.fe_length + MAX_BTRFS_EXTENT > end &&
        distances.contains(extent.fe_physical - extent.fe_logical)) {
      doubtful.insert(extent.fe_physical);
    }
  }
  for (HeldRange &range : held) {
    range.is_perhaps = doubtful.contains(range.begin);
  }
}

// Whole Btrfs extents: each stays on disk until nothing refers to any part of it.
std::vector<HeldRange> whole_extents(const std::vector<btrfs::FileExtent> &file,
                                     const std::vector<fiemap_extent> &extents, uint64_t end) {
  std::vector<HeldRange> held;
  std::map<uint64_t, size_t> indices;  // in `held`, by the first address
  for (const btrfs::FileExtent &extent : file) {
    const auto [entry, is_new] = indices.try_emplace(extent.disk_begin, held.size());
    if (is_new) {
      held.push_back({.begin = extent.disk_begin,
                      .end = extent.disk_begin + extent.disk_bytes,
                      .bytes = extent.disk_bytes});
    }
    HeldRange &range = held[entry->second];
    range.is_shared |= is_shared_at(extents, extent.offset);
    range.is_beyond_end |= extent.offset + extent.length > end;
  }
  return held;
}

// What the blocks of the open file have beside the data. Btrfs does not count these.
uint64_t bytes_beside(int fd, const std::vector<fiemap_extent> &extents) {
  struct stat status = {};
  fstat(fd, &status);  // all 0 if that fails
  uint64_t data = 0;
  for (const fiemap_extent &extent : extents) {
    data += extent.fe_length;
  }
  const uint64_t all = static_cast<uint64_t>(status.st_blocks) * 512;
  return all - std::min(all, data);
}

// The blocks of what the file uses of an extent; of a compressed one, a proportionate part.
DiskRange used_part(const btrfs::FileExtent &extent, uint64_t end) {
  const uint64_t length = std::min(extent.length, end - std::min(end, extent.offset));
  const auto address = [&](uint64_t position) {
    return extent.disk_begin +
           position * extent.disk_bytes / std::max<uint64_t>(extent.full_bytes, 1);
  };
  return {address(extent.skipped), address(extent.skipped + length)};
}

std::vector<DiskRange> used_parts(const std::vector<btrfs::FileExtent> &file, uint64_t end) {
  std::vector<DiskRange> parts(file.size());
  std::transform(file.begin(), file.end(), parts.begin(),
                 [end](const btrfs::FileExtent &extent) { return used_part(extent, end); });
  return parts;
}

}  // namespace

bool has_inline_data(int fd) {
  std::vector<fiemap_extent> extents;
  return query_extents(fd, extents) &&
         std::any_of(extents.begin(), extents.end(), [](const fiemap_extent &extent) {
           return has(extent, FIEMAP_EXTENT_DATA_INLINE);
         });
}

ExtentMap read_extents(int fd, uint64_t inode, uint64_t size, const Volume &volume) {
  ExtentMap map;
  std::vector<fiemap_extent> extents;
  if (!volume.can_share || !query_extents(fd, extents)) {
    return map;
  }
  map.is_known = true;
  const uint64_t end = (size + volume.block_size - 1) / volume.block_size * volume.block_size;
  for (const fiemap_extent &extent : extents) {
    add_extent(map, extent, end, volume.block_size);
  }
  if (!volume.is_btrfs) {
    map.bytes_beside = bytes_beside(fd, extents);
  }
  if (!volume.subvolume || map.is_inline) {
    return map;
  }
  map.inode = btrfs::Inode{*volume.subvolume, inode};
  if (!map.held.empty()) {
    if (const auto file = btrfs::file_extents(fd, *map.inode)) {
      map.held = whole_extents(*file, extents, end);
      map.used = used_parts(*file, end);
    } else {
      doubt_what_is_reserved_beyond(extents, end, map.held);
      add_overwritten(map.data, map.held);
    }
  }
  return map;
}

}  // namespace tool
