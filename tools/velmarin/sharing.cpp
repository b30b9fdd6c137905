#include "sharing.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "common/unique_fd.h"
#include "extents.h"
#include "size_text.h"
#include "volume.h"

namespace tool {
namespace {

// A file's extents and their file system.
struct Layout {
  dev_t volume = 0;
  ExtentMap map;
};

Layout layout_of(const std::string &path, Volumes &volumes) {
  Layout layout;
  struct stat status = {};
  const velmarin::unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (fstat(fd.get(), &status) == 0) {
    const Volume &volume = volumes.get_or_add(status.st_dev, fd.get());
    layout.volume = volume.id;
    layout.map =
        read_extents(fd.get(), status.st_ino, static_cast<uint64_t>(status.st_size), volume);
  }
  return layout;
}

// The bytes at the same offset in both pieces, if they are the same bytes on disk.
uint64_t common_bytes(const MappedData &left, const MappedData &right) {
  const uint64_t begin = std::max(left.offset, right.offset);
  const uint64_t end = std::min(left.end(), right.end());
  return left.distance() == right.distance() ? end - std::min(begin, end) : 0;
}

// Both lists are in file order.
uint64_t common_bytes(const std::vector<MappedData> &left, const std::vector<MappedData> &right) {
  uint64_t bytes = 0;
  for (auto a = left.begin(), b = right.begin(); a != left.end() && b != right.end();) {
    bytes += common_bytes(*a, *b);
    if (a->end() < b->end()) {
      ++a;
    } else {
      ++b;
    }
  }
  return bytes;
}

// The space that a file takes in addition to what it shares. Inline data takes less than a block.
Space taken_by(const ExtentMap &map, uint64_t shared_bytes) {
  Space taken;
  for (const HeldRange &range : map.held) {
    (range.is_size_known && !range.is_perhaps ? taken.certain : taken.uncertain) += range.bytes;
  }
  taken.uncertain += map.is_inline ? map.mapped_bytes : 0;
  taken.certain -= std::min(taken.certain, shared_bytes);
  return taken;
}

}  // namespace

Sharing sharing_of(const std::string &path) {
  Volumes volumes;
  const ExtentMap map = layout_of(path, volumes).map;
  Sharing sharing;
  sharing.is_known = map.is_known;
  sharing.mapped_bytes = map.mapped_bytes;
  sharing.shared_bytes = map.shared_bytes;
  return sharing;
}

Sharing sharing_between(const std::string &first, const std::string &second) {
  Volumes volumes;
  const Layout left = layout_of(first, volumes);
  const Layout right = layout_of(second, volumes);
  Sharing sharing;
  sharing.is_known = left.map.is_known && right.map.is_known && left.volume == right.volume;
  sharing.mapped_bytes = right.map.mapped_bytes;
  sharing.shared_bytes = common_bytes(left.map.data, right.map.data) +
                         common_bytes(left.map.reserved, right.map.reserved);
  sharing.taken = taken_by(right.map, sharing.shared_bytes);
  return sharing;
}

std::string describe(const Sharing &sharing) {
  if (!sharing.is_known || sharing.mapped_bytes == 0) {
    return "";
  }
  if (sharing.is_complete()) {
    return "all its extents are shared";
  }
  return sharing.shared_bytes == 0
             ? "none of its extents is shared"
             : format_size(sharing.shared_bytes) + " of its " + format_size(sharing.mapped_bytes) +
                   " are in shared extents";
}

}  // namespace tool
