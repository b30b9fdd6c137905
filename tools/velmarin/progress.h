// Shows the progress of long work in one line on the terminal.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace tool {

// Shows what `describe` returns, refreshed several times a second, until the object is destroyed
// and the line cleared. A separate thread does this and calls `describe`.
class Progress {
 public:
  explicit Progress(std::function<std::string()> describe);
  ~Progress();
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

 private:
  void run();

  const std::function<std::string()> describe_;
  std::mutex lock_;
  std::condition_variable wake_;
  bool finished_ = false;  // guarded by `lock_`
  std::thread thread_;
};

// As above; null if not wanted or if standard error is not a terminal.
std::unique_ptr<Progress> show_progress(bool is_wanted, std::function<std::string()> describe);

// Whether standard output is a terminal that shows colours, and the user did not turn them off.
bool can_show_colours();

}  // namespace tool
