// Measures the rate of work and estimates the time left. Times count from the start of the work.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// Recent work per second: the older the work, the less it weighs.
class Rate {
 public:
  // Call from time to time; `done` is the total by `now`.
  void note(std::chrono::milliseconds now, double done);

  // 0 during the first second.
  double per_second() const;

 private:
  std::chrono::milliseconds noted_{};
  double done_ = 0;
  double seconds_ = 0;  // weighted by age, as is `amount_`
  double amount_ = 0;
};

// The time left for work on files. A file costs its bytes plus a fixed amount. The time shown moves
// gradually towards the expected time, so that even a huge file does not make it jump.
class Estimate {
 public:
  struct Work {
    uint64_t bytes = 0;
    uint64_t files = 0;
  };

  explicit Estimate(Work all) : all_(cost(all)) {}

  // Call several times a second with what is done and the bytes of the files in hand.
  void note(std::chrono::milliseconds now, Work done, uint64_t bytes_in_hand);

  // Empty until there is enough to estimate from.
  std::optional<std::chrono::milliseconds> left() const;

 private:
  static double cost(Work work);
  double expected(std::chrono::milliseconds now, double current_cost) const;
  void approach(double expected, double passed);

  double all_;
  double done_ = 0;
  int steps_ = 0;  // how often `done_` has grown
  Rate rate_;      // updated at those steps
  std::chrono::milliseconds stepped_{};
  std::chrono::milliseconds noted_{};
  std::optional<double> shown_;  // seconds
};

// The time left, rounded for people: "35 s", "12 min", "3 h 20 min".
std::string rough_duration(std::chrono::milliseconds duration);

}  // namespace tool
