// Examines the files of a report as they are now, and merges them on request.
#pragma once

#include <atomic>
#include <span>

#include "log_lines.h"
#include "report.h"
#include "time_limit.h"
#include "volume.h"

namespace tool {

class MergeRun {
 public:
  // The references must outlive the object.
  MergeRun(const TimeLimit &limit, LogLines &log, bool shows_progress)
      : limit_(limit), log_(log), shows_progress_(shows_progress) {}

  // Surveys the report's findings and merges them if it is `applied`, those that free the most
  // first; with a time limit, merges some before it has surveyed all. Otherwise marks those of an
  // earlier scan that can no longer be merged. Notes whether this ended early, and why.
  void run(Report &report);

 private:
  size_t examine(std::span<FoundGroup> groups, bool before_merging,
                 TimeLimit::Clock::time_point end);
  void examine_and_merge(std::span<FoundGroup> groups);
  void merge(std::span<FoundGroup> groups);
  void note_end(Report &report) const;

  const TimeLimit &limit_;
  LogLines &log_;
  const bool shows_progress_;
  Volumes volumes_;
  std::atomic<uint64_t> examined_ = 0;  // groups
  uint64_t freed_bytes_ = 0;
};

}  // namespace tool
