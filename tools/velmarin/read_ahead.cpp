#include "read_ahead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <system_error>

#include "stop_signal.h"

namespace tool {
namespace {

constexpr size_t FILES_AHEAD = 4;
constexpr off_t MAX_BYTES = 16 << 20;         // of each file; the sharing request reads the rest
constexpr off_t READ_AHEAD_STEP = 128 << 10;  // the kernel cuts a longer one short

void fetch(const std::string &path) {
  const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    return;
  }
  struct stat status = {};
  if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode)) {
    const off_t end = std::min(status.st_size, MAX_BYTES);
    for (off_t offset = 0; offset < end; offset += READ_AHEAD_STEP) {
      posix_fadvise(fd, offset, READ_AHEAD_STEP, POSIX_FADV_WILLNEED);
    }
  }
  close(fd);
}

}  // namespace

ReadAhead::ReadAhead(std::vector<const FoundFile *> files) : files_(std::move(files)) {
  if (files_.empty()) {
    return;
  }
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

void ReadAhead::reach(const FoundFile &file) {
  {
    const std::lock_guard guard(lock_);
    const auto found =
        std::find(files_.begin() + static_cast<ptrdiff_t>(reached_), files_.end(), &file);
    if (found == files_.end()) {
      return;
    }
    reached_ = static_cast<size_t>(found - files_.begin());
    fetched_ = std::max(fetched_, reached_ + 1);  // the sharing request reads this one itself
  }
  wake_.notify_one();
}

// Waits until the next file is close to its turn. Returns null when none is left.
const FoundFile *ReadAhead::next_file() {
  std::unique_lock guard(lock_);
  wake_.wait(guard, [this] { return finished_ || fetched_ <= reached_ + FILES_AHEAD; });
  return finished_ || fetched_ >= files_.size() ? nullptr : files_[fetched_++];
}

void ReadAhead::run() {
  while (const FoundFile *file = next_file()) {
    fetch(file->path);
  }
}

}  // namespace tool
