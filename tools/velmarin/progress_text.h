// The text of the progress line. All times count from the start of the command.
#pragma once

#include "estimate.h"
#include "log_lines.h"
#include "merge.h"

namespace tool {

// For a scan: its phase, what it examined and what it read. Says nothing of the time left, since
// the total is unknown until the end.
class ScanText {
 public:
  explicit ScanText(const LogLines &log);
  std::string describe(std::chrono::milliseconds elapsed);

 private:
  const LogLines &log_;
  uint64_t read_before_;
  Rate rate_;
};

// For merging.
class MergeText {
 public:
  MergeText(std::chrono::milliseconds start, const MergeProgress &merging);
  std::string describe(std::chrono::milliseconds elapsed);

 private:
  const MergeProgress &merging_;
  const std::chrono::milliseconds start_;
  Rate rate_;
  Estimate estimate_;
};

}  // namespace tool
