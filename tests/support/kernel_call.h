// Intercepts one kernel call. The test executable defines the functions that the platform layer
// calls; in the thread that holds a kernel_call, one such call fails, or something happens just
// before it.
#pragma once

#include <functional>
#include <string>
#include <utility>

namespace velmarin_test {

// An ioctl request goes by its own name, such as "FICLONE".
class kernel_call {
 public:
  // The n-th call, counted from 1, fails with EIO or, if `before` is given, runs that first; 0
  // means every call.
  explicit kernel_call(std::string name, unsigned nth, std::function<void()> before = {})
      : name_(std::move(name)), nth_(nth), before_(std::move(before)) {
    current = this;
  }
  ~kernel_call() { current = nullptr; }
  kernel_call(const kernel_call &) = delete;
  kernel_call &operator=(const kernel_call &) = delete;

  bool has_come() const { return calls_ > 0 && calls_ >= nth_; }

  // For the intercepting functions only: whether the call must fail.
  static bool fails(const char *name);

 private:
  static inline thread_local kernel_call *current = nullptr;

  std::string name_;
  unsigned nth_;
  std::function<void()> before_;
  unsigned calls_ = 0;
};

inline constexpr const char *KERNEL_CALLS[] = {
    "fgetxattr", "fsetxattr", "fremovexattr", "statx",    "fstatfs",      "open",
    "readlink",  "pread",     "pwrite",       "lseek",    "ftruncate",    "fstat",
    "FICLONE",   "getrandom", "GETFLAGS",     "SETFLAGS", "FIDEDUPERANGE"};

}  // namespace velmarin_test
