#include "scan_probes.h"

#include <sys/stat.h>

#include <cerrno>
#include <set>
#include <utility>

#include "marking.h"
#include "omission_watch.h"
#include "overlay.h"
#include "stop_signal.h"
#include "velmarin/files.h"

namespace tool {

ProbeCounts probe_counts;
velmarin::sis_entry_callback entry_watch = nullptr;
void (*left_out_watch)(const struct stat &status) = nullptr;

namespace {

const EntryFilter *active_filter = nullptr;
std::set<std::pair<dev_t, ino_t>> skipped;  // filled while the process has one thread

void count_entry(const struct stat &status) {
  if (!probe_counts.are_counted) {
    ++probe_counts.entries;
  } else if (S_ISREG(status.st_mode)) {
    ++probe_counts.seen_again;
  }
}

int filter_entry(int fd, const struct stat *status, const char *path, bool merges) {
  publish_stop_handle();
  count_entry(*status);
  if (!skipped.empty() && skipped.contains({status->st_dev, status->st_ino})) {
    return -ECANCELED;
  }
  if (active_filter != nullptr && active_filter->leaves_out(*status, path)) {
    return -ECANCELED;
  }
  if (merges && S_ISREG(status->st_mode) && is_on_overlay(fd)) {
    ++probe_counts.unsupported;
    ++probe_counts.on_overlay;
    if (left_out_watch != nullptr) {
      left_out_watch(*status);
    }
    return -EOPNOTSUPP;
  }
  const int verdict = entry_watch == nullptr ? 0 : entry_watch(fd, status, path);
  if (verdict < 0) {
    return verdict;
  }
  const int result = filter_out_nonsis(fd, status, path);
  if (result < 0) {
    if (result == -EOPNOTSUPP) {
      ++probe_counts.unsupported;
    } else {
      ++probe_counts.unknown;
      OmissionWatch::note(path, Cause::state_unknown, -result);
    }
  }
  return result;
}

int filter_for_reading(int fd, const struct stat *status, const char *path) {
  return filter_entry(fd, status, path, false);
}

int filter_for_merging(int fd, const struct stat *status, const char *path) {
  return filter_entry(fd, status, path, true);
}

// Where a scan sets no mark, it compares what it sees of the file instead. Both calls for a file
// come from one thread, with no other file in between.
thread_local struct stat before_reading;

int note_status(int fd, const char *path) {
  const int error = fstat(fd, &before_reading) == 0 ? 0 : errno;
  if (error != 0) {
    OmissionWatch::note(path, Cause::not_read, error);
  }
  return error;
}

int compare_status(int fd, const char *path) {
  struct stat now = {};
  const struct stat &before = before_reading;
  const bool is_same = fstat(fd, &now) == 0 && now.st_size == before.st_size &&
                       now.st_mtim.tv_sec == before.st_mtim.tv_sec &&
                       now.st_mtim.tv_nsec == before.st_mtim.tv_nsec;
  if (!is_same) {
    OmissionWatch::note(path, Cause::changed, 0);
  }
  return is_same ? 0 : EAGAIN;
}

// Whether the file that this thread reads was left without a mark.
thread_local bool is_unmarked;

// Merging cannot change the file, but if it was merged before, it can be the source for others.
bool is_unchangeable(int error) {
  return error == EPERM || error == EACCES || error == EROFS;
}

int noted_freeze(int fd, const char *path) {
  is_unmarked = is_stored_inline(fd);
  const int error = is_unmarked ? 0 : mark_file(fd, path);
  is_unmarked = is_unmarked || is_unchangeable(error);
  if (is_unmarked) {
    return note_status(fd, path);
  }
  if (error != 0) {
    OmissionWatch::note(path, error == EAGAIN ? Cause::changed : Cause::not_marked, error);
  }
  return error;
}

int noted_check(int fd, const char *path) {
  if (is_unmarked) {
    return compare_status(fd, path);
  }
  const int result = check_frozen(fd, path);
  if (result != 0) {
    OmissionWatch::note(path, Cause::changed, 0);
  }
  return result;
}

}  // namespace

ActiveEntryFilter::ActiveEntryFilter(const EntryFilter &filter,
                                     const std::vector<std::string> &skips) {
  active_filter = &filter;
  for (const std::string &path : skips) {
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0) {
      skipped.emplace(status.st_dev, status.st_ino);
    }
  }
}

ActiveEntryFilter::~ActiveEntryFilter() {
  active_filter = nullptr;
  skipped.clear();
}

velmarin::sis_ops counted_probes(velmarin::sis_report_callback report, bool merges) {
  return {.filter = merges ? filter_for_merging : filter_for_reading,
          .get_status = check_file_status,
          .prep = merges ? noted_freeze : note_status,
          .verify = merges ? noted_check : compare_status,
          .report = report};
}

}  // namespace tool
