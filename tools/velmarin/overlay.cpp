#include "overlay.h"

#include <linux/magic.h>
#include <sys/vfs.h>

namespace tool {

bool is_on_overlay(int fd) {
  struct statfs volume = {};
  return fstatfs(fd, &volume) == 0 && volume.f_type == OVERLAYFS_SUPER_MAGIC;
}

bool is_on_overlay(const std::string &path) {
  struct statfs volume = {};
  return statfs(path.c_str(), &volume) == 0 && volume.f_type == OVERLAYFS_SUPER_MAGIC;
}

}  // namespace tool
