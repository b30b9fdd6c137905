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
  Findings &findings = report.findings;
  const bool before_merging = report.applied || !report.is_scan;
  survey_compressed(findings.compressed, volumes_, before_merging);
  put_promising_first(findings.groups);
  if (report.applied) {
    examine_and_merge(findings.groups);
  } else {
    examine(findings.groups, before_merging, TimeLimit::Clock::time_point::max());
    std::for_each(findings.groups.begin(), findings.groups.end(),
                  report.is_scan ? mark_obstacles : mark_unusable);
  }
  put_gainful_first(findings.groups);
  note_end(report);
}

// Returns how many of the groups were examined.
size_t MergeRun::examine(std::span<FoundGroup> groups, bool before_merging,
                         TimeLimit::Clock::time_point end) {
  const uint64_t all = examined_ + groups.size();
  const auto progress = show_progress(shows_progress_, [this, all] {
    return format_duration(limit_.elapsed()) + "  examining the files found  " +
           std::to_string(examined_) + " of " + format_count(all, "group");
  });
  return survey(groups, volumes_, before_merging, {end, examined_});
}

// Goes by rounds, each with half of the time left for the survey: a run without the time to examine
// all groups still merges some, and a later one finds fewer to merge.
void MergeRun::examine_and_merge(std::span<FoundGroup> groups) {
  do {
    const size_t examined = examine(groups, true, limit_.halfway());
    merge(groups.first(examined));
    groups = groups.subspan(examined);
  } while (!groups.empty() && !stop_requested());
  std::for_each(groups.begin(), groups.end(), mark_unusable);
}

void MergeRun::merge(std::span<FoundGroup> groups) {
  put_gainful_first(groups);
  MergeProgress merging;
  merging.freed_bytes = freed_bytes_;
  plan_merge(groups, merging);
  MergeText text(limit_.elapsed(), merging);
  const auto progress =
      show_progress(shows_progress_, [&] { return text.describe(limit_.elapsed()); });
  merge_all(groups, volumes_, log_, merging);
  freed_bytes_ = merging.freed_bytes;
}

// A signal or the end of the time that left nothing undone does not count.
void MergeRun::note_end(Report &report) const {
  const bool is_undone = report.findings.unexamined_groups() > 0 ||
                         (report.applied && count_outcomes(report.findings).not_tried > 0);
  report.stopped |= is_undone && stop_signalled();
  report.out_of_time |= is_undone && limit_.is_over();
}

}  // namespace tool
