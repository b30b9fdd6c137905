// What a scan found, and what is known of each file since.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "space.h"
#include "velmarin/scan.h"

namespace tool {

// What merging did with a file.
enum class Outcome {
  none,            // merging was not asked for
  source,          // kept: the others of its file system were merged onto it
  merged,          // shares the source's data now
  already_shared,  // shared the data before
  alone,           // has no other copy on its file system
  changed,         // is not what the scan saw, and was left alone
  refused,         // `reason` says why
  not_tried,       // merging was stopped, or no source was left
  no_gain,         // sharing its data would free nothing; `reason` says why
};

// The file as it is after the scan.
struct FileState {
  int error = 0;  // errno of looking at it, ECANCELED if nobody did; the rest means nothing then
  bool unchanged = false;  // a regular file with the inode, size and time that the scan saw
  dev_t device = 0;
  uint64_t inode = 0;
  uint64_t allocated_bytes = 0;
  uint32_t layer = 0;      // number of the layered inode that it is attached to, 0 for a plain file
  uint32_t copy = 0;       // the same for the files of a share that have one copy of the data
  bool can_share = false;  // its file system can share data
  bool is_inline = false;  // its data lies among the metadata and cannot be shared
};

// A file as the scan reported it. Everything but `state`, `outcome` and `reason` stays as reported.
struct FoundFile {
  std::string path;
  dev_t device = 0;    // on which the scan met it
  uint64_t inode = 0;  // low 32 bits; in an earlier scan's report the whole number, if known
  int64_t status = 0;  // SIS_STATUS_* or minus an errno
  uint64_t size = 0;
  uint64_t blocks = 0;
  struct timespec mtime = {};
  std::optional<std::array<uint8_t, 32>> digest;

  FileState state;
  Outcome outcome = Outcome::none;
  std::string reason;
};

// Files of identical content that lie on one file system: what can come to share data. Files whose
// data lies inline are left out.
struct Share {
  dev_t volume = 0;             // see `Volume::id`
  bool can_share = false;       // the file system can share data
  std::vector<size_t> files;    // places in the group, the best source first
  uint64_t unmerged_bytes = 0;  // held by copies beyond the first
  uint64_t saved_bytes = 0;     // what the files share already, counted once for each file but one
  Space reclaimable;            // given back by merging
  Space freed;                  // given back
};

struct FoundGroup {
  std::vector<FoundFile> files;  // ordered by path
  std::vector<Share> shares;     // one for each file system

  uint64_t size() const { return files.front().size; }
  uint64_t unmerged_bytes() const;
  uint64_t unsharable_bytes() const;  // of `unmerged_bytes`: where no data can be shared
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
  // Whether nothing can be shared where the files found lie.
  bool is_unsharable() const;

  std::vector<FoundGroup> groups;  // most duplicate bytes first
  std::vector<FoundFile> compressed;
  Counters counters;
  Statistics statistics;

  uint64_t grouped_files() const;
  uint64_t unmerged_bytes() const;
  uint64_t unsharable_bytes() const;
  uint64_t saved_bytes() const;
  Space reclaimable() const;
  Space freed() const;
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
