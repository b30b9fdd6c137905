// Exit statuses.
#pragma once

namespace tool {

constexpr int DONE = 0;
constexpr int FAILED = 1;     // the command could not do its work
constexpr int BAD_USAGE = 2;  // nothing was done
constexpr int BUSY = 3;       // nothing was done: another run uses the state directory
constexpr int PARTIAL = 4;    // stopped by a signal, or single files were left out

}  // namespace tool
