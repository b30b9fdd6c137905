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
    merge(report.findings);
  } else {
    std::for_each(report.findings.groups.begin(), report.findings.groups.end(),
                  report.is_scan ? mark_obstacles : mark_unusable);
  }
  note_end(report);
}

void MergeRun::merge(Findings &findings) {
  MergeProgress merging;
  plan_merge(findings, merging);
  MergeText text(limit_.elapsed(), merging);
  const auto progress =
      show_progress(shows_progress_, [&] { return text.describe(limit_.elapsed()); });
  merge_all(findings, volumes_, log_, merging);
}

// A signal or the end of the time that left nothing undone does not count.
void MergeRun::note_end(Report &report) const {
  const bool is_undone = report.findings.unexamined_groups() > 0 ||
                         (report.applied && count_outcomes(report.findings).not_tried > 0);
  report.stopped |= is_undone && stop_signalled();
  report.out_of_time |= is_undone && limit_.is_over();
}

}  // namespace tool
