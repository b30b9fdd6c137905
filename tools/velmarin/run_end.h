// Reports how a scan or a merging run ended: what it left undone, in words and as an exit status.
#pragma once

#include "log_lines.h"
#include "report.h"

namespace tool {

// Returns `DONE`, even if a time budget left work for the next run; or `PARTIAL`, after saying on
// standard error what is incomplete. `omissions_are_listed`: `print_omissions` has listed them.
int explain_end(const Report &report, const LogLines &log, bool is_quiet,
                bool omissions_are_listed);

}  // namespace tool
