// One line on the terminal that shows how far long work is.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace tool {

// Shows what `describe` returns, renewed several times a second, from a thread of its own until the
// object goes; the line is wiped then. `describe` is called by that thread.
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

// Whether standard error is a terminal on which a line can be renewed.
bool can_show_progress();

// Whether standard output is a terminal that shows colours, and its user did not ask for none.
bool can_show_colours();

}  // namespace tool
