#include "marking.h"

#include <sys/stat.h>
#include <sys/xattr.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>
#include <mutex>

#include "extents.h"
#include "velmarin/files.h"
#include "volume.h"

namespace tool {
namespace {

constexpr const char *ATTRIBUTE = "user.velmarin.coincide";

std::atomic<uint64_t> taken = 0;

bool lacks_attribute(int fd) {
  return fgetxattr(fd, ATTRIBUTE, nullptr, 0) < 0 && errno == ENODATA;
}

// What a mark takes on that Btrfs, queried once for each. 0 on another file system.
uint64_t estimated_bytes(int fd, dev_t device) {
  static std::mutex lock;
  static std::map<dev_t, uint64_t> known;
  const std::lock_guard guard(lock);
  const auto [entry, is_new] = known.try_emplace(device);
  if (is_new) {
    entry->second = btrfs_mark_bytes(fd);
  }
  return entry->second;
}

// What a mark took that was set on the open file after `before`. It takes a block at most: if the
// file has grown by more, another program writes to it.
uint64_t bytes_of_mark(int fd, const struct stat &before) {
  if (const uint64_t bytes = estimated_bytes(fd, before.st_dev); bytes != 0) {
    return bytes;
  }
  struct stat now = {};
  if (fstat(fd, &now) != 0) {
    return 0;
  }
  const blkcnt_t grown = std::max<blkcnt_t>(now.st_blocks - before.st_blocks, 0);
  return static_cast<uint64_t>(std::min<blkcnt_t>(grown * 512, now.st_blksize));
}

}  // namespace

int mark_file(int fd, const char *path) {
  struct stat before = {};
  const bool is_new = lacks_attribute(fd) && fstat(fd, &before) == 0;
  const int error = freeze_file(fd, path);
  if (error == 0 && is_new) {
    taken += bytes_of_mark(fd, before);
  }
  return error;
}

uint64_t new_mark_bytes() {
  return taken;
}

bool is_stored_inline(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && status.st_size <= status.st_blksize && is_btrfs(fd) &&
         has_inline_data(fd);
}

}  // namespace tool
