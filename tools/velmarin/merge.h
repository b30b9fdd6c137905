// Makes the identical files of each group share data, one file system at a time.
#pragma once

#include <atomic>

#include "findings.h"
#include "log_lines.h"
#include "volume.h"

namespace tool {

// How far merging is; written by the merging thread, read by the one that shows it.
struct MergeProgress {
  uint64_t files_to_do = 0;  // set before merging starts, like the next
  uint64_t bytes_to_do = 0;
  std::atomic<uint64_t> files_done = 0;     // merged, refused or changed
  std::atomic<uint64_t> bytes_done = 0;     // allocated bytes of those files
  std::atomic<uint64_t> bytes_in_hand = 0;  // of the file begun last
  std::atomic<uint64_t> freed_bytes = 0;    // certainly
};

// Gives an outcome to the files of a group that cannot be merged as the survey saw them.
void mark_unusable(FoundGroup &group);

// Counts what there is to do.
void plan_merge(const Findings &findings, MergeProgress &progress);

// Merges the files of every group onto one source per file system and fills the outcome of each
// file and what was freed of each share: what the files referred to before and no longer do. A file
// that is refused keeps its data and does not stop the rest. Ends early, after the file in hand,
// when a stop is asked for. `log` tells why the library could not make a layered inode.
void merge_all(Findings &findings, const Volumes &volumes, LogLines &log, MergeProgress &progress);

}  // namespace tool
