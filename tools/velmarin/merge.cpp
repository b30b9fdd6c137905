#include "merge.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <map>

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

// Whether there is more than one copy of the data: a file that shares nothing, or a second layered
// inode, beside the first file.
bool has_unmerged(const FoundGroup &group, const Share &share) {
  const uint32_t layer = group.files[share.files.front()].state.layer;
  for (size_t i = 1; i < share.files.size(); ++i) {
    const uint32_t other = group.files[share.files[i]].state.layer;
    if (other == 0 || other != layer) {
      return true;
    }
  }
  return false;
}

bool shares_layer(const FoundFile &file, const FoundFile &source) {
  return file.state.layer != 0 && file.state.layer == source.state.layer;
}

// The library names the error of a failed call at the end of its line.
std::string logged_reason(const LogLines &log) {
  const std::string message = log.last_message();
  const size_t place = message.rfind(" returned ");
  return place == std::string::npos ? "cannot make a layered inode"
                                    : message.substr(place + std::strlen(" returned "));
}

// Opens a file as the source of its share. Returns its descriptor, or -1 with the outcome set.
int open_as_source(FoundFile &file, LogLines &log) {
  if (!is_unchanged(file)) {
    set_outcome(file, Outcome::changed, CHANGED);
    return -1;
  }
  if (file.state.layer != 0) {
    const int fd = open(file.path.c_str(), O_RDWR | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
      set_outcome(file, Outcome::refused, std::strerror(errno));
    }
    return fd;
  }
  log.forget();
  const int fd = create_layer(file.path.c_str());
  if (fd < 0) {
    set_outcome(file, Outcome::refused, logged_reason(log));
  }
  return fd;
}

// Merging the files of one share. `source_` is the place of the source in the group.
class ShareMerge {
 public:
  ShareMerge(FoundGroup &group, Share &share, LogLines &log, MergeProgress &progress)
      : group_(group), share_(share), log_(log), progress_(progress) {}

  void run() {
    const int fd = open_source();
    if (fd < 0) {
      return;
    }
    for (const size_t place : share_.files) {
      FoundFile &file = group_.files[place];
      if (place == source_) {
        set_outcome(file, Outcome::source);
      } else if (shares_layer(file, group_.files[source_])) {
        set_outcome(file, Outcome::already_shared);
      } else if (file.outcome != Outcome::changed) {
        merge(file, fd);  // also if it was refused as the source: it may do as a target
      }
    }
    close(fd);
    count_freed_layers();
  }

 private:
  // Takes the first file that can be the source. The outcome of those before it says why they
  // cannot.
  int open_source() {
    for (const size_t place : share_.files) {
      if (stop_requested()) {
        return -1;
      }
      const int fd = open_as_source(group_.files[place], log_);
      if (fd >= 0) {
        source_ = place;
        return fd;
      }
    }
    return -1;
  }

  void merge(FoundFile &file, int source_fd) {
    if (stop_requested()) {
      return;
    }
    ++progress_.files_done;
    progress_.bytes_done += file.state.allocated_bytes;
    if (!is_unchanged(file)) {
      set_outcome(file, Outcome::changed, CHANGED);
      return;
    }
    const int error = dedup_file(file.path.c_str(), source_fd);
    if (error != 0) {
      set_outcome(file, Outcome::refused, std::strerror(error));
      return;
    }
    set_outcome(file, Outcome::merged);
    if (file.state.layer == 0) {
      add_freed(file.state.allocated_bytes);
    }
  }

  // Files that shared a layered inode of their own before gave its data back only if none of them
  // is left attached to it.
  void count_freed_layers() {
    std::map<uint32_t, bool> is_free;
    for (const size_t place : share_.files) {
      const FoundFile &file = group_.files[place];
      const auto [entry, is_new] = is_free.try_emplace(file.state.layer, true);
      entry->second &= file.outcome == Outcome::merged;
    }
    is_free.erase(0);
    for (const size_t place : share_.files) {
      const FileState &state = group_.files[place].state;
      const auto entry = is_free.find(state.layer);
      if (entry != is_free.end() && entry->second) {
        add_freed(state.allocated_bytes);
        is_free.erase(entry);
      }
    }
  }

  void add_freed(uint64_t bytes) {
    if (share_.frees_space) {
      share_.freed_bytes += bytes;
      progress_.freed_bytes += bytes;
    }
  }

  FoundGroup &group_;
  Share &share_;
  LogLines &log_;
  MergeProgress &progress_;
  size_t source_ = 0;
};

void merge_share(FoundGroup &group, Share &share, LogLines &log, MergeProgress &progress) {
  const bool is_alone = share.files.size() == 1;
  const bool has_work = has_unmerged(group, share);
  for (const size_t place : share.files) {
    const Outcome outcome = is_alone ? Outcome::alone : Outcome::already_shared;
    set_outcome(group.files[place], has_work ? Outcome::not_tried : outcome);
  }
  if (has_work && !stop_requested()) {
    ShareMerge(group, share, log, progress).run();
  }
}

// Files in no share: what the survey saw of them decides.
void mark_unusable(FoundGroup &group) {
  for (FoundFile &file : group.files) {
    if (file.state.error != 0) {
      set_outcome(file, Outcome::refused, std::strerror(file.state.error));
    } else if (!file.state.unchanged) {
      set_outcome(file, Outcome::changed, CHANGED);
    }
  }
}

}  // namespace

void plan_merge(const Findings &findings, MergeProgress &progress) {
  for (const FoundGroup &group : findings.groups) {
    for (const Share &share : group.shares) {
      const FoundFile &source = group.files[share.files.front()];
      for (size_t i = 1; i < share.files.size(); ++i) {
        const FoundFile &file = group.files[share.files[i]];
        if (!shares_layer(file, source)) {
          ++progress.files_to_do;
          progress.bytes_to_do += file.state.allocated_bytes;
        }
      }
    }
  }
}

void merge_all(Findings &findings, LogLines &log, MergeProgress &progress) {
  for (FoundGroup &group : findings.groups) {
    mark_unusable(group);
    for (Share &share : group.shares) {
      merge_share(group, share, log, progress);
    }
  }
}

}  // namespace tool
