#include "merge.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <set>
#include <system_error>
#include <thread>

#include "common/unique_fd.h"
#include "layer.h"
#include "read_ahead.h"
#include "refusal.h"
#include "share_plan.h"
#include "stop_signal.h"
#include "survey.h"
#include "velmarin/files.h"

namespace tool {
namespace {

constexpr const char *CHANGED = "changed since the scan";

void set_outcome(FoundFile &file, Outcome outcome, std::string reason = {}) {
  file.outcome = outcome;
  file.reason = std::move(reason);
}

// The scan saw a path without symbolic links.
std::string describe_link(const std::string &path) {
  std::error_code error;
  return std::filesystem::is_symlink(path, error)
             ? "replaced by a symbolic link"
             : "a directory of its path was replaced by a symbolic link";
}

// For a file that merging could not open or use.
void set_refused(FoundFile &file, int error, std::string reason) {
  if (error == ENOENT || error == ENOTDIR) {
    set_outcome(file, Outcome::changed, "removed since the scan");
  } else if (error == ELOOP) {
    set_outcome(file, Outcome::changed, describe_link(file.path));
  } else {
    set_outcome(file, Outcome::refused, std::move(reason));
  }
}

bool has_copy_of(const FoundFile &file, const FoundFile &source) {
  return file.state.copy == source.state.copy;
}

// Whether the files that merging can change all have one copy.
bool is_one_copy(const FoundGroup &group, const Share &share) {
  std::set<uint32_t> copies;
  for (const size_t index : share.files) {
    const FileState &state = group.files[index].state;
    if (state.obstacle == 0) {
      copies.insert(state.copy);
    }
  }
  return copies.size() <= 1;
}

bool is_to_be_merged(const FoundFile &file, const FoundFile &source) {
  return file.state.obstacle == 0 && !has_copy_of(file, source);
}

// Whether there are several copies of the data, and merging them is possible and worthwhile.
bool has_work(const FoundGroup &group, const Share &share) {
  const FoundFile &source = group.files[share.files.front()];
  return source.state.source_obstacle == 0 && (!share.can_share || !share.reclaimable.is_none()) &&
         std::any_of(share.files.begin(), share.files.end(),
                     [&](size_t index) { return is_to_be_merged(group.files[index], source); });
}

// Whether an obstacle keeps the file from what merging does for it. It does not matter to a file
// that is the source, shares its data already or has no copy to share with. `works` tells whether
// the share has work.
bool is_held_up(const FoundGroup &group, const Share &share, bool works, const FoundFile &file) {
  const FoundFile &source = group.files[share.files.front()];
  if (file.state.obstacle == 0 || (share.files.size() == 1 && file.state.obstacle != EINVAL)) {
    return false;
  }
  return works ? !has_copy_of(file, source) : !file.state.has_twin;
}

// The library puts the error of a failed call at the end of its line.
std::string logged_reason(const LogLines &log) {
  const std::string message = log.last_message();
  const size_t found = message.rfind(" returned ");
  return found == std::string::npos ? "cannot make a layered inode"
                                    : message.substr(found + std::strlen(" returned "));
}

// Opens a file as the source of its share. The descriptor is closed if that fails, with the outcome
// set.
velmarin::unique_fd open_as_source(FoundFile &file, LogLines &log) {
  if (!is_unchanged(file)) {
    set_outcome(file, Outcome::changed, CHANGED);
    return {};
  }
  if (file.state.layer != 0) {
    const int access = file.state.obstacle == 0 ? O_RDWR : O_RDONLY;
    velmarin::unique_fd fd(open(file.path.c_str(), access | O_NOFOLLOW | O_CLOEXEC));
    if (!fd.is_open()) {
      set_refused(file, errno, std::strerror(errno));
    }
    return fd;
  }
  log.forget();
  velmarin::unique_fd fd(create_layer(file.path.c_str()));
  if (!fd.is_open()) {
    set_outcome(file, Outcome::refused, logged_reason(log));
  }
  return fd;
}

// What the merging threads share.
struct Common {
  std::span<FoundGroup> groups;
  const Volumes &volumes;
  LogLines &log;
  MergeProgress &progress;
  ReadAhead ahead;
  std::atomic<size_t> next_group = 0;
  // Held while a file that shares data already is merged and what that frees is counted. Two groups
  // may share a range: with both at once, neither would see the other refer to it, and both would
  // count it. Also held while a thread finds out which files share data, since one whose partner
  // was merged but not counted yet would seem to be alone.
  std::mutex sharing = {};
};

bool shares_data(const ExtentMap &map) {
  return std::any_of(map.held.begin(), map.held.end(),
                     [](const HeldRange &range) { return range.is_shared; });
}

// Merges the files of one share. `source_` is the source's index in the group.
class ShareMerge {
 public:
  ShareMerge(FoundGroup &group, Share &share, Common &common, size_t thread)
      : group_(group),
        share_(share),
        common_(common),
        thread_(thread),
        maps_(maps_before()),
        account_(account_of(volume(), maps_)) {}

