#include "survey.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <set>

#include "layer.h"
#include "velmarin/control_codes.h"

namespace tool {
namespace {

bool matches_scan(const FoundFile &file, const struct stat &status) {
  return S_ISREG(status.st_mode) && static_cast<uint32_t>(status.st_ino) == file.inode &&
         static_cast<uint64_t>(status.st_size) == file.size &&
         status.st_mtim.tv_sec == file.mtime.tv_sec && status.st_mtim.tv_nsec == file.mtime.tv_nsec;
}

// The state of a plain file with that status.
FileState plain_state(const FoundFile &file, const struct stat &status) {
  FileState state;
  state.unchanged = matches_scan(file, status);
  state.device = status.st_dev;
  state.inode = status.st_ino;
  state.allocated_bytes = static_cast<uint64_t>(status.st_blocks) * 512;
  return state;
}

FileState failed_state(int error) {
  FileState state;
  state.error = error;
  return state;
}

FileState examine_plain(const FoundFile &file) {
  struct stat status = {};
  return lstat(file.path.c_str(), &status) == 0 ? plain_state(file, status) : failed_state(errno);
}

FileState state_of_open_file(const FoundFile &file, int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    return failed_state(errno);
  }
  FileState state = plain_state(file, status);
  const int64_t layer = query_layer(fd);
  state.layer = layer > 0 ? static_cast<uint32_t>(layer) : 0;
  return state;
}

FileState examine(const FoundFile &file) {
  const int fd = open(file.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    return failed_state(errno);
  }
  const FileState state = state_of_open_file(file, fd);
  close(fd);
  return state;
}

// On other file systems merging keeps account of what belongs together, but each file keeps its
// data.
bool can_share_data(const std::string &path) {
  struct statfs volume = {};
  return statfs(path.c_str(), &volume) == 0 &&
         (volume.f_type == BTRFS_SUPER_MAGIC || volume.f_type == XFS_SUPER_MAGIC);
}

// The answer of `can_share_data` for each file system met so far.
using VolumeKinds = std::map<dev_t, bool>;

bool frees_space(VolumeKinds &kinds, const FoundFile &file) {
  const auto [place, is_new] = kinds.try_emplace(file.state.device, false);
  if (is_new) {
    place->second = can_share_data(file.path);
  }
  return place->second;
}

// Puts the best source first: a file whose layered inode is shared by the most files of the share.
void order_by_sharers(const FoundGroup &group, Share &share) {
  std::map<uint32_t, size_t> sharers;
  for (const size_t place : share.files) {
    ++sharers[group.files[place].state.layer];
  }
  sharers[0] = 0;
  std::stable_sort(share.files.begin(), share.files.end(), [&](size_t left, size_t right) {
    const uint32_t a = group.files[left].state.layer;
    const uint32_t b = group.files[right].state.layer;
    return sharers[a] != sharers[b] ? sharers[a] > sharers[b] : a < b;
  });
}

std::vector<Share> shares_of(const FoundGroup &group, VolumeKinds &kinds) {
  std::map<dev_t, Share> by_device;
  for (size_t place = 0; place < group.files.size(); ++place) {
    const FoundFile &file = group.files[place];
    if (file.state.error != 0 || !file.state.unchanged) {
      continue;
    }
    Share &share = by_device[file.state.device];
    share.device = file.state.device;
    share.frees_space = frees_space(kinds, file);
    share.files.push_back(place);
  }
  std::vector<Share> shares;
  for (auto &[device, share] : by_device) {
    order_by_sharers(group, share);
    share.unmerged_bytes = unmerged_bytes(group, share);
    shares.push_back(std::move(share));
  }
  return shares;
}

void order_by_path(std::vector<FoundFile> &files) {
  std::sort(files.begin(), files.end(),
            [](const FoundFile &a, const FoundFile &b) { return a.path < b.path; });
}

void examine_all(std::vector<FoundFile> &files, bool ask_again) {
  order_by_path(files);
  for (FoundFile &file : files) {
    const bool is_known = file.status == velmarin::SIS_STATUS_PLAIN && !ask_again;
    file.state = is_known ? examine_plain(file) : examine(file);
  }
}

}  // namespace

bool is_unchanged(const FoundFile &file) {
  struct stat status = {};
  return lstat(file.path.c_str(), &status) == 0 && matches_scan(file, status);
}

uint64_t unmerged_bytes(const FoundGroup &group, const Share &share) {
  uint64_t bytes = 0;
  std::set<uint32_t> counted = {group.files[share.files.front()].state.layer};
  for (size_t i = 1; i < share.files.size(); ++i) {
    const FileState &state = group.files[share.files[i]].state;
    if (state.layer == 0 || counted.insert(state.layer).second) {
      bytes += state.allocated_bytes;
    }
  }
  return bytes;
}

void survey(Findings &findings, bool before_merging) {
  VolumeKinds kinds;
  examine_all(findings.compressed, before_merging);
  for (FoundGroup &group : findings.groups) {
    examine_all(group.files, before_merging);
    group.shares = shares_of(group, kinds);
  }
  std::sort(findings.groups.begin(), findings.groups.end(),
            [](const FoundGroup &a, const FoundGroup &b) {
              return a.unmerged_bytes() != b.unmerged_bytes()
                         ? a.unmerged_bytes() > b.unmerged_bytes()
                         : a.files.front().path < b.files.front().path;
            });
}

}  // namespace tool
