#include "mounts.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <fstream>
#include <map>
#include <set>
#include <sstream>

#include "common/unique_fd.h"
#include "volume.h"

namespace tool {
namespace {

bool is_octal(char c) {
  return c >= '0' && c <= '7';
}

// The kernel writes a space, for instance, as \040.
std::string unescaped_field(const std::string &field) {
  std::string text;
  for (size_t i = 0; i < field.size(); ++i) {
    if (field[i] == '\\' && is_octal(field[i + 1]) && is_octal(field[i + 2]) &&
        is_octal(field[i + 3])) {
      text += static_cast<char>(std::stoi(field.substr(i + 1, 3), nullptr, 8));
      i += 3;
    } else {
      text += field[i];
    }
  }
  return text;
}

std::map<uint64_t, Mount> all_mounts() {
  std::map<uint64_t, Mount> mounts;
  std::ifstream lines("/proc/self/mountinfo");
  for (std::string line; std::getline(lines, line);) {
    Mount mount;
    if (const uint64_t number = read_mount_line(line, mount); number != 0) {
      mounts[number] = std::move(mount);
    }
  }
  return mounts;
}

std::string label_of(int fd) {
  char label[FSLABEL_MAX] = "";
  return ioctl(fd, FS_IOC_GETFSLABEL, label) == 0 ? label : "";
}

// The number of an open file's mount; 0 if the kernel cannot tell.
uint64_t mount_number(int fd) {
  struct statx status = {};
  return statx(fd, "", AT_EMPTY_PATH, STATX_MNT_ID, &status) == 0 &&
                 (status.stx_mask & STATX_MNT_ID) != 0
             ? status.stx_mnt_id
             : 0;
}

}  // namespace

uint64_t read_mount_line(const std::string &line, Mount &mount) {
  // number, parent, device, root, point, options, any number of tags, "-", type, source
  std::istringstream fields(line);
  uint64_t number = 0;
  std::string field;
  if (!(fields >> number >> field >> field >> field >> mount.point)) {
    return 0;
  }
  while (fields >> field && field != "-") {}
  if (!(fields >> mount.type >> mount.source)) {
    return 0;
  }
  mount.point = unescaped_field(mount.point);
  mount.source = unescaped_field(mount.source);
  return number;
}

std::vector<Mount> mounts_of(const std::vector<std::string> &paths) {
  const std::map<uint64_t, Mount> all = all_mounts();
  std::set<uint64_t> seen;
  std::vector<Mount> mounts;
  for (const std::string &path : paths) {
    const velmarin::unique_fd fd(
        open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    const auto found = all.find(mount_number(fd.get()));
    if (found != all.end() && seen.insert(found->first).second) {
      mounts.push_back(found->second);
      mounts.back().label = label_of(fd.get());
      mounts.back().can_share = can_share_data(fd.get());
    }
  }
  return mounts;
}

}  // namespace tool
