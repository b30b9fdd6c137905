// The text of the progress line.
#pragma once

#include "estimate.h"
#include "log_lines.h"
#include "merge.h"
#include "time_limit.h"

namespace tool {

// For a scan: its phase, what it examined and what it read. Says nothing of the time left, since
// the total is unknown until the end.
class ScanText {
 public:
  ScanText(const TimeLimit &limit, const LogLines &log);
  std::string describe();

 private:
  const TimeLimit &limit_;
  const LogLines &log_;
  uint64_t read_before_;
  Rate rate_;
};

// For merging, starting when the object is created.
class MergeText {
 public:
  MergeText(const TimeLimit &limit, const MergeProgress &merging);
  std::string describe();

 private:
  const TimeLimit &limit_;
  const MergeProgress &merging_;
  const std::chrono::milliseconds start_;
  Rate rate_;
  Estimate estimate_;
};

}  // namespace tool
