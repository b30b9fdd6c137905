// A descriptor that is closed when it goes out of scope. Closing keeps errno, so that a failure can
// be returned after the guard has run.
#pragma once

#include <unistd.h>

#include <cerrno>

namespace velmarin {

class unique_fd {
 public:
  unique_fd() = default;
  explicit unique_fd(int fd) : fd_(fd) {}
  unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
  unique_fd &operator=(unique_fd &&other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }
  unique_fd(const unique_fd &) = delete;
  unique_fd &operator=(const unique_fd &) = delete;
  ~unique_fd() { reset(); }

  int get() const { return fd_; }
  bool is_open() const { return fd_ >= 0; }

  // Hands the descriptor to the caller, who closes it.
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }

  void reset(int fd = -1) {
    if (fd_ >= 0) {
      const int saved_errno = errno;
      close(fd_);
      errno = saved_errno;
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

}  // namespace velmarin
