#include "scan_probes.h"

#include <cerrno>

#include "overlay.h"
#include "stop_signal.h"
#include "velmarin/files.h"

namespace tool {

ProbeCounts probe_counts;
velmarin::sis_entry_callback entry_watch = nullptr;

namespace {

int counted_filter(int fd, const struct stat *status, const char *path) {
  publish_stop_handle();
  ++probe_counts.entries;
  const int verdict = entry_watch == nullptr ? 0 : entry_watch(fd, status, path);
  if (verdict < 0) {
    return verdict;
  }
  const int result = filter_out_nonsis(fd, status, path);
  if (result < 0) {
    ++(result == -EOPNOTSUPP ? probe_counts.unsupported : probe_counts.unknown);
  }
  return result;
}

int filter_for_merging(int fd, const struct stat *status, const char *path) {
  if (S_ISREG(status->st_mode) && is_on_overlay(fd)) {
    ++probe_counts.entries;
    ++probe_counts.unsupported;
    ++probe_counts.on_overlay;
    return -EOPNOTSUPP;
  }
  return counted_filter(fd, status, path);
}

}  // namespace

velmarin::sis_ops counted_probes(velmarin::sis_report_callback report, bool merges) {
  return {.filter = merges ? filter_for_merging : counted_filter,
          .get_status = check_file_status,
          .prep = merges ? freeze_file : nullptr,
          .verify = merges ? check_frozen : nullptr,
          .report = report};
}

}  // namespace tool
