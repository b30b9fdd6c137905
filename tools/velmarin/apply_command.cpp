#include "apply_command.h"

#include "display_name.h"
#include "guarded_open.h"
#include "log_lines.h"
#include "merge_run.h"
#include "message.h"
#include "progress.h"
#include "report_reader.h"
#include "scan_paths.h"
#include "stop_signal.h"
#include "time_limit.h"

namespace tool {
namespace {

// The roots must still be directories whose paths contain no symbolic link.
bool are_roots_usable(const Report &report) {
  std::vector<std::string> resolved;
  if (!resolve_roots(report.roots, resolved)) {
    return false;
  }
  for (size_t i = 0; i < report.roots.size(); ++i) {
    if (i >= resolved.size() || resolved[i] != report.roots[i]) {
      print_error("cannot merge below", report.roots[i],
                  "named twice, or by way of a symbolic link");
      return false;
    }
  }
  return true;
}

bool read_report(const std::string &file, Report &report) {
  try {
    report = parse_report(read_report_text(file));
    return true;
  } catch (const ReportFault &fault) {
    print_error("cannot use the report", file == "-" ? "on standard input" : file, fault.what());
    return false;
  }
}

bool is_success(const Report &report, bool is_quiet) {
  const MergeCounts counts = count_outcomes(report.findings);
  if (report.stopped && !is_quiet) {
    print_error("stopped early: not all groups were merged");
  }
  return counts.refused + counts.changed + counts.not_tried == 0;
}

}  // namespace

bool run_apply(const ApplyOptions &options) {
  const TimeLimit limit(options.time_budget);
  stop_after(limit);
  Report report;
  if (!read_report(options.report, report) || !are_roots_usable(report)) {
    return false;
  }
  const GuardedRoots roots(report.roots);
  if (!roots.are_held()) {
    return false;
  }
  report.is_scan = false;
  report.applied = !options.dry_run;
  const StopSignals signals;
  LogLines log(options.verbose);
  MergeRun(limit, log, !options.quiet && !options.verbose).run(report);
  report.elapsed = limit.elapsed();
  if (options.json) {
    print_json(report, stdout);
  } else {
    print_text(report, can_show_colours());
  }
  return is_success(report, options.quiet);
}

}  // namespace tool
