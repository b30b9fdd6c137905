// The probes that a scan calls for each file: the library's own, with a count kept on the way.
#pragma once

#include <atomic>
#include <cstdint>

#include "velmarin/scan.h"

namespace tool {

// Written by the scan's threads. Process-wide, since a probe is given no data of its caller.
struct ProbeCounts {
  std::atomic<uint64_t> entries = 0;      // directories and files seen
  std::atomic<uint64_t> digests = 0;      // files taken up to be read for a digest
  std::atomic<uint64_t> unsupported = 0;  // files left out: their file system cannot deduplicate
  std::atomic<uint64_t> unknown = 0;      // files left out: their state could not be asked
};
extern ProbeCounts probe_counts;

// The callback table of a scan that reports to `report`.
velmarin::sis_ops counted_probes(velmarin::sis_report_callback report);

}  // namespace tool
