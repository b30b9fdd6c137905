#include "merge_run.h"

#include "merge.h"
#include "progress.h"
#include "size_text.h"
#include "stop_signal.h"
#include "survey.h"

namespace tool {
namespace {

std::string merge_progress(const MergeProgress &merging, std::chrono::milliseconds elapsed,
                           std::chrono::milliseconds spent) {
  std::string text = format_duration(elapsed) + "  merging  " + std::to_string(merging.files_done) +
                     " of " + format_count(merging.files_to_do, "file") + ", " +
                     format_size(merging.freed_bytes) + " freed";
  const uint64_t done = merging.bytes_done;
  if (done > 0 && merging.bytes_to_do >= done) {
    const double rest = static_cast<double>(merging.bytes_to_do - done) / static_cast<double>(done);
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(spent * rest);
    text += ", about " + format_duration(left) + " left";
  }
  return text;
}

}  // namespace

void MergeRun::run(Report &report) {
  {
    const auto progress = show_progress(shows_progress_, [this] {
      return format_duration(limit_.elapsed()) + "  looking at the files found";
    });
    survey(report.findings, volumes_, report.applied);
  }
  if (report.applied) {
    merge(report);
  }
}

void MergeRun::merge(Report &report) {
  MergeProgress merging;
  plan_merge(report.findings, merging);
  const auto start = limit_.elapsed();
  const auto progress = show_progress(shows_progress_, [&] {
    const auto elapsed = limit_.elapsed();
    return merge_progress(merging, elapsed, elapsed - start);
  });
  merge_all(report.findings, volumes_, log_, merging);
  report.stopped = stop_signalled();
  report.out_of_time =
      report.out_of_time || (limit_.is_over() && count_outcomes(report.findings).not_tried > 0);
}

}  // namespace tool
