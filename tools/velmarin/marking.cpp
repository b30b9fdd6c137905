#include "marking.h"

#include <sys/stat.h>
#include <sys/xattr.h>

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

// What a mark takes on the file system of the open file, queried once for each.
uint64_t bytes_of_mark(int fd) {
  static std::mutex lock;
  static std::map<dev_t, uint64_t> known;
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    return 0;
  }
  const std::lock_guard guard(lock);
  const auto [entry, is_new] = known.try_emplace(status.st_dev);
  if (is_new) {
    entry->second = mark_bytes(fd);
  }
  return entry->second;
}

}  // namespace

int mark_file(int fd, const char *path) {
  const bool is_new = lacks_attribute(fd);
  const int error = freeze_file(fd, path);
  if (error == 0 && is_new) {
    taken += bytes_of_mark(fd);
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
