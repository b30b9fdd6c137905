#include "apply_command.h"

#include <algorithm>

#include "exit_status.h"
#include "guarded_open.h"
#include "history.h"
#include "log_lines.h"
#include "merge_run.h"
#include "message.h"
#include "progress.h"
#include "report_reader.h"
#include "run_end.h"
#include "run_lock.h"
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
  const auto [listed, found] =
      std::mismatch(report.roots.begin(), report.roots.end(), resolved.begin(), resolved.end());
  if (listed != report.roots.end()) {
    print_error("cannot merge below", *listed, "listed twice, or reached through a symbolic link");
  }
  return listed == report.roots.end();
}

bool read_report(const std::string &file, Report &report) {
  try {
    report = parse_report(read_report_text(file));
    return true;
  } catch (const ReportError &error) {
    print_error("cannot use the report", file == "-" ? "on standard input" : file, error.what());
    return false;
  }
}

void print(const Report &report, bool as_json) {
  if (as_json) {
    print_json(report, stdout);
  } else {
    print_text(report, can_show_colours());
  }
}

// Returns the exit status. A dry run writes no history.
int merge(const ApplyOptions &options, const TimeLimit &limit, const std::string &state,
          Report &report) {
  const GuardedRoots roots(report.roots);
  if (!roots.are_held()) {
    return FAILED;
  }
  const StopSignals signals;
  LogLines log(options.verbose);
  MergeRun(limit, log, !options.quiet && !options.verbose).run(report);
  report.elapsed = limit.elapsed();
  const bool is_recorded = !report.applied || append_history(state, entry_of(report));
  print(report, options.json);
  const int status = explain_end(report, log, options.quiet, options.verbose);
  return is_recorded ? status : FAILED;
}

}  // namespace

int run_apply(const ApplyOptions &options) {
  const TimeLimit limit(options.time_budget);
  stop_after(limit);
  Report report;
  if (!read_report(options.report, report) || !are_roots_usable(report)) {
    return FAILED;
  }
  report.is_scan = false;
  report.applied = !options.dry_run;
  std::string state = state_directory(options.state);
  RunLock lock;
  if (report.applied) {
    const int status = prepare_state_directory(state) ? lock.take(state) : FAILED;
    if (status != DONE) {
      return status;
    }
  }
  return merge(options, limit, state, report);
}

}  // namespace tool
