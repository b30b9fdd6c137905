// Fault injection into the library's calls. The test executable patches the addresses that
// libvelmarin.so holds of other libraries' functions that can fail, and puts wrappers in their
// place. A wrapper counts its calls and fails when a failure_injector says so; otherwise it passes
// the call on. Calls made by the test or by other libraries are not affected.
//
// A close or closedir that is made to fail still releases its descriptor, as the kernel does; any
// other failed call has no effect. A system call fails with EIO or `failing_errno`, an allocation
// with ENOMEM; bounds-checked and thread functions return an error and leave errno alone.
//
// So that thousands of scans can run, the library's polling sleeps are short, and calls that only
// concern the disk (fsync, posix_fadvise) are counted but not executed.
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
// `every_later_too`, so do all later ones. Only one object may exist at a time.
class failure_injector {
 public:
  failure_injector(library_call call, uint64_t nth, bool every_later_too = false);
  ~failure_injector();
  failure_injector(const failure_injector &) = delete;
  failure_injector &operator=(const failure_injector &) = delete;

  // How many calls of the kind the library has made since construction.
  uint64_t calls() const;
};

// Blocks that the library has allocated and not freed. A test that receives ownership of one frees
// it with `free_library_block`.
inline std::atomic<int64_t> library_blocks = 0;
void free_library_block(void *block);

// How many more threads the library may start; later ones fail with EAGAIN. With a single worker
// the calls of a scan come in the same order each time.
inline std::atomic<int> workers_allowed = 1 << 30;

// The errno of an injected system call failure.
inline std::atomic<int> failing_errno = EIO;

// How long the library's polling sleeps last, in nanoseconds.
inline std::atomic<long> poll_time = 1'000'000;

// How long every time budget of the library lasts, in nanoseconds; 0 leaves it as requested.
inline std::atomic<long> budget_time = 0;

}  // namespace velmarin_test
