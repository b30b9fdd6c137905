// `velmarin apply`: merges the groups of an earlier scan's report.
#pragma once

#include "options.h"

namespace tool {

// Returns false if anything was refused or failed, after saying so on standard error.
bool run_apply(const ApplyOptions &options);

}  // namespace tool
