#include "support/kernel_call.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

namespace velmarin_test {

bool kernel_call::fails(const char *name) {
  kernel_call *self = current;
  if (self == nullptr || self->name_ != name) {
    return false;
  }
  self->calls_++;
  if (self->nth_ != 0 && self->calls_ != self->nth_) {
    return false;
  }
  if (self->before_) {
    current = nullptr;  // what it does is not counted
    self->before_();
    current = self;
    return false;
  }
  errno = EIO;
  return true;
}

}  // namespace velmarin_test

using velmarin_test::kernel_call;

#define INTERCEPT(result, name, parameters, arguments, ...)                                   \
  extern "C" result name parameters __VA_ARGS__ {                                             \
    static const auto next = reinterpret_cast<result(*) parameters>(dlsym(RTLD_NEXT, #name)); \
    return kernel_call::fails(#name) ? -1 : next arguments;                                   \
  }

INTERCEPT(ssize_t, fgetxattr, (int fd, const char *name, void *value, size_t size),
          (fd, name, value, size), noexcept)
INTERCEPT(int, fsetxattr, (int fd, const char *name, const void *value, size_t size, int flags),
          (fd, name, value, size, flags), noexcept)
INTERCEPT(int, fremovexattr, (int fd, const char *name), (fd, name), noexcept)
INTERCEPT(int, statx, (int fd, const char *path, int flags, unsigned mask, struct statx *status),
          (fd, path, flags, mask, status), noexcept)
INTERCEPT(int, fstat, (int fd, struct stat *status), (fd, status), noexcept)
INTERCEPT(int, fstatfs, (int fd, struct statfs *status), (fd, status), noexcept)
INTERCEPT(ssize_t, readlink, (const char *path, char *buffer, size_t size), (path, buffer, size),
          noexcept)
INTERCEPT(off_t, lseek, (int fd, off_t offset, int from), (fd, offset, from), noexcept)
INTERCEPT(int, ftruncate, (int fd, off_t length), (fd, length), noexcept)
INTERCEPT(ssize_t, pread, (int fd, void *buffer, size_t size, off_t offset),
          (fd, buffer, size, offset))
INTERCEPT(ssize_t, pwrite, (int fd, const void *buffer, size_t size, off_t offset),
          (fd, buffer, size, offset))
INTERCEPT(ssize_t, getrandom, (void *buffer, size_t size, unsigned flags), (buffer, size, flags))

extern "C" int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = va_arg(arguments, mode_t);
  va_end(arguments);
  return kernel_call::fails("open") ? -1 : openat(AT_FDCWD, path, flags, mode);
}

extern "C" long syscall(long number, ...) noexcept {
  va_list arguments;
  va_start(arguments, number);
  long words[6];
  for (long &word : words) {
    word = va_arg(arguments, long);
  }
  va_end(arguments);
  const auto request = static_cast<unsigned long>(words[1]);
  const char *name = number != SYS_ioctl          ? ""
                     : request == FICLONE         ? "FICLONE"
                     : request == FIDEDUPERANGE   ? "FIDEDUPERANGE"
                     : request == FS_IOC_GETFLAGS ? "GETFLAGS"
                     : request == FS_IOC_SETFLAGS ? "SETFLAGS"
                                                  : "";
  static const auto next = reinterpret_cast<decltype(&syscall)>(dlsym(RTLD_NEXT, "syscall"));
  return kernel_call::fails(name)
             ? -1
             : next(number, words[0], words[1], words[2], words[3], words[4], words[5]);
}