  void run() {
    const velmarin::unique_fd fd = open_source();
    if (!fd.is_open()) {
      return;
    }
    for (const size_t index : share_.files) {
      FoundFile &file = group_.files[index];
      if (index == source_) {
        set_outcome(file, Outcome::source);
      } else if (has_copy_of(file, group_.files[source_])) {
        set_outcome(file, Outcome::already_shared);
      } else if (file.state.obstacle != 0) {
        refuse(file, file.state.obstacle);
      } else if (file.outcome != Outcome::changed) {
        merge(index, fd.get());  // even if refused as the source: it may work as a target
      }
    }
    drop_unused_layer(fd.get());
  }

 private:
  // Makes the source plain again if it was plain before and no other file was merged onto it.
  void drop_unused_layer(int fd) const {
    const bool is_used = std::any_of(share_.files.begin(), share_.files.end(), [&](size_t index) {
      return group_.files[index].outcome == Outcome::merged;
    });
    if (group_.files[source_].state.layer == 0 && !is_used) {
      drop_layer(fd);
    }
  }

  static void refuse(FoundFile &file, int error) {
    if (file.outcome == Outcome::not_tried) {
      set_outcome(file, Outcome::refused, std::strerror(error));
    }
  }

  // Picks the first file that can be the source. The outcomes of those that cannot say why.
  velmarin::unique_fd open_source() {
    for (const size_t index : share_.files) {
      FoundFile &file = group_.files[index];
      if (stop_requested()) {
        break;
      }
      if (file.state.source_obstacle != 0) {
        refuse(file, file.state.source_obstacle);
        continue;
      }
      velmarin::unique_fd fd = open_as_source(file, common_.log);
      if (fd.is_open()) {
        source_ = index;
        records_bytes_ = record_bytes(
            index, volume().is_btrfs ? ExtentMap{} : extents_of(file, common_.volumes));
        return fd;
      }
    }
    return {};
  }

  std::vector<ExtentMap> maps_before() const {
    const std::lock_guard sharing(common_.sharing);
    std::vector<ExtentMap> maps(group_.files.size());
    for (const size_t index : share_.files) {
      if (group_.files[index].state.obstacle == 0) {
        maps[index] = extents_of(group_.files[index], common_.volumes);
      }
    }
    return maps;
  }

  void merge(size_t index, int source_fd) {
    std::unique_lock sharing(common_.sharing, std::defer_lock);
    if (shares_data(maps_[index])) {
      sharing.lock();
    }
    const FoundFile &file = group_.files[index];
    if (stop_requested()) {
      return;
    }
    MergeProgress &progress = common_.progress;
    progress.bytes_in_hand += file.state.allocated_bytes;
    common_.ahead.reach(thread_, file);
    try_merge(index, source_fd);
    progress.bytes_in_hand -= file.state.allocated_bytes;
    progress.bytes_done += file.state.allocated_bytes;
    ++progress.files_done;
  }

  void try_merge(size_t index, int source_fd) {
    FoundFile &file = group_.files[index];
    if (!is_unchanged(file)) {
      set_outcome(file, Outcome::changed, CHANGED);
      return;
    }
    const int error = dedup_file(file.path.c_str(), source_fd);
    if (error != 0) {
      set_refused(file, error,
                  describe_sharing_error(group_.files[source_].path, file.path, error));
      return;
    }
    set_outcome(file, Outcome::merged);
    if (share_.can_share) {
      count_freed(index);
    }
  }

  const Volume &volume() const { return *common_.volumes.find(share_.volume); }

  // What the record of a file takes that now has these extents: measured where the file system
  // counts it among the blocks of the file, otherwise estimated.
  uint64_t record_bytes(size_t index, const ExtentMap &now) const {
    if (volume().is_btrfs) {
      return group_.files[index].state.record_bytes;
    }
    const bool is_measured = maps_[index].is_known && now.is_known;
    return is_measured ? now.bytes_beside - std::min(now.bytes_beside, maps_[index].bytes_beside)
                       : 0;
  }

  void count_freed(size_t index) {
    const FoundFile &file = group_.files[index];
    const ExtentMap map = extents_of(file, common_.volumes);
    if (!map.is_known || !maps_[index].is_known) {
      unknown_bytes_ += file.state.allocated_bytes;
    } else {
      account_.remove(maps_[index]);
      account_.add(map);
    }
    const uint64_t before = share_.freed.certain;
    records_bytes_ += record_bytes(index, map);
    share_.freed = account_.freed().less(records_bytes_);
    share_.freed.uncertain += unknown_bytes_;
    common_.progress.freed_bytes += share_.freed.certain - before;
  }

