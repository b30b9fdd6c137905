// What a scan found, and the later state and outcome of each file.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "btrfs_extents.h"
#include "space.h"
#include "velmarin/scan.h"

namespace tool {

// What merging did with a file.
enum class Outcome {
  none,            // merging was not requested
  source,          // kept; the others on its file system were merged onto it
  merged,          // shares the source's data now
  already_shared,  // shared the data before
  alone,           // has no other copy on its file system
  changed,         // is no longer what the scan saw, and was left alone
  refused,         // `reason` says why
  not_tried,       // merging was stopped, or no source was left
  no_gain,         // sharing its data would free nothing; `reason` says why
};

// The file as it is after the scan.
struct FileState {
  int error = 0;  // errno of the query, ECANCELED if there was none; the rest is then invalid
  bool unchanged = false;  // a regular file with the inode, size and time that the scan saw
  dev_t device = 0;
  uint64_t inode = 0;
  uint64_t allocated_bytes = 0;
  uint64_t record_bytes = 0;  // estimated: of the record that it gets once it is merged
  uint32_t layer = 0;      // number of the layered inode that it is attached to, 0 for a plain file
  uint32_t copy = 0;       // number of its copy of the data within the share
  bool can_share = false;  // its file system can share data
  bool is_inline = false;  // its data is stored in the metadata and cannot be shared
  bool has_twin = false;   // another file of the share has the same copy
  btrfs::Writing writing = btrfs::Writing::checked;
  // Why merging cannot change it: an errno, 0 if it can, EINVAL if all others on its file system
  // are written differently.
  int obstacle = 0;
  int source_obstacle = 0;  // why it cannot be the source; a layered file can be it unchanged
};

// A file as the scan reported it. Only `state`, `outcome` and `reason` change later.
struct FoundFile {
  std::string path;
  dev_t device = 0;    // where the scan saw it
  uint64_t inode = 0;  // in an earlier scan's report sometimes only its low 32 bits
  int64_t status = 0;  // SIS_STATUS_* or minus an errno
  uint64_t size = 0;
  uint64_t blocks = 0;
  struct timespec mtime = {};
  std::optional<std::array<uint8_t, 32>> digest;

  FileState state;
  Outcome outcome = Outcome::none;
  std::string reason;
};

// Identical files on one file system, written in the same way, which can therefore share data. Also
// has those that merging cannot change, but none with inline data.
struct Share {
  dev_t volume = 0;             // see `Volume::id`
  bool can_share = false;       // the file system can share data
  std::vector<size_t> files;    // indexes in the group, the best source first
  uint64_t unmerged_bytes = 0;  // held by copies beyond the first
  uint64_t saved_bytes = 0;     // already shared, counted once for each file but one
  Space reclaimable;            // what merging would free
  Space freed;                  // what merging freed
};

struct FoundGroup {
  std::vector<FoundFile> files;  // ordered by path
  std::vector<Share> shares;     // one for each file system

  uint64_t size() const { return files.front().size; }
  bool is_examined() const;  // false: the figures below are 0 and say nothing
  uint64_t unmerged_bytes() const;
  uint64_t unsharable_bytes() const;  // the part of `unmerged_bytes` where no data can be shared
  uint64_t saved_bytes() const;
  Space reclaimable() const;
  Space freed() const;
  uint64_t inline_files() const;
};

struct Counters {
  uint64_t nr_dir_opened = 0;
  uint64_t nr_dir_read = 0;
  uint64_t nr_file_opened = 0;
  uint64_t nr_scan_file = 0;
  uint64_t nr_hashed = 0;
  uint64_t nr_error = 0;
};

struct Statistics {
  uint64_t compressed_files = 0;
  uint64_t deduped_files = 0;
  uint64_t compressed_saved_bytes = 0;
  uint64_t deduped_saved_bytes = 0;
};

struct Findings {
  // Whether no file system of the grouped files can share data.
  bool is_unsharable() const;

  std::vector<FoundGroup> groups;  // after `survey`, those that free the most first
  std::vector<FoundFile> compressed;
  Counters counters;
  Statistics statistics;
  uint64_t mark_bytes = 0;  // of metadata, taken by the marks that the scan set

  uint64_t grouped_files() const;
  uint64_t unexamined_groups() const;
  uint64_t unmerged_bytes() const;
  uint64_t unsharable_bytes() const;
  uint64_t saved_bytes() const;
  Space reclaimable() const;
  Space freed() const;  // what merging freed, less the marks
  uint64_t inline_files() const;
};

// Receives the report of a scan; pass `this` as the scan's `caller_data`.
class Collector {
 public:
  Findings findings;
  static int receive(uint64_t collector, velmarin::sis_report *record);

 private:
  void take(const velmarin::sis_report &record);
  void take_file(const velmarin::sis_report &record);

  bool in_compressed_section_ = false;
};

}  // namespace tool
