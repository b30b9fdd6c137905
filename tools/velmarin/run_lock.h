// One run at a time for each state directory: two would wait for each other's digest file, and
// merge what the other is merging.
#pragma once

#include <string>

namespace tool {

class RunLock {
 public:
  enum class Result { held, busy, failed };

  RunLock() = default;
  ~RunLock();
  RunLock(const RunLock &) = delete;
  RunLock &operator=(const RunLock &) = delete;

  // Takes the lock, without waiting, for as long as the object lives. Says on standard error why it
  // is not held. The file `lock` of the directory stays.
  Result take(const std::string &state);

 private:
  int fd_ = -1;
};

}  // namespace tool
