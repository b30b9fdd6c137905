// The way from findings to their outcome: the files are looked at as they are now, and merged if
// that was asked for.
#pragma once

#include "log_lines.h"
#include "report.h"
#include "time_limit.h"
#include "volume.h"

namespace tool {

class MergeRun {
 public:
  // What is referred to outlives the object.
  MergeRun(const TimeLimit &limit, LogLines &log, bool shows_progress)
      : limit_(limit), log_(log), shows_progress_(shows_progress) {}

  // Surveys the findings of the report and, if it is `applied`, merges them; of an earlier scan's
  // findings it tells at least which can no longer be merged. Fills in why merging ended early.
  void run(Report &report);

 private:
  void merge(Report &report);

  const TimeLimit &limit_;
  LogLines &log_;
  const bool shows_progress_;
  Volumes volumes_;
};

}  // namespace tool
