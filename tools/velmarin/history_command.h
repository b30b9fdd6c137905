// The command `history`.
#pragma once

#include "options.h"

namespace tool {

// Prints what the recorded runs freed. Returns false if the record cannot be read.
bool run_history(const HistoryOptions &options);

}  // namespace tool
