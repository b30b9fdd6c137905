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

// Whether writes to the file go to new blocks, as far as its file system reports.
bool is_copied_on_write(const std::string &path) {
  unsigned flags = 0;
  const velmarin::unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  return ioctl(fd.get(), FS_IOC_GETFLAGS, &flags) != 0 || (flags & FS_NOCOW_FL) == 0;
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
  if (error == EINVAL && is_copied_on_write(first) != is_copied_on_write(second)) {
    return NO_COPY_ON_WRITE;
  }
  return describe_error(error);
}

}  // namespace tool
