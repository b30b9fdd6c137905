#include "survey.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <functional>
#include <map>
#include <tuple>

#include "common/unique_fd.h"
#include "inode_room.h"
#include "layer.h"
#include "obstacle.h"
#include "overlay.h"
#include "share_plan.h"
#include "stop_signal.h"
#include "velmarin/control_codes.h"

namespace tool {
namespace {

bool matches_scan(const FoundFile &file, const struct stat &status) {
  const bool is_inode =
      file.inode == status.st_ino || file.inode == static_cast<uint32_t>(status.st_ino);
  return S_ISREG(status.st_mode) && is_inode &&
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

FileState state_of_open_file(const FoundFile &file, int fd, bool asks_layer) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    return failed_state(errno);
  }
  FileState state = plain_state(file, status);
  const int64_t layer = asks_layer ? query_layer(fd) : 0;
  state.layer = static_cast<uint32_t>(std::max<int64_t>(layer, 0));
  return state;
}

void sort_by_path(std::vector<FoundFile> &files) {
  std::ranges::sort(files, {}, &FoundFile::path);
}

int open_found(const FoundFile &file) {
  return open(file.path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

// One survey. Examines each group in turn, then drops the extents of its files.
class Survey {
 public:
  Survey(Volumes &volumes, bool before_merging)
      : volumes_(volumes), before_merging_(before_merging) {}

  void examine_group(FoundGroup &group) {
    sort_by_path(group.files);
    std::vector<ExtentMap> maps(group.files.size());
    for (size_t index = 0; index < group.files.size(); ++index) {
      FoundFile &file = group.files[index];
      file.state = examine(file, &maps[index]);
      file.state.is_inline = maps[index].is_inline;
      const Volume *const volume = volumes_.find(file.state.device);
      file.state.can_share = volume != nullptr && volume->can_share;
    }
    group.shares = shares_of(group);
    find_hopeless(group);
    for (Share &share : group.shares) {
      plan_share(group, share, maps_of(share, maps), *volumes_.find(share.volume));
    }
  }

  void examine_compressed(std::vector<FoundFile> &files) {
    sort_by_path(files);
    for (FoundFile &file : files) {
      file.state = examine(file, nullptr);
    }
  }

 private:
  // Does not open a plain file whose file system cannot share data.
  FileState examine(const FoundFile &file, ExtentMap *map) {
    struct stat status = {};
    if (lstat(file.path.c_str(), &status) != 0) {
      return failed_state(errno);
    }
    const bool asks_layer = before_merging_ || file.status != velmarin::SIS_STATUS_PLAIN;
    const Volume *const volume = volumes_.find(status.st_dev);
    if (volume != nullptr && !volume->can_share && !asks_layer) {
      return plain_state(file, status);
    }
    const velmarin::unique_fd fd(open_found(file));
    return fd.is_open() ? examine_open(file, fd.get(), asks_layer, map) : failed_state(errno);
  }

  FileState examine_open(const FoundFile &file, int fd, bool asks_layer, ExtentMap *map) {
    if (is_on_overlay(fd)) {
      return failed_state(EOPNOTSUPP);
    }
    FileState state = state_of_open_file(file, fd, asks_layer);
    if (state.error == 0 && state.unchanged) {
      const Volume &volume = volumes_.get_or_add(state.device, fd);
      if (map != nullptr) {
        *map = read_extents(fd, state.inode, file.size, volume);
        find_obstacles(file, fd, volume, state);
        if (state.layer == 0) {
          state.record_bytes = volume.btrfs_record_bytes + record_bytes_outside(fd, *map, volume);
        }
      }
    }
    return state;
  }

  // Only for files that merging might change.
  void find_obstacles(const FoundFile &file, int fd, const Volume &volume, FileState &state) {
    struct stat status = {};
    if ((!volume.can_share && !before_merging_) || fstat(fd, &status) != 0) {
      return;
    }
    if (volume.subvolume) {
      state.writing = btrfs::writing_of(fd, {*volume.subvolume, state.inode});
    }
    state.obstacle = obstacle_to_writing(fd, status, programs_);
    if (state.layer == 0) {
      state.source_obstacle = state.obstacle != 0 ? state.obstacle : obstacle_beside(file.path);
    }
  }

  std::vector<Share> shares_of(const FoundGroup &group) const {
    std::map<std::pair<dev_t, bool>, Share> by_kind;
    for (size_t index = 0; index < group.files.size(); ++index) {
      const FileState &state = group.files[index].state;
      if (state.error != 0 || !state.unchanged || state.is_inline) {
        continue;
      }
      const Volume &volume = *volumes_.find(state.device);
      Share &share = by_kind[{volume.id, state.writing == btrfs::Writing::checked}];
      share.volume = volume.id;
      share.can_share = volume.can_share;
      share.files.push_back(index);
    }
    std::vector<Share> shares;
    shares.reserve(by_kind.size());
    for (auto &[kind, share] : by_kind) {
      shares.push_back(std::move(share));
    }
    return shares;
  }

  // Marks files that cannot be merged for want of a source, or of a file written in the same way.
  static void find_hopeless(FoundGroup &group) {
    std::map<dev_t, size_t> shares_on;
    for (const Share &share : group.shares) {
      ++shares_on[share.volume];
    }
    for (const Share &share : group.shares) {
      if (share.files.size() == 1 && shares_on[share.volume] > 1) {
        group.files[share.files.front()].state.obstacle = EINVAL;
      }
      const bool has_source =
          std::any_of(share.files.begin(), share.files.end(),
                      [&](size_t index) { return group.files[index].state.source_obstacle == 0; });
      for (const size_t index : share.files) {
        FileState &state = group.files[index].state;
        if (!has_source && state.obstacle == 0) {
          state.obstacle = state.source_obstacle;
        }
      }
    }
  }

  // The extents of the files of one share, at the same indexes.
  static std::vector<ExtentMap> maps_of(const Share &share, std::vector<ExtentMap> &maps) {
    std::vector<ExtentMap> own(maps.size());
    for (const size_t index : share.files) {
      own[index] = std::move(maps[index]);
    }
    return own;
  }

  Volumes &volumes_;
  const bool before_merging_;
  RunningPrograms programs_;
};

void mark_not_examined(FoundGroup &group) {
  sort_by_path(group.files);
  for (FoundFile &file : group.files) {
    file.state = failed_state(ECANCELED);
  }
}

// Lets a few files be examined even after a requested stop: their figures are worth the wait.
class GracePeriod {
 public:
  using Clock = TimeLimit::Clock;

  explicit GracePeriod(Clock::time_point end) : end_(end) {}

  bool is_over() const {
    const Clock::time_point now = Clock::now();
    return (now >= end_ || stop_requested()) && now - start_ > LENGTH;
  }

 private:
  static constexpr std::chrono::milliseconds LENGTH{300};
  const Clock::time_point start_ = Clock::now();
  const Clock::time_point end_;
};

// The blocks of plain files beyond the copy that merging keeps.
uint64_t promised_blocks(const FoundGroup &group) {
  uint64_t blocks = 0;
  bool keeps_other = false;
  for (const FoundFile &file : group.files) {
    const bool is_plain = file.status == velmarin::SIS_STATUS_PLAIN;
    blocks += is_plain ? file.blocks : 0;
    keeps_other |= !is_plain;
  }
  return blocks - (keeps_other ? 0 : group.files.front().blocks);
}

// The sort key of a group.
std::array<uint64_t, 4> sort_key(const FoundGroup &group) {
  const Space space = group.reclaimable();
  return {space.certain, space.uncertain, group.unmerged_bytes(), group.is_examined()};
}

}  // namespace

bool is_unchanged(const FoundFile &file) {
  struct stat status = {};
  return lstat(file.path.c_str(), &status) == 0 && matches_scan(file, status);
}

ExtentMap extents_of(const FoundFile &file, const Volumes &volumes) {
  ExtentMap map;
  const Volume &volume = *volumes.find(file.state.device);
  const velmarin::unique_fd fd(volume.can_share ? open_found(file) : -1);
  struct stat status = {};
  if (fstat(fd.get(), &status) == 0 && status.st_dev == file.state.device &&
      status.st_ino == file.state.inode) {
    map = read_extents(fd.get(), status.st_ino, file.size, volume);
  }
  return map;
}

void put_promising_first(std::vector<FoundGroup> &groups) {
  std::ranges::stable_sort(groups, std::greater(), promised_blocks);
}

void put_gainful_first(std::span<FoundGroup> groups) {
  std::sort(groups.begin(), groups.end(), [](const FoundGroup &a, const FoundGroup &b) {
    const auto left = sort_key(a);
    const auto right = sort_key(b);
    return std::tie(right, a.files.front().path) < std::tie(left, b.files.front().path);
  });
}

size_t survey(std::span<FoundGroup> groups, Volumes &volumes, bool before_merging,
              const SurveyPace &pace) {
  Survey survey(volumes, before_merging);
  const GracePeriod grace(pace.end);
  size_t examined = 0;
  for (; examined < groups.size() && !grace.is_over(); ++examined) {
    survey.examine_group(groups[examined]);
    ++pace.examined;
  }
  for (FoundGroup &group : groups.subspan(examined)) {
    mark_not_examined(group);
  }
  return examined;
}

void survey_compressed(std::vector<FoundFile> &files, Volumes &volumes, bool before_merging) {
  Survey(volumes, before_merging).examine_compressed(files);
}

}  // namespace tool
