// What a run allocates and initialises before its workers start, and releases at its end.
#pragma once

#include "fbddp/scan_context.h"

namespace velmarin {

// Makes the lists, locks and arrays of the run. Returns whether that worked; on failure everything
// made so far has been released again, the time budget included.
bool set_up_run(sis_context *ctx);

// Releases the dentries, the locks, the time budget and the arrays. The workers are joined.
void tear_down_run(sis_context *ctx);

}  // namespace velmarin
