#include "merge_run.h"

#include <algorithm>

#include "merge.h"
#include "progress.h"
#include "progress_text.h"
#include "size_text.h"
#include "stop_signal.h"
#include "survey.h"

namespace tool {
void MergeRun::run(Report &report) {
  {
    const auto progress = show_progress(shows_progress_, [this] {
      return format_duration(limit_.elapsed()) + "  examining the files found";
    });
    survey(report.findings, volumes_, report.applied || !report.is_scan);
  }
  if (report.applied) {
    merge(report);
  } else {
    std::for_each(report.findings.groups.begin(), report.findings.groups.end(),
                  report.is_scan ? mark_obstacles : mark_unusable);
  }
}

void MergeRun::merge(Report &report) {
  MergeProgress merging;
  plan_merge(report.findings, merging);
  MergeText text(limit_.elapsed(), merging);
  const auto progress =
      show_progress(shows_progress_, [&] { return text.describe(limit_.elapsed()); });
  merge_all(report.findings, volumes_, log_, merging);
  report.stopped = stop_signalled();
  report.out_of_time =
      report.out_of_time || (limit_.is_over() && count_outcomes(report.findings).not_tried > 0);
}

}  // namespace tool
