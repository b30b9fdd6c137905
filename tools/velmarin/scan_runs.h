// The runs of the library that make up one `velmarin scan`: one for each device that the trees
// span, and further ones on a device whose inode numbers do not fit into 32 bits. Most scans are a
// single run.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "digest_keeper.h"
#include "entry_filter.h"
#include "findings.h"
#include "omissions.h"
#include "options.h"
#include "stop_signal.h"
#include "time_limit.h"
#include "volume_watch.h"

namespace tool {

class ScanRuns {
 public:
  // `roots`, `skips`, `filter` and `state` must be final before `run`. All references must outlive
  // the object.
  ScanRuns(const ScanOptions &options, const std::vector<std::string> &roots,
           const std::vector<std::string> &skips, const EntryFilter &filter,
           const std::string &state, const TimeLimit &limit, StopSignals &signals)
      : options_(options),
        roots_(roots),
        skips_(skips),
        filter_(filter),
        state_(state),
        limit_(limit),
        signals_(signals) {}

  // Scans and collects the findings. Returns 0, or the library's result if a scan failed.
  int run();

  Findings findings;
  Omissions omissions;
  bool ignored_digests = false;  // another user's
  bool kept_digests = true;  // false: digests that the library did not save could not be written

 private:
  struct VolumeRun {
    dev_t device = 0;
    int max_depth = 0;
    std::vector<std::string> roots;
    int number = 0;     // of further runs after the first over these roots, it is 1, 2, ...
    KeptBack expected;  // what the previous one kept back
  };

  uint64_t smallest_size() const;
  void plan(dev_t device, int max_depth, const std::string &root);
  void plan_roots();
  void plan_directories(const VolumeRun &run, std::vector<ForeignDirectory> directories);
  int execute_runs(VolumeWatch &watch, std::vector<VolumeRun> &runs);
  int execute_run(VolumeWatch &watch, VolumeRun run);
  void plan_further_run(VolumeWatch &watch, const VolumeRun &run);
  int call_library(const VolumeRun &run, const std::string &state, Collector &collector);
  void add_findings(const VolumeWatch &watch, const VolumeRun &run, Findings found);
  void join_runs(VolumeWatch &watch);
  void collect_candidates(VolumeWatch &watch);
  std::optional<size_t> run_of(const CollectedFile &file) const;
  bool is_left_out(uint64_t file_system);
  bool looked_everywhere() const;

  const ScanOptions &options_;
  const std::vector<std::string> &roots_;
  const std::vector<std::string> &skips_;
  const EntryFilter &filter_;
  const std::string &state_;
  const TimeLimit &limit_;
  StopSignals &signals_;
  DigestKeeper keeper_;
  std::vector<VolumeRun> planned_;
  std::vector<VolumeRun> further_;
  std::vector<VolumeRun> completed_;
  std::set<std::string> planned_paths_;
  std::set<uint64_t> root_file_systems_;
  bool has_left_out_ = false;  // something on another file system
};

}  // namespace tool
