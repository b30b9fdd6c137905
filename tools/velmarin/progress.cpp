#include "progress.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "stop_signal.h"

namespace tool {
namespace {

constexpr std::chrono::milliseconds REFRESH_INTERVAL(200);
constexpr const char *CLEAR_LINE = "\r\x1b[K";

size_t terminal_width() {
  struct winsize size = {};
  ioctl(STDERR_FILENO, TIOCGWINSZ, &size);
  return size.ws_col != 0 ? size.ws_col : 80;
}

// Some terminals wrap after a line that fills the last column.
void show(std::string line) {
  line.resize(std::min(line.size(), terminal_width() - 1));
  std::fprintf(stderr, "%s%s", CLEAR_LINE, line.c_str());
}

bool is_terminal(int fd) {
  const char *const kind = std::getenv("TERM");
  return isatty(fd) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
}

}  // namespace

Progress::Progress(std::function<std::string()> describe) : describe_(std::move(describe)) {
  const StopSignalsBlocked blocked;  // the stop handle is for other threads
  thread_ = std::thread([this] { run(); });
}

Progress::~Progress() {
  {
    const std::lock_guard guard(lock_);
    finished_ = true;
  }
  wake_.notify_one();
  thread_.join();
  show("");
}

void Progress::run() {
  std::unique_lock guard(lock_);
  do {
    show(describe_());
    wake_.wait_for(guard, REFRESH_INTERVAL, [this] { return finished_; });
  } while (!finished_);
}

std::unique_ptr<Progress> show_progress(bool is_wanted, std::function<std::string()> describe) {
  return is_wanted && is_terminal(STDERR_FILENO) ? std::make_unique<Progress>(std::move(describe))
                                                 : nullptr;
}

bool can_show_colours() {
  const char *const refusal = std::getenv("NO_COLOR");
  return is_terminal(STDOUT_FILENO) && (refusal == nullptr || *refusal == '\0');
}

}  // namespace tool
