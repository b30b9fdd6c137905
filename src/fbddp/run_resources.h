// What a run allocates and initialises before its workers start, and releases at its end.
#pragma once

#include "fbddp/scan_context.h"

namespace velmarin {

// Creates the lists, locks and arrays of the run. On failure, releases everything made so far and
// the time budget, and returns false.
bool set_up_run(sis_context *ctx);

// Releases the dentries, the locks, the time budget and the arrays. Call it after the workers are
// joined.
void tear_down_run(sis_context *ctx);

}  // namespace velmarin
