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

// Unknown if the file cannot be opened.
ExtentMap extents_at(const std::string &path) {
  Volumes volumes;
  struct stat status = {};
  const velmarin::unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return fstat(fd.get(), &status) == 0
             ? read_extents(fd.get(), status.st_ino, static_cast<uint64_t>(status.st_size),
                            volumes.get_or_add(status.st_dev, fd.get()))
             : ExtentMap();
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
  const ExtentMap map = extents_at(path);
  Sharing sharing;
  sharing.is_known = map.is_known;
  sharing.mapped_bytes = map.mapped_bytes;
  sharing.shared_bytes = map.shared_bytes;
  return sharing;
}

Sharing sharing_between(const std::string &first, const std::string &second) {
  const ExtentMap left = extents_at(first);
  const ExtentMap right = extents_at(second);
  Sharing sharing;
  sharing.is_known = left.is_known && right.is_known;
  sharing.mapped_bytes = right.mapped_bytes;
  sharing.shared_bytes =
      common_bytes(left.data, right.data) + common_bytes(left.reserved, right.reserved);
  sharing.taken = taken_by(right, sharing.shared_bytes);
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
