// Allows one run at a time per state directory. Two would wait for each other's digest file and
// merge the same files.
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace tool {

class RunLock {
 public:
  // Takes the lock without waiting and holds it while the object lives. Returns `DONE`, or `BUSY`
  // or `FAILED` after an error message. The file `lock` stays in the directory.
  int take(const std::string &state);

 private:
  velmarin::unique_fd fd_;
};

}  // namespace tool
