// Exit statuses.
#pragma once

namespace tool {

constexpr int DONE = 0;
constexpr int FAILED = 1;     // something was refused or failed
constexpr int BAD_USAGE = 2;  // nothing was done
constexpr int BUSY = 3;       // nothing was done: another run uses the state directory

}  // namespace tool
