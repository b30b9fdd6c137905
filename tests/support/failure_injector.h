// Calls of the library under a test's command. Where libvelmarin.so keeps the addresses of the
// functions of other libraries that can fail, the test executable puts stand-ins of its own. A
// stand-in counts its calls and, while a failure_injector says so, fails; otherwise it passes the
// call on. The calls of the test and of other libraries do not come here.
//
// A close or closedir that is made to fail releases its descriptor all the same, as the kernel does
// it; any other call that fails has no effect. A system call fails with EIO or as told, an
// allocation with ENOMEM; the bounds-checked functions and those of threads answer an error and
// leave errno alone.
//
// So that thousands of scans can be run, the library's polling sleeps are short, and what it asks
// for only on behalf of the disk (fsync, posix_fadvise) is counted but not carried out.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace velmarin_test {

// clang-format off
#define VELMARIN_PLAIN_SYSTEM_CALLS(X) \
  X(access) X(close) X(fstat) X(lstat) X(realpath) X(read) X(write) X(lseek) X(remove) X(flock) \
  X(fdopendir) X(readdir) X(closedir) X(timer_create) X(sigaction) X(sigprocmask)
#define VELMARIN_LIBRARY_CALLS(X) \
  VELMARIN_PLAIN_SYSTEM_CALLS(X) X(open) X(ioctl) X(fsync) X(posix_fadvise) X(timer_settime) \
  X(malloc) X(calloc) X(pthread_create) X(pthread_mutex_init) X(pthread_cond_init) \
  X(pthread_spin_init) X(memset_s) X(memcpy_s) X(strcpy_s) X(snprintf_s)

#define VELMARIN_ENUMERATOR(name) name,
#define VELMARIN_NAME(name) #name,
enum class library_call : unsigned { VELMARIN_LIBRARY_CALLS(VELMARIN_ENUMERATOR) end };
inline constexpr const char *LIBRARY_CALL_NAMES[] = {VELMARIN_LIBRARY_CALLS(VELMARIN_NAME)};
#undef VELMARIN_ENUMERATOR
#undef VELMARIN_NAME
// clang-format on

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

// Blocks that the library has allocated and not freed. A test that comes to own one frees it with
// `free_library_block`.
inline std::atomic<int64_t> library_blocks = 0;
void free_library_block(void *block);

// So many more threads of the library are started; those after them fail with EAGAIN. With a single
// worker the calls of a scan come in the same order each time.
inline std::atomic<int> workers_allowed = 1 << 30;

// The errno of a system call that fails.
inline std::atomic<int> failing_errno = EIO;

// How long the library's polling sleeps last, in nanoseconds.
inline std::atomic<long> poll_time = 1'000'000;

// What every budget that the library arms lasts, in nanoseconds; 0 for what it asks for.
inline std::atomic<long> budget_time = 0;

}  // namespace velmarin_test
