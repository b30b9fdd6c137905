#include "scan_probes.h"

#include <cerrno>

#include "stop_signal.h"
#include "velmarin/files.h"

namespace tool {

ProbeCounts probe_counts;

namespace {

int counted_filter(int fd, const struct stat *status, const char *path) {
  publish_stop_handle();
  ++probe_counts.entries;
  const int result = filter_out_nonsis(fd, status, path);
  if (result < 0) {
    ++(result == -EOPNOTSUPP ? probe_counts.unsupported : probe_counts.unknown);
  }
  return result;
}

int counted_freeze(int fd, const char *path) {
  ++probe_counts.frozen;
  return freeze_file(fd, path);
}

}  // namespace

velmarin::sis_ops counted_probes(velmarin::sis_report_callback report, bool freezes) {
  return {.filter = counted_filter,
          .get_status = check_file_status,
          .prep = freezes ? counted_freeze : nullptr,
          .verify = freezes ? check_frozen : nullptr,
          .report = report};
}

}  // namespace tool
