#include "scan_runs.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <span>
#include <utility>

#include "common/unique_fd.h"
#include "file_system.h"
#include "group_join.h"
#include "guarded_open.h"
#include "omission_watch.h"
#include "scan_paths.h"
#include "scan_probes.h"
#include "wide_inodes.h"

namespace tool {
namespace {

std::vector<const char *> pointers(const std::vector<std::string> &texts) {
  std::vector<const char *> list;
  list.reserve(texts.size());
  for (const std::string &text : texts) {
    list.push_back(text.c_str());
  }
  return list;
}

template <typename Element>
void append(std::vector<Element> &list, std::vector<Element> &more) {
  list.insert(list.end(), std::make_move_iterator(more.begin()),
              std::make_move_iterator(more.end()));
}

// How many levels the path is below its innermost root.
int depth_below(const std::vector<std::string> &roots, const std::string &path) {
  size_t length = 0;
  for (const std::string &root : roots) {
    if (is_below(path, root) && root != "/") {
      length = std::max(length, root.size());
    }
  }
  return static_cast<int>(
      std::count(path.begin() + static_cast<std::ptrdiff_t>(length), path.end(), '/'));
}

void add_counters(Counters &sum, const Counters &more) {
  sum.nr_dir_opened += more.nr_dir_opened;
  sum.nr_dir_read += more.nr_dir_read;
  sum.nr_file_opened += more.nr_file_opened;
  sum.nr_scan_file += more.nr_scan_file;
  sum.nr_hashed += more.nr_hashed;
  sum.nr_error += more.nr_error;
}

}  // namespace

int ScanRuns::run() {
  plan_roots();
  ignored_digests = !keeper_.open(state_, roots_, planned_.size() == 1);
  const ActiveEntryFilter active_filter(filter_, skips_);
  OmissionWatch omission_watch(omissions, filter_, skips_, smallest_size());
  VolumeWatch watch(keeper_);
  watch.min_size = smallest_size();
  int error = execute_runs(watch, planned_);
  omission_watch.see_again();
  if (error == 0) {
    error = execute_runs(watch, further_);
  }
  if (error == 0 && (completed_.size() > 1 || !watch.collected.empty())) {
    join_runs(watch);
  }
  kept_digests = keeper_.close(error == 0 && looked_everywhere());
  return error;
}

// An empty file has no data to share.
uint64_t ScanRuns::smallest_size() const {
  return std::max<uint64_t>(options_.min_size, 1);
}

// Adds a root to the planned run for its device and depth.
void ScanRuns::plan(dev_t device, int max_depth, const std::string &root) {
  if (!planned_paths_.insert(root).second) {
    return;
  }
  const auto run = std::find_if(planned_.begin(), planned_.end(), [&](const VolumeRun &planned) {
    return planned.device == device && planned.max_depth == max_depth;
  });
  if (run != planned_.end()) {
    run->roots.push_back(root);
  } else {
    planned_.push_back({device, max_depth, {root}, 0, {}});
  }
}

void ScanRuns::plan_roots() {
  for (const std::string &root : roots_) {
    struct stat status = {};
    const velmarin::unique_fd fd(open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (fstat(fd.get(), &status) == 0) {
      root_file_systems_.insert(file_system_of(fd.get(), status));
    }
    plan(status.st_dev, options_.max_depth, root);
  }
}

void ScanRuns::plan_directories(const VolumeRun &run, std::vector<ForeignDirectory> directories) {
  std::ranges::sort(directories, {}, &ForeignDirectory::path);
  for (const ForeignDirectory &directory : directories) {
    if (is_left_out(directory.file_system)) {
      continue;
    }
    const int depth = depth_below(run.roots, directory.path);
    plan(directory.device, run.max_depth == 0 ? 0 : run.max_depth - depth, directory.path);
  }
}

// Each run may plan others.
int ScanRuns::execute_runs(VolumeWatch &watch, std::vector<VolumeRun> &runs) {
  int error = 0;
  while (error == 0 && !runs.empty() && (completed_.empty() || !stop_requested())) {
    VolumeRun run = std::move(runs.front());
    runs.erase(runs.begin());
    error = execute_run(watch, std::move(run));
  }
  return error;
}

int ScanRuns::execute_run(VolumeWatch &watch, VolumeRun run) {
  const bool is_first = run.number == 0;
  const bool is_whole = is_first && run.roots == roots_;  // has the digest file of the whole scan
  if (is_first) {
    watch.begin_run(run.device);
  } else {
    watch.begin_further_run(run.device, std::exchange(run.expected, {}), run.number == 1);
  }
  Collector collector;
  probe_counts.seen_again = 0;
  const int error = call_library(
      run, is_whole ? state_ : keeper_.export_digests(run.roots, run.device, watch.inodes),
      collector);
  if (!is_whole) {
    keeper_.import_digests(run.roots, watch.inodes);
  }
  add_findings(watch, run, std::move(collector.findings));
  plan_directories(run, watch.take_directories());
  plan_further_run(watch, run);
  keeper_.note_device(run.device, run.roots.front());
  completed_.push_back(std::move(run));
  return error;
}

void ScanRuns::plan_further_run(VolumeWatch &watch, const VolumeRun &run) {
  KeptBack kept = watch.inodes.take_kept();
  if (!kept.is_empty()) {
    further_.push_back({run.device, run.max_depth, run.roots, run.number + 1, std::move(kept)});
  }
}

// The library knows a skipped path by the low half of its inode number, which others may share, so
// it gets none: the probes skip.
int ScanRuns::call_library(const VolumeRun &run, const std::string &state, Collector &collector) {
  const velmarin::sis_ops ops = counted_probes(Collector::receive, options_.apply);
  std::vector<const char *> roots = pointers(run.roots);
  const StoppableOpens opens;
  const int error = single_instance_storage(
      roots.data(), static_cast<int>(roots.size()), nullptr, 0, state.c_str(), smallest_size(),
      run.max_depth, 0, limit_.seconds_left(), &ops, reinterpret_cast<uintptr_t>(&collector),
      signals_.handle_slot());
  uint64_t &errors = collector.findings.counters.nr_error;
  errors -= std::min(errors, opens.refused_digests());
  return error;
}

// The first run has counted the directories, and the files that a further run saw again.
void ScanRuns::add_findings(const VolumeWatch &watch, const VolumeRun &run, Findings found) {
  for (FoundGroup &group : found.groups) {
    for (FoundFile &file : group.files) {
      file.device = run.device;
      file.inode = watch.inodes.whole_number(static_cast<uint32_t>(file.inode));
    }
  }
  for (FoundFile &file : found.compressed) {
    file.inode = watch.inodes.whole_number(static_cast<uint32_t>(file.inode));
  }
  if (run.number > 0) {
    found.counters.nr_dir_opened = found.counters.nr_dir_read = 0;
    found.counters.nr_file_opened -=
        std::min(found.counters.nr_file_opened, probe_counts.seen_again.load());
  }
  append(findings.groups, found.groups);
  append(findings.compressed, found.compressed);
  add_counters(findings.counters, found.counters);
}

void ScanRuns::join_runs(VolumeWatch &watch) {
  keeper_.import_main_run();
  std::erase_if(watch.collected,
                [this](const CollectedFile &file) { return is_left_out(file.file_system); });
  findings.counters.nr_scan_file += watch.collected.size();
  if (watch.has_common_sizes() && !stop_requested()) {
    collect_candidates(watch);
  }
  GroupJoin(findings, keeper_).run(std::move(watch.collected));
}

// Walks again without comparing, so that a scan of one device need not remember the path of every
// file.
void ScanRuns::collect_candidates(VolumeWatch &watch) {
  const size_t singles = watch.collected.size();
  watch.begin_collection();
  Collector unused;
  WideInodes none;
  call_library({0, options_.max_depth, roots_, 0, {}}, keeper_.export_digests({}, 0, none), unused);
  keeper_.import_digests(roots_, none);
  for (CollectedFile &file : std::span(watch.collected).subspan(singles)) {
    file.run = run_of(file).value_or(file.run);
  }
}

// The run on the file's device that has the innermost root above the file. Unknown if one of
// several further runs may have seen it.
std::optional<size_t> ScanRuns::run_of(const CollectedFile &file) const {
  std::optional<size_t> found;
  size_t length = 0;
  for (size_t i = 0; i < completed_.size() && file.status.st_ino <= UINT32_MAX; ++i) {
    if (completed_[i].number > 0) {
      continue;
    }
    for (const std::string &root : completed_[i].roots) {
      if (completed_[i].device == file.status.st_dev && is_below(file.path, root) &&
          root.size() > length) {
        found = i;
        length = root.size();
      }
    }
  }
  return found;
}

bool ScanRuns::is_left_out(uint64_t file_system) {
  const bool is_foreign = options_.one_file_system && !root_file_systems_.contains(file_system);
  has_left_out_ = has_left_out_ || is_foreign;
  return is_foreign;
}

// Files below the smallest size are seen too, just not compared.
bool ScanRuns::looked_everywhere() const {
  const auto counts = omissions.counts();
  const bool opened_all = counts[static_cast<size_t>(Cause::directory_not_read)] == 0 &&
                          counts[static_cast<size_t>(Cause::not_opened)] == 0;
  return options_.max_depth == 0 && skips_.empty() && !filter_.is_limiting() && !has_left_out_ &&
         opened_all && !stop_requested();
}

}  // namespace tool
