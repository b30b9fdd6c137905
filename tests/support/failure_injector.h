// Calls of the library under a test's command. The test executable has functions of its own for
// everything that the library calls and that can fail; every call in the process reaches them
// first. A call that comes from the code of libvelmarin.so is counted and, while a failure_injector
// says so, fails. All other calls, those of the test and of other libraries, pass untouched.
//
// A close or closedir that is made to fail releases its descriptor all the same, as the kernel does
// it; any other call that fails has no effect.
//
// So that thousands of scans can be run, the library's polling sleeps are short, and what it asks
// for only on behalf of the disk (fsync, posix_fadvise) is counted but not carried out.
#pragma once

#include <cstddef>
#include <cstdint>

namespace velmarin_test {

// clang-format off
#define VELMARIN_LIBRARY_CALLS(X) \
  X(malloc) X(calloc) X(access) X(open) X(close) X(fstat) X(lstat) X(realpath) X(read) X(write) \
  X(lseek) X(fsync) X(remove) X(flock) X(posix_fadvise) X(fdopendir) X(readdir) X(closedir) \
  X(ioctl) X(pthread_create) X(pthread_mutex_init) X(pthread_cond_init) X(pthread_spin_init) \
  X(timer_create) X(timer_settime) X(sigaction) X(sigprocmask) X(memset_s) X(memcpy_s) \
  X(strcpy_s) X(snprintf_s)

enum class library_call : unsigned {
  none,
#define VELMARIN_ENUMERATOR(name) name,
  VELMARIN_LIBRARY_CALLS(VELMARIN_ENUMERATOR)
#undef VELMARIN_ENUMERATOR
  end
};
// clang-format on

const char *name_of(library_call call);

// The errno of a failed system call. Allocations fail with ENOMEM; the bounds-checked functions
// leave errno alone.
inline constexpr int INJECTED_ERROR = 5;  // EIO

// While it lives, the n-th call of one kind fails, counted from 1 over all threads; with
// `every_later_too` all that follow as well. There is one object at a time.
class failure_injector {
 public:
  failure_injector(library_call call, uint64_t nth, bool every_later_too = false);
  ~failure_injector();
  failure_injector(const failure_injector &) = delete;
  failure_injector &operator=(const failure_injector &) = delete;

  // How many calls of the kind the library has made since.
  uint64_t calls() const;
};

// The blocks that the library has allocated and nobody has freed.
size_t blocks_of_library();

// The library's next `count` threads are started; those after them fail with EAGAIN. With a single
// worker the calls of a scan come in the same order each time.
void allow_workers(unsigned count);

// How long the library's polling sleeps last (1 ms unless set).
void set_poll_time(long nanoseconds);

// What every budget that the library arms from now on lasts; 0 for what it asks for.
void set_budget_time(long nanoseconds);

}  // namespace velmarin_test
