// `velmarin apply`: merges the groups of a report that a scan printed before.
#pragma once

#include "options.h"

namespace tool {

// Returns whether nothing was refused and nothing failed; standard error says otherwise what did.
bool run_apply(const ApplyOptions &options);

}  // namespace tool
