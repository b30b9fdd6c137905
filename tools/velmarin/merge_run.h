// Examines the files of a report as they are now, and merges them on request.
#pragma once

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

  // Surveys the report's findings and merges them if it is `applied`. Otherwise marks those of an
  // earlier scan that can no longer be merged. Notes whether this ended early, and why.
  void run(Report &report);

 private:
  void merge(Findings &findings);
  void note_end(Report &report) const;

  const TimeLimit &limit_;
  LogLines &log_;
  const bool shows_progress_;
  Volumes volumes_;
};

}  // namespace tool
