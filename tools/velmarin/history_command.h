// The command `history`.
#pragma once

#include "options.h"

namespace tool {

// Prints what the runs on record freed. Returns false when the record cannot be read.
bool run_history(const HistoryOptions &options);

}  // namespace tool
