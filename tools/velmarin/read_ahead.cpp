#include "read_ahead.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <system_error>

#include "common/unique_fd.h"
#include "stop_signal.h"

namespace tool {
namespace {

constexpr size_t FILES_AHEAD = 4;
constexpr off_t MAX_BYTES = 16 << 20;         // of each file; the sharing request reads the rest
constexpr off_t READ_AHEAD_STEP = 128 << 10;  // the kernel cuts a longer one short

void fetch(const std::string &path) {
  const velmarin::unique_fd fd(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  struct stat status = {};
  if (fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode)) {
    const off_t end = std::min(status.st_size, MAX_BYTES);
    for (off_t offset = 0; offset < end; offset += READ_AHEAD_STEP) {
      posix_fadvise(fd.get(), offset, READ_AHEAD_STEP, POSIX_FADV_WILLNEED);
    }
  }
}

}  // namespace

ReadAhead::ReadAhead(std::vector<const FoundFile *> files)
    : files_(std::move(files)), is_taken_(files_.size()) {
  const StopSignalsBlocked blocked;  // a signal stops merging, and merging stops this
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::system_error &) {
    // Without it merging is only slower.
  }
}

ReadAhead::~ReadAhead() {
  {
    const std::lock_guard guard(lock_);
    finished_ = true;
  }
  wake_.notify_one();
  if (thread_.joinable()) {
    thread_.join();
  }
}

void ReadAhead::reach(size_t merging_thread, const FoundFile &file) {
  {
    const std::lock_guard guard(lock_);
    Lane &lane = lanes_[merging_thread];
    const auto found =
        std::find(files_.begin() + static_cast<ptrdiff_t>(lane.reached), files_.end(), &file);
    if (found == files_.end()) {
      return;
    }
    lane.reached = static_cast<size_t>(found - files_.begin());
    lane.next = std::max(lane.next, lane.reached + 1);
    is_taken_[lane.reached] = true;  // the sharing request reads this one itself
  }
  wake_.notify_one();
}

// Returns null when no file is close to its turn. Call with `lock_` held.
const FoundFile *ReadAhead::take_next() {
  for (Lane &lane : lanes_) {
    const size_t end = std::min(lane.reached + FILES_AHEAD + 1, files_.size());
    while (lane.next < end) {
      const size_t index = lane.next++;
      if (!is_taken_[index]) {
        is_taken_[index] = true;
        return files_[index];
      }
    }
  }
  return nullptr;
}

// Waits until a file is close to its turn. Returns null at the end.
const FoundFile *ReadAhead::next_file() {
  std::unique_lock guard(lock_);
  const FoundFile *file = nullptr;
  wake_.wait(guard, [this, &file] { return finished_ || (file = take_next()) != nullptr; });
  return finished_ ? nullptr : file;
}

void ReadAhead::run() {
  while (const FoundFile *file = next_file()) {
    fetch(file->path);
  }
}

}  // namespace tool
