// What the progress line says.
#pragma once

#include "estimate.h"
#include "log_lines.h"
#include "merge.h"
#include "time_limit.h"

namespace tool {

// Of a scan: its phase, what it looked at and what it read. How much there is to do is not known
// before it is done, so nothing is said of the time left.
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

// Of merging, from the making of the object on.
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
