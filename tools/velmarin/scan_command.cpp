#include "scan_command.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "display_name.h"
#include "entry_filter.h"
#include "exit_status.h"
#include "guarded_open.h"
#include "history.h"
#include "html_report.h"
#include "idle_priority.h"
#include "kept_pages.h"
#include "log_lines.h"
#include "marking.h"
#include "merge_run.h"
#include "message.h"
#include "name_list.h"
#include "output_file.h"
#include "progress.h"
#include "progress_text.h"
#include "report.h"
#include "run_end.h"
#include "run_lock.h"
#include "scan_paths.h"
#include "scan_probes.h"
#include "scan_runs.h"
#include "size_text.h"
#include "stop_signal.h"
#include "time_limit.h"
#include "velmarin/files.h"

namespace tool {
namespace {

class ScanCommand {
 public:
  explicit ScanCommand(const ScanOptions &options)
      : options_(options),
        shows_progress_(!options.quiet && !options.verbose),
        limit_(options.time_budget),
        log_(options.verbose) {}

  int run() {
    stop_after(limit_);
    if (options_.idle) {
      become_idle();
    }
    if (!prepare()) {
      return FAILED;
    }
    if (const int status = lock_.take(state_); status != DONE) {
      return status;
    }
    return run_alone();
  }

 private:
  int run_alone() {
    if (!options_.html.empty() && !page_.open(options_.html)) {
      return FAILED;
    }
    const GuardedRoots roots(report_.roots);
    if (!roots.are_held()) {
      return FAILED;
    }
    const PrivateFiles digest_files(state_);
    const int error = scan();
    if (error != 0) {
      print_error("the scan failed" +
                  (error == 1 ? first_error() : std::string(": ") + std::strerror(error)));
      return FAILED;
    }
    finish_scan();
    merging_.run(report_);
    take_omissions();
    report_.elapsed = limit_.elapsed();
    const bool is_recorded = !options_.apply || append_history(state_, entry_of(report_));
    const bool is_printed = print();
    const int status = explain_end(report_, log_, options_.quiet, options_.verbose);
    return is_printed && is_whole() && is_recorded ? status : FAILED;
  }

  bool prepare() {
    if (options_.dry_run && !options_.quiet) {
      print_error("--dry-run is the default: nothing is merged without --apply");
    }
    state_ = state_directory(options_.state);
    skips_ = resolve_skips(options_.skips, !options_.quiet);
    report_.applied = options_.apply;
    return determine_scope() && prepare_state_directory(state_);
  }

  // Determines what to scan.
  bool determine_scope() {
    std::vector<std::string> roots = options_.roots;
    EntryFilterRules rules = options_.filter;
    if (!options_.roots_from.empty() &&
        !read_names(options_.roots_from, options_.ends_names_by_nul, roots)) {
      return false;
    }
    for (const std::string &file : options_.exclude_lists) {
      if (!read_globs(file, rules.excludes)) {
        return false;
      }
    }
    if (roots.empty()) {
      const bool is_input = options_.roots_from == "-";
      print_error("nothing to scan: no directories are listed " +
                  (is_input ? "on standard input" : "in " + named(options_.roots_from)));
      return false;
    }
    if (!resolve_roots(roots, report_.roots)) {
      return false;
    }
    filter_ = EntryFilter(rules, report_.roots);
    return true;
  }

  int scan() {
    ScanText text(log_);
    const auto progress =
        show_progress(shows_progress_, [&] { return text.describe(limit_.elapsed()); });
    const auto pages = options_.apply ? std::make_unique<KeptPages>() : nullptr;
    return runs_.run();
  }

  void finish_scan() {
    report_.stopped = stop_signalled();
    report_.out_of_time = limit_.is_over();
    report_.is_cut = report_.stopped || report_.out_of_time;
    report_.unsupported = probe_counts.unsupported;
    report_.unknown = probe_counts.unknown;
    report_.findings = std::move(runs_.findings);
    report_.findings.mark_bytes = new_mark_bytes();
    Statistics &statistics = report_.findings.statistics;
    get_sis_file_statistics(&statistics.compressed_files, &statistics.deduped_files,
                            &statistics.compressed_saved_bytes, &statistics.deduped_saved_bytes);
  }

  // If nothing is merged, no outcome tells which files have changed since they were read.
  void take_omissions() {
    for (const FoundGroup &group : report_.findings.groups) {
      for (const FoundFile &file : group.files) {
        if (!options_.apply && file.state.error == 0 && !file.state.unchanged) {
          runs_.omissions.add(file.path, Cause::changed, 0);
        }
      }
    }
    report_.omissions = runs_.omissions.list();
    report_.omission_counts = runs_.omissions.counts();
  }

  bool print() {
    if (options_.verbose) {
      print_omissions(report_);
    }
    if (options_.json) {
      print_json(report_, stdout);
    } else {
      print_text(report_, !options_.no_color && can_show_colours());
    }
    return options_.html.empty() ||
           page_.write(html_report(report_, page_context(report_, state_)));
  }

  std::string first_error() const {
    return log_.error_count() == 0 ? "" : ": " + escaped_name(log_.first_error());
  }

  std::string save_failure_reason() const {
    return is_full(state_) ? "no space left for digests in " + escaped_name(state_)
                           : escaped_name(log_.save_failure());
  }

  // Whether the run did its work, apart from single files. Prints an error message if not.
  bool is_whole() const {
    const bool none_supported =
        report_.findings.counters.nr_scan_file == 0 && report_.unsupported > 0;
    if (!log_.save_failure().empty()) {
      print_error("cannot save the digests for the next scan: " + save_failure_reason());
    }
    if (probe_counts.on_overlay > 0) {
      print_error("left out " + format_count(probe_counts.on_overlay, "file") +
                  " on an overlay: merging may copy them up");
    }
    if (runs_.ignored_digests) {
      print_error("did not use all saved digests: a file of them belonged to another user");
    }
    if (!runs_.kept_digests && log_.save_failure().empty()) {
      print_error("cannot save all digests for the next scan");
    }
    if (none_supported) {
      print_error(
          "no file could be examined: none is on a file system that supports deduplication");
    }
    return !none_supported && log_.save_failure().empty() && runs_.kept_digests;
  }

  const ScanOptions &options_;
  const bool shows_progress_;
  const TimeLimit limit_;
  StopSignals signals_;
  LogLines log_;
  std::string state_;
  RunLock lock_;
  std::vector<std::string> skips_;
  EntryFilter filter_;
  OutputFile page_;
  Report report_;
  MergeRun merging_{limit_, log_, shows_progress_};
  ScanRuns runs_{options_, report_.roots, skips_, filter_, state_, limit_, signals_};
};

}  // namespace

int run_scan(const ScanOptions &options) {
  return ScanCommand(options).run();
}

}  // namespace tool
