// `velmarin apply`: merges the groups of an earlier scan's report.
#pragma once

#include "options.h"

namespace tool {

// Merges, unless it is a dry run, and prints the results. Returns the exit status.
int run_apply(const ApplyOptions &options);

}  // namespace tool
