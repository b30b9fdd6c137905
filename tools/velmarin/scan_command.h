// The command `scan`.
#pragma once

#include "options.h"

namespace tool {

// Scans, merges on request and prints the results. Returns the exit status.
int run_scan(const ScanOptions &options);

}  // namespace tool
