// The time that a command may take.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace tool {

class TimeLimit {
 public:
  using Clock = std::chrono::steady_clock;

  explicit TimeLimit(unsigned seconds) : seconds_(seconds) {}

  std::chrono::milliseconds elapsed() const {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start_);
  }

  bool is_over() const { return seconds_ != 0 && elapsed() >= std::chrono::seconds(seconds_); }

  // When half of the time left will have passed: never without a limit.
  Clock::time_point halfway() const {
    const Clock::time_point now = Clock::now();
    return seconds_ == 0 ? Clock::time_point::max()
                         : now + (start_ + std::chrono::seconds(seconds_) - now) / 2;
  }

  // The time left in whole seconds, at least one; 0 means no limit.
  unsigned seconds_left() const {
    if (seconds_ == 0) {
      return 0;
    }
    const auto spent = std::chrono::duration_cast<std::chrono::seconds>(elapsed()).count();
    return static_cast<unsigned>(std::max<int64_t>(seconds_ - spent, 1));
  }

 private:
  const Clock::time_point start_ = Clock::now();
  const unsigned seconds_;
};

}  // namespace tool
