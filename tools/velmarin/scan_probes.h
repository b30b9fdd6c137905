// The probes that a scan calls for each file: the library's own, with counters added.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "entry_filter.h"
#include "velmarin/scan.h"

namespace tool {

// Written by the scan's threads. Process-wide because probes receive no caller data.
struct ProbeCounts {
  std::atomic<uint64_t> entries = 0;      // directories and files seen
  std::atomic<uint64_t> read = 0;         // files opened to be read in full
  std::atomic<uint64_t> unsupported = 0;  // files left out: their file system cannot deduplicate
  std::atomic<uint64_t> on_overlay = 0;   // of these, files that merging may copy up
  std::atomic<uint64_t> unknown = 0;      // files left out: their state could not be queried
  bool are_counted = false;  // an earlier run has counted the entries of this one; set before it
  std::atomic<uint64_t> seen_again = 0;  // files of such runs
};
extern ProbeCounts probe_counts;

// While an object lives, scans leave out the files and directories at `skips`, under any name, and
// what the filter leaves out, before any other probe sees them. At most one object may live.
class ActiveEntryFilter {
 public:
  ActiveEntryFilter(const EntryFilter &filter, const std::vector<std::string> &skips);
  ~ActiveEntryFilter();
  ActiveEntryFilter(const ActiveEntryFilter &) = delete;
  ActiveEntryFilter &operator=(const ActiveEntryFilter &) = delete;
};

// Called for each directory and regular file that passes the filter, before the library's own; a
// negative result leaves the entry out. Set before a scan; null for none.
extern velmarin::sis_entry_callback entry_watch;

// Called for each file of an overlay that is left out of merging. Set like `entry_watch`.
extern void (*left_out_watch)(const struct stat &status);

// The callback table of a scan that reports to `report`. Without `merges` the scan freezes nothing,
// so it writes nothing to the file systems that it reads; sizes and modification times tell it
// which files change. With `merges` it leaves out files on an overlay.
velmarin::sis_ops counted_probes(velmarin::sis_report_callback report, bool merges);

}  // namespace tool
