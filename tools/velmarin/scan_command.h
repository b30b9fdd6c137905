// The command `scan`.
#pragma once

#include "options.h"

namespace tool {

// Scans, merges when asked to, and prints what came of it. Returns the exit status.
int run_scan(const ScanOptions &options);

}  // namespace tool
