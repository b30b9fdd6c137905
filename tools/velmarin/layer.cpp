#include "layer.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/xattr.h>

#include <cerrno>

#include "common/unique_fd.h"
#include "refusal.h"
#include "sharing.h"
#include "velmarin/control_codes.h"
#include "volume.h"

namespace tool {
namespace {

// Returns 0 or an errno.
int query(int fd, velmarin::sis_file_info &info) {
  return ioctl(fd, velmarin::SIS_IOC_GET_FILE_INFO, &info) < 0 ? errno : 0;
}

int query(const std::string &path, velmarin::sis_file_info &info) {
  const velmarin::unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return fd.is_open() ? query(fd.get(), info) : errno;
}

bool is_attached(const velmarin::sis_file_info &info) {
  return info.deduped != 0 || info.layered != 0;
}

int64_t layer_number(int error, const velmarin::sis_file_info &info) {
  if (error != 0) {
    return -error;
  }
  return is_attached(info) ? info.layer_ino : 0;
}

}  // namespace

std::string sharing_remark(const std::string &path, bool expects_sharing) {
  if (!can_share_data(path)) {
    return CANNOT_SHARE;
  }
  const Sharing sharing = sharing_of(path);
  const bool is_worth_words = expects_sharing || sharing.shared_bytes > 0;
  const std::string text = is_worth_words ? describe(sharing) : "";
  return text.empty() ? "" : "; " + text;
}

int64_t query_layer(int fd) {
  velmarin::sis_file_info info = {};
  return layer_number(query(fd, info), info);
}

int64_t query_layer(const std::string &path) {
  velmarin::sis_file_info info = {};
  return layer_number(query(path, info), info);
}

void drop_layer(int fd) {
  fremovexattr(fd, RECORD);
}

void drop_layer(const std::string &path) {
  removexattr(path.c_str(), RECORD);
}

std::string describe_layer(const std::string &path) {
  velmarin::sis_file_info info = {};
  if (const int error = query(path, info); error != 0) {
    return "cannot be examined: " + describe_error(error);
  }
  if (!is_attached(info)) {
    return "a plain file" + sharing_remark(path, false);
  }
  return std::string(info.deduped != 0 ? "deduplicated onto" : "attached to") + " layered inode " +
         std::to_string(info.layer_ino) + sharing_remark(path, true);
}

}  // namespace tool
