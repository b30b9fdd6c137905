// How fast work goes, and how long the rest of it will take. Times count from the start of the
// work.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace tool {

// What is done per second lately: the older work is, the less it counts.
class Rate {
 public:
  // Told from time to time: `done` is all that is done by `now`.
  void note(std::chrono::milliseconds now, double done);

  // 0 before the first second is over.
  double per_second() const;

 private:
  std::chrono::milliseconds noted_{};
  double done_ = 0;
  double seconds_ = 0;  // weighted by age, like the next
  double amount_ = 0;
};

// The time left of work on files. A file counts by its bytes and by a share that every file has.
// What is shown moves gently towards what is expected, so no file however large makes it jump.
class Estimate {
 public:
  struct Work {
    uint64_t bytes = 0;
    uint64_t files = 0;
  };

  explicit Estimate(Work all) : all_(cost(all)) {}

  // Told several times a second: what is done, and the bytes of the file in hand.
  void note(std::chrono::milliseconds now, Work done, uint64_t bytes_in_hand);

  // Nothing before there is enough to tell from.
  std::optional<std::chrono::milliseconds> left() const;

 private:
  static double cost(Work work);
  double expected(std::chrono::milliseconds now, double in_hand) const;
  void approach(double expected, double passed);

  double all_;
  double done_ = 0;
  int steps_ = 0;  // how often some work came to be done
  Rate rate_;      // noted at those steps
  std::chrono::milliseconds stepped_{};
  std::chrono::milliseconds noted_{};
  std::optional<double> shown_;  // seconds
};

// A time left as people say it: "35 s", "12 min", "3 h 20 min".
std::string rough_duration(std::chrono::milliseconds duration);

}  // namespace tool
