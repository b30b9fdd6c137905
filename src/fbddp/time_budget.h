// The time budget of a run: a one-shot timer whose SIGALRM clears the run's `in_time`.
#pragma once

#include "fbddp/scan_context.h"

namespace velmarin {

// Arms a budget of `seconds` (above 0). A failure is logged and leaves the run without a budget.
// Leaves SIGALRM unblocked in the calling thread, or blocked if arming fails after blocking it.
void arm_time_budget(sis_context *ctx, unsigned seconds);

// Releases the budget, if one is armed. No signal touches `ctx` after that.
void release_time_budget(sis_context *ctx);

}  // namespace velmarin
