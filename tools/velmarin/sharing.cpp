#include "sharing.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

#include "extents.h"
#include "size_text.h"
#include "volume.h"

namespace tool {
namespace {

// What a file's extents say, and on which file system they are.
struct Place {
  dev_t volume = 0;
  ExtentMap map;
};

Place place_of(const std::string &path, Volumes &volumes) {
  Place place;
  struct stat status = {};
  const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    return place;
  }
  if (fstat(fd, &status) == 0) {
    const Volume &volume = volumes.get_or_add(status.st_dev, fd);
    place.volume = volume.id;
    place.map = read_extents(fd, status.st_ino, static_cast<uint64_t>(status.st_size), volume);
  }
  close(fd);
  return place;
}

// The bytes at the same offset in both pieces, if these are at the same place on disk.
uint64_t common_bytes(const MappedData &left, const MappedData &right) {
  const uint64_t begin = std::max(left.offset, right.offset);
  const uint64_t end = std::min(left.offset + left.length, right.offset + right.length);
  const bool is_one_place = left.address - left.offset == right.address - right.offset;
  return is_one_place && begin < end ? end - begin : 0;
}

// Both lists are in file order.
uint64_t common_bytes(const std::vector<MappedData> &left, const std::vector<MappedData> &right) {
  uint64_t bytes = 0;
  for (auto a = left.begin(), b = right.begin(); a != left.end() && b != right.end();) {
    bytes += common_bytes(*a, *b);
    if (a->offset + a->length < b->offset + b->length) {
      ++a;
    } else {
      ++b;
    }
  }
  return bytes;
}

// What a file that shares that much takes besides. Inline data takes no whole block.
Space taken_by(const ExtentMap &map, uint64_t shared_bytes) {
  Space taken;
  for (const HeldRange &range : map.held) {
    (range.is_size_known ? taken.certain : taken.uncertain) += range.bytes;
  }
  taken.uncertain += map.is_inline ? map.data_bytes : 0;
  taken.certain -= std::min(taken.certain, shared_bytes);
  return taken;
}

}  // namespace

Sharing sharing_of(const std::string &path) {
  Volumes volumes;
  const ExtentMap map = place_of(path, volumes).map;
  Sharing sharing;
  sharing.is_known = map.is_known;
  sharing.data_bytes = map.data_bytes;
  sharing.shared_bytes = map.shared_bytes;
  return sharing;
}

Sharing sharing_between(const std::string &first, const std::string &second) {
  Volumes volumes;
  const Place left = place_of(first, volumes);
  const Place right = place_of(second, volumes);
  Sharing sharing;
  sharing.is_known = left.map.is_known && right.map.is_known && left.volume == right.volume;
  sharing.data_bytes = right.map.data_bytes;
  sharing.shared_bytes = common_bytes(left.map.data, right.map.data);
  sharing.taken = taken_by(right.map, sharing.shared_bytes);
  return sharing;
}

std::string describe(const Sharing &sharing) {
  if (!sharing.is_known || sharing.data_bytes == 0) {
    return "";
  }
  if (sharing.is_complete()) {
    return "all its extents are shared";
  }
  return sharing.shared_bytes == 0 ? "none of its extents is shared"
                                   : format_size(sharing.shared_bytes) + " of its " +
                                         format_size(sharing.data_bytes) + " are in shared extents";
}

}  // namespace tool
