// Allows one run at a time per state directory. Two would wait for each other's digest file and
// merge the same files.
#pragma once

#include <string>

namespace tool {

class RunLock {
 public:
  RunLock() = default;
  ~RunLock();
  RunLock(const RunLock &) = delete;
  RunLock &operator=(const RunLock &) = delete;

  // Takes the lock without waiting and holds it while the object lives. Returns `DONE`, or `BUSY`
  // or `FAILED` after an error message. The file `lock` stays in the directory.
  int take(const std::string &state);

 private:
  int fd_ = -1;
};

}  // namespace tool
