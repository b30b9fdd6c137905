#include "estimate.h"

#include <algorithm>
#include <cmath>

namespace tool {
namespace {

using Seconds = std::chrono::duration<double>;
using std::chrono::milliseconds;

constexpr double DECAY_SECONDS = 20;  // work this old counts for about a third
constexpr double RATE_AFTER_SECONDS = 1;

// The overhead of a file, as the amount of data compared in that time: merging small and large
// files with a cold page cache differs by 0.3 to 0.5 ms a file, at 1.2 to 1.4 GB/s.
constexpr double BYTES_PER_FILE = 512 << 10;

constexpr milliseconds SHOWN_AFTER(3000);
constexpr int ENOUGH_STEPS = 10;
constexpr double ENOUGH_FRACTION = 0.1;    // of the work
constexpr double CHANGE_PER_SECOND = 0.2;  // at most, apart from the time that passes
constexpr double MIN_SECONDS = 1;

double seconds_of(milliseconds time) {
  return Seconds(time).count();
}

}  // namespace

void Rate::note(milliseconds now, double done) {
  const double passed = seconds_of(now - noted_);
  const double kept = std::exp(-passed / DECAY_SECONDS);
  seconds_ = seconds_ * kept + passed;
  amount_ = amount_ * kept + done - done_;
  noted_ = now;
  done_ = done;
}

double Rate::per_second() const {
  return seconds_of(noted_) >= RATE_AFTER_SECONDS ? amount_ / seconds_ : 0;
}

double Estimate::cost(Work work) {
  return static_cast<double>(work.bytes) + BYTES_PER_FILE * static_cast<double>(work.files);
}

void Estimate::note(milliseconds now, Work done, uint64_t bytes_in_hand) {
  if (const double reached = cost(done); reached > done_) {
    done_ = reached;
    stepped_ = now;
    rate_.note(now, done_);
    ++steps_;
  }
  const double passed = seconds_of(now - noted_);
  noted_ = now;
  if (now >= SHOWN_AFTER && rate_.per_second() > 0 &&
      (steps_ >= ENOUGH_STEPS || done_ >= all_ * ENOUGH_FRACTION)) {
    approach(expected(now, cost({bytes_in_hand, 1})), passed);
  }
}

// Assumes that the files in hand proceed at the rate of those before. Once they are overdue at that
// rate, the wait for them lowers the rate.
double Estimate::expected(milliseconds now, double current_cost) const {
  const double waited = seconds_of(now - stepped_);
  const double rate = rate_.per_second();
  if (rate * waited <= current_cost) {
    return (all_ - done_) / rate - waited;
  }
  Rate slower = rate_;
  slower.note(now, done_ + current_cost);
  return (all_ - done_ - current_cost) / slower.per_second();
}

void Estimate::approach(double expected, double passed) {
  if (!shown_) {
    shown_ = expected;
    return;
  }
  const double now = std::max(*shown_ - passed, MIN_SECONDS);
  const double most = std::exp(CHANGE_PER_SECOND * passed);
  shown_ = std::clamp(expected, now / most, now * most);
}

std::optional<milliseconds> Estimate::left() const {
  if (!shown_) {
    return std::nullopt;
  }
  return std::chrono::duration_cast<milliseconds>(Seconds(*shown_));
}

std::string rough_duration(milliseconds duration) {
  const auto seconds = (duration.count() + 999) / 1000;
  if (seconds <= 55) {
    return std::to_string((seconds + 4) / 5 * 5) + " s";
  }
  const auto minutes = (seconds + 59) / 60;
  if (minutes < 60) {
    return std::to_string(minutes) + " min";
  }
  const auto tens = (minutes + 9) / 10;  // of minutes
  return std::to_string(tens / 6) + " h " + (tens % 6 == 0 ? "00" : std::to_string(tens % 6 * 10)) +
         " min";
}

}  // namespace tool
