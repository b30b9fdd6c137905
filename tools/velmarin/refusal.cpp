#include "refusal.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstring>

#include "common/unique_fd.h"

namespace tool {
namespace {

constexpr const char *NO_COPY_ON_WRITE = "copy-on-write is off for one of the two";

// Nonzero if writes to the file go to the same blocks, as far as its file system reports.
unsigned no_copy_flag(const std::string &path) {
  unsigned flags = 0;
  const velmarin::unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  ioctl(fd.get(), FS_IOC_GETFLAGS, &flags);
  return flags & FS_NOCOW_FL;
}

}  // namespace

std::string describe_error(int error) {
  switch (error) {
    case EBADE:
      return "contents differ";
    case EOPNOTSUPP:
    case ENOTTY:
      return "this file system cannot mark files";
    case EXDEV:
      return "they are on different file systems";
    default:
      return std::strerror(error);
  }
}

std::string describe_obstacle(int obstacle, bool is_one_written_in_place) {
  if (obstacle != EINVAL) {
    return std::strerror(obstacle);
  }
  return is_one_written_in_place ? NO_COPY_ON_WRITE : "checksums are off for one of the two";
}

std::string describe_sharing_error(const std::string &first, const std::string &second, int error) {
  if (error == EINVAL && no_copy_flag(first) != no_copy_flag(second)) {
    return NO_COPY_ON_WRITE;
  }
  return describe_error(error);
}

}  // namespace tool
