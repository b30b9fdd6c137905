#include "scan_command.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "display_name.h"
#include "guarded_open.h"
#include "log_lines.h"
#include "merge.h"
#include "message.h"
#include "output_file.h"
#include "progress.h"
#include "report.h"
#include "scan_paths.h"
#include "scan_probes.h"
#include "size_text.h"
#include "stop_signal.h"
#include "survey.h"
#include "velmarin/files.h"
#include "volume.h"

namespace tool {
namespace {

using Clock = std::chrono::steady_clock;

std::chrono::milliseconds since(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start);
}

const char *phase_word(ScanPhase phase) {
  switch (phase) {
    case ScanPhase::loading:
      return "loading digests";
    case ScanPhase::walking:
      return "walking";
    case ScanPhase::grouping:
      return "grouping";
    case ScanPhase::saving:
      return "saving digests";
    case ScanPhase::reporting:
      break;
  }
  return "reporting";
}

std::vector<const char *> pointers(const std::vector<std::string> &texts) {
  std::vector<const char *> list;
  list.reserve(texts.size());
  for (const std::string &text : texts) {
    list.push_back(text.c_str());
  }
  return list;
}

class ScanCommand {
 public:
  explicit ScanCommand(const ScanOptions &options) : options_(options), log_(options.verbose) {}

  bool run() {
    if (!prepare()) {
      return false;
    }
    const GuardedRoots roots(report_.roots);
    if (!roots.are_held()) {
      return false;
    }
    const PrivateFiles digest_files;
    const int error = scan();
    if (error != 0) {
      print_error("the scan could not be made" +
                  (error == 1 ? first_error() : std::string(": ") + std::strerror(error)));
      return false;
    }
    finish_scan();
    if (options_.apply) {
      apply();
    }
    report_.elapsed = since(start_);
    return print() && is_success();
  }

 private:
  bool prepare() {
    state_ = options_.state.empty() ? default_state_directory() : options_.state;
    skips_ = resolve_skips(options_.skips, !options_.quiet);
    report_.applied = options_.apply;
    return resolve_roots(options_.roots, report_.roots) && prepare_state_directory(state_) &&
           (options_.html.empty() || page_.open(options_.html));
  }

  int scan() {
    const velmarin::sis_ops ops = counted_probes(Collector::receive, options_.apply);
    std::vector<const char *> roots = pointers(report_.roots);
    std::vector<const char *> skips = pointers(skips_);
    // An empty file holds no data that could be shared.
    const uint64_t min_size = std::max<uint64_t>(options_.min_size, 1);
    const auto progress = show_progress([this] { return scan_progress(); });
    return single_instance_storage(
        roots.data(), static_cast<int>(roots.size()), skips.data(), static_cast<int>(skips.size()),
        state_.c_str(), min_size, options_.max_depth, 0, options_.time_budget, &ops,
        reinterpret_cast<uintptr_t>(&collector_), signals_.handle_slot());
  }

  std::string scan_progress() const {
    return format_duration(since(start_)) + "  " + phase_word(log_.phase()) + "  " +
           format_count(probe_counts.entries, "file") + " looked at" +
           (options_.apply ? ", " + std::to_string(probe_counts.frozen) + " frozen" : "");
  }

  void finish_scan() {
    report_.stopped = stop_requested();
    report_.out_of_time =
        options_.time_budget > 0 && since(start_) >= std::chrono::seconds(options_.time_budget);
    report_.unsupported = probe_counts.unsupported;
    report_.unknown = probe_counts.unknown;
    report_.findings = std::move(collector_.findings);
    Statistics &statistics = report_.findings.statistics;
    get_sis_file_statistics(&statistics.compressed_files, &statistics.deduped_files,
                            &statistics.compressed_saved_bytes, &statistics.deduped_saved_bytes);
    const auto progress = show_progress(
        [this] { return format_duration(since(start_)) + "  looking at the files found"; });
    survey(report_.findings, volumes_, options_.apply);
  }

  void apply() {
    MergeProgress merging;
    plan_merge(report_.findings, merging);
    const Clock::time_point start = Clock::now();
    const auto progress = show_progress([&] { return merge_progress(merging, since(start)); });
    merge_all(report_.findings, volumes_, log_, merging);
    report_.stopped = stop_requested();
  }

  std::string merge_progress(const MergeProgress &merging, std::chrono::milliseconds spent) const {
    std::string text = format_duration(since(start_)) + "  merging  " +
                       std::to_string(merging.files_done) + " of " +
                       format_count(merging.files_to_do, "file") + ", " +
                       format_size(merging.freed_bytes) + " freed";
    const uint64_t done = merging.bytes_done;
    if (done > 0 && merging.bytes_to_do >= done) {
      const double rest =
          static_cast<double>(merging.bytes_to_do - done) / static_cast<double>(done);
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(spent * rest);
      text += ", about " + format_duration(left) + " left";
    }
    return text;
  }

  std::unique_ptr<Progress> show_progress(std::function<std::string()> describe) const {
    const bool is_wanted = !options_.quiet && !options_.verbose && can_show_progress();
    return is_wanted ? std::make_unique<Progress>(std::move(describe)) : nullptr;
  }

  bool print() {
    if (options_.json) {
      print_json(report_, stdout);
    } else {
      print_text(report_, !options_.no_color && can_show_colours());
    }
    return options_.html.empty() || page_.write(html_report(report_));
  }

  std::string first_error() const {
    return log_.error_count() == 0 ? "" : ": " + escaped_name(log_.first_error());
  }

  // Says what a reader of the report could miss.
  bool is_success() const {
    const Counters &counters = report_.findings.counters;
    const MergeCounts merged = count_outcomes(report_.findings);
    const bool none_supported = counters.nr_scan_file == 0 && report_.unsupported > 0;
    if (counters.nr_error > 0) {
      print_error(format_count(counters.nr_error, "error") + " during the scan" + first_error());
    }
    if (!log_.save_failure().empty()) {
      print_error("the digests were not kept for the next scan: " +
                  escaped_name(log_.save_failure()));
    }
    if (probe_counts.on_overlay > 0) {
      print_error(format_count(probe_counts.on_overlay, "file") +
                  " of an overlay left out: merging would copy each of them up");
    }
    if (none_supported) {
      print_error("no file could be examined: their file systems do not support deduplication");
    }
    if (report_.stopped && !options_.quiet) {
      print_error("stopped early: the findings are not complete");
    }
    return counters.nr_error == 0 && !none_supported && log_.save_failure().empty() &&
           merged.refused + merged.changed + merged.not_tried == 0;
  }

  const ScanOptions &options_;
  const Clock::time_point start_ = Clock::now();
  StopSignals signals_;
  LogLines log_;
  std::string state_;
  std::vector<std::string> skips_;
  OutputFile page_;
  Collector collector_;
  Volumes volumes_;
  Report report_;
};

}  // namespace

bool run_scan(const ScanOptions &options) {
  return ScanCommand(options).run();
}

}  // namespace tool
