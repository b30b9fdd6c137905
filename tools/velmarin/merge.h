// Makes the identical files of each group share data, one file system at a time.
#pragma once

#include <atomic>
#include <span>

#include "findings.h"
#include "log_lines.h"
#include "volume.h"

namespace tool {

// The progress of merging, written by the merging threads and read by the display thread.
struct MergeProgress {
  uint64_t files_to_do = 0;  // set before merging starts, as is the next
  uint64_t bytes_to_do = 0;
  std::atomic<uint64_t> files_done = 0;     // merged, refused or changed
  std::atomic<uint64_t> bytes_done = 0;     // allocated bytes of those files
  std::atomic<uint64_t> bytes_in_hand = 0;  // of the files being merged
  std::atomic<uint64_t> freed_bytes = 0;    // certain
};

// Sets the outcome of the files in a group that merging could not change, with the reason.
void mark_obstacles(FoundGroup &group);

// As above, and of those that the survey found unfit for another reason.
void mark_unusable(FoundGroup &group);

// Counts the work to do.
void plan_merge(std::span<const FoundGroup> groups, MergeProgress &progress);

// Merges the files of every group onto one source per file system. Sets the outcome of each file
// and what each share freed: what its files referred to before and no longer do. A refused file
// keeps its data and does not stop the rest. A requested stop takes effect after the files in hand.
// Two threads take the groups in order, so a stop may leave one group that comes before others
// already merged.
// `log` tells why the library could not create a layered inode.
void merge_all(std::span<FoundGroup> groups, const Volumes &volumes, LogLines &log,
               MergeProgress &progress);

}  // namespace tool
