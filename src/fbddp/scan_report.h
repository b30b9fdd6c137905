// The report to the host at the end of a run.
#pragma once

#include "fbddp/scan_context.h"

namespace velmarin {

// Passes the groups, the compressed files and the counters to the host's report callback, if any.
// Runs on the run's own thread after the workers are joined, so it takes no lock.
void report_findings(sis_context *ctx);

}  // namespace velmarin