  FoundGroup &group_;
  Share &share_;
  Common &common_;
  const size_t thread_;
  const std::vector<ExtentMap> maps_;  // of the share's files, indexed as in the group
  SpaceAccount account_;
  uint64_t unknown_bytes_ = 0;  // allocated to merged files with unknown extents
  uint64_t records_bytes_ = 0;  // of the source and merged files
  size_t source_ = 0;
};

void mark_nothing_to_merge(FoundGroup &group, const Share &share) {
  const bool shares_all = is_one_copy(group, share);
  const auto changeable = std::count_if(share.files.begin(), share.files.end(), [&](size_t index) {
    return group.files[index].state.obstacle == 0;
  });
  for (const size_t index : share.files) {
    FoundFile &file = group.files[index];
    if (is_held_up(group, share, false, file)) {
      continue;
    }
    if (!file.state.has_twin && changeable < 2) {
      set_outcome(file, Outcome::alone);
    } else if (shares_all || file.state.obstacle != 0 || changeable < 2) {
      set_outcome(file, Outcome::already_shared);
    } else {
      set_outcome(file, Outcome::no_gain, "merging would free nothing");
    }
  }
}

void merge_share(FoundGroup &group, Share &share, Common &common, size_t thread) {
  if (!has_work(group, share)) {
    mark_nothing_to_merge(group, share);
    return;
  }
  for (const size_t index : share.files) {
    if (!is_held_up(group, share, true, group.files[index])) {
      set_outcome(group.files[index], Outcome::not_tried);
    }
  }
  if (!stop_requested()) {
    ShareMerge(group, share, common, thread).run();
  }
}

// Visits the files that merging compares, in merging order: in each share with work, the intended
// source, which is the first file, and the files with another copy of the data.
template <typename Visit>
void visit_work(std::span<const FoundGroup> groups, Visit visit) {
  for (const FoundGroup &group : groups) {
    for (const Share &share : group.shares) {
      if (!has_work(group, share)) {
        continue;
      }
      const FoundFile &source = group.files[share.files.front()];
      for (const size_t index : share.files) {
        const FoundFile &file = group.files[index];
        if (&file == &source || is_to_be_merged(file, source)) {
          visit(file, &file == &source);
        }
      }
    }
  }
}

std::vector<const FoundFile *> files_to_compare(std::span<const FoundGroup> groups) {
  std::vector<const FoundFile *> files;
  visit_work(groups, [&](const FoundFile &file, bool) { files.push_back(&file); });
  return files;
}

// Merges one group after another until none is left.
void merge_groups(Common &common, size_t thread) {
  const std::span<FoundGroup> groups = common.groups;
  for (size_t i = common.next_group++; i < groups.size(); i = common.next_group++) {
    mark_unusable(groups[i]);
    for (Share &share : groups[i].shares) {
      merge_share(groups[i], share, common, thread);
    }
  }
}

std::vector<std::thread> start_further_threads(Common &common) {
  const StopSignalsBlocked blocked;  // they are for the calling thread
  std::vector<std::thread> threads;
  try {
    for (size_t number = 1; number < MERGING_THREADS; ++number) {
      threads.emplace_back(merge_groups, std::ref(common), number);
    }
  } catch (const std::system_error &) {
    // With fewer of them merging is only slower.
  }
  return threads;
}

}  // namespace

void mark_obstacles(FoundGroup &group) {
  const bool has_one_in_place = std::any_of(
      group.files.begin(), group.files.end(),
      [](const FoundFile &file) { return file.state.writing == btrfs::Writing::in_place; });
  for (const Share &share : group.shares) {
    const bool works = has_work(group, share);
    for (const size_t index : share.files) {
      FoundFile &file = group.files[index];
      if (is_held_up(group, share, works, file)) {
        set_outcome(file, Outcome::refused,
                    describe_obstacle(file.state.obstacle, has_one_in_place));
      }
    }
  }
  for (FoundFile &file : group.files) {
    if (file.state.error == EOPNOTSUPP) {
      set_outcome(file, Outcome::refused, "it is on an overlay, where a change may copy it up");
    }
  }
}

// For files in no share: decides by what the survey saw of them.
void mark_unusable(FoundGroup &group) {
  mark_obstacles(group);
  for (FoundFile &file : group.files) {
    if (file.outcome == Outcome::refused) {
      continue;
    }
    if (file.state.error == ECANCELED) {
      set_outcome(file, Outcome::not_tried);
    } else if (file.state.error != 0) {
      set_refused(file, file.state.error, std::strerror(file.state.error));
    } else if (!file.state.unchanged) {
      set_outcome(file, Outcome::changed, CHANGED);
    } else if (file.state.is_inline) {
      set_outcome(file, Outcome::no_gain, "its data is stored inline in the metadata");
    }
  }
}

void plan_merge(std::span<const FoundGroup> groups, MergeProgress &progress) {
  visit_work(groups, [&](const FoundFile &file, bool is_source) {
    if (!is_source) {
      ++progress.files_to_do;
      progress.bytes_to_do += file.state.allocated_bytes;
    }
  });
}

void merge_all(std::span<FoundGroup> groups, const Volumes &volumes, LogLines &log,
               MergeProgress &progress) {
  Common common = {groups, volumes, log, progress, ReadAhead(files_to_compare(groups))};
  std::vector<std::thread> threads = start_further_threads(common);
  merge_groups(common, 0);
  for (std::thread &thread : threads) {
    thread.join();
  }
}

}  // namespace tool
