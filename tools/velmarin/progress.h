// One line on the terminal that shows how far long work is.
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
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

// As above, or null where it is not wanted or standard error is no terminal.
std::unique_ptr<Progress> show_progress(bool is_wanted, std::function<std::string()> describe);

// Whether standard output is a terminal that shows colours, and its user did not ask for none.
bool can_show_colours();

}  // namespace tool
