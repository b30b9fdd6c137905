#include "support/failure_injector.h"

#include <bounds_checked.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

// The allocator below the functions here: the C library's, or that of a sanitizer, which has a name
// of its own for whoever replaces malloc.
extern "C" {
void *__libc_malloc(size_t size);
void *__libc_calloc(size_t count, size_t size);
void *__libc_realloc(void *block, size_t size);
void __libc_free(void *block);
[[gnu::weak]] void *__interceptor_malloc(size_t size);
[[gnu::weak]] void *__interceptor_calloc(size_t count, size_t size);
[[gnu::weak]] void *__interceptor_realloc(void *block, size_t size);
[[gnu::weak]] void __interceptor_free(void *block);
}

namespace velmarin_test {
namespace {

constexpr const char *NAMES[] = {
#define VELMARIN_NAME(name) , #name
    "none" VELMARIN_LIBRARY_CALLS(VELMARIN_NAME)
#undef VELMARIN_NAME
};
static_assert(std::size(NAMES) == static_cast<size_t>(library_call::end));

// Everything that the functions below touch is atomic in relaxed order, so that they order nothing
// between the library's threads that was not ordered before.
constexpr auto RELAXED = std::memory_order_relaxed;
std::atomic<uintptr_t> code_begin = 0;  // of the library
std::atomic<uintptr_t> code_end = 0;
std::atomic<library_call> failing = library_call::none;
std::atomic<uint64_t> failing_from = 0;
std::atomic<uint64_t> failing_to = 0;
std::atomic<uint64_t> call_count = 0;
std::atomic<unsigned> workers_allowed = 1U << 30;
std::atomic<long> poll_time = 1'000'000;
std::atomic<long> budget_time = 0;

int find_code(dl_phdr_info *object, size_t, void *) {
  if (strstr(object->dlpi_name, "/libvelmarin.so") == nullptr) {
    return 0;
  }
  for (int i = 0; i < object->dlpi_phnum; i++) {
    const auto &segment = object->dlpi_phdr[i];
    if (segment.p_type == PT_LOAD && (segment.p_flags & PF_X) != 0) {
      code_begin.store(object->dlpi_addr + segment.p_vaddr, RELAXED);
      code_end.store(object->dlpi_addr + segment.p_vaddr + segment.p_memsz, RELAXED);
    }
  }
  return 1;
}

[[gnu::constructor]] void find_library() {
  dl_iterate_phdr(find_code, nullptr);
  if (code_end.load(RELAXED) == 0) {
    fputs("this program does not use libvelmarin.so\n", stderr);
    abort();
  }
}

bool is_in_library(const void *address) {
  const auto position = reinterpret_cast<uintptr_t>(address);
  return position >= code_begin.load(RELAXED) && position < code_end.load(RELAXED);
}

bool must_fail(library_call call, const void *caller) {
  if (failing.load(RELAXED) != call || !is_in_library(caller)) {
    return false;
  }
  const uint64_t number = call_count.fetch_add(1, RELAXED) + 1;
  return number >= failing_from.load(RELAXED) && number <= failing_to.load(RELAXED);
}

template <typename Result>
Result refuse(Result result, int error = INJECTED_ERROR) {
  errno = error;
  return result;
}

// The function that would be called if there were none in this executable.
template <typename Function>
Function *next_function(library_call call, Function *) {
  static std::atomic<void *> found[static_cast<size_t>(library_call::end)];
  std::atomic<void *> &entry = found[static_cast<size_t>(call)];
  void *next = entry.load(RELAXED);
  if (next == nullptr) {
    next = dlsym(RTLD_NEXT, name_of(call));
    entry.store(next, RELAXED);
  }
  return reinterpret_cast<Function *>(next);
}

// The library's live blocks, in no order. Memory for the list cannot come from an allocator.
constexpr size_t MOST_BLOCKS = 1 << 16;
void *blocks[MOST_BLOCKS];
std::atomic<size_t> block_count = 0;
std::atomic<bool> blocks_locked = false;

struct blocks_guard {
  blocks_guard() {
    while (blocks_locked.exchange(true, std::memory_order_acquire)) {}
  }
  ~blocks_guard() { blocks_locked.store(false, std::memory_order_release); }
};

void *note_block(void *block, const void *caller) {
  if (block != nullptr && is_in_library(caller)) {
    const blocks_guard guard;
    const size_t count = block_count.load(RELAXED);
    if (count == MOST_BLOCKS) {
      abort();
    }
    blocks[count] = block;
    block_count.store(count + 1, RELAXED);
  }
  return block;
}

void forget_block(void *block) {
  if (block == nullptr || block_count.load(RELAXED) == 0) {
    return;
  }
  const blocks_guard guard;
  const size_t count = block_count.load(RELAXED);
  for (size_t i = 0; i < count; i++) {
    if (blocks[i] == block) {
      blocks[i] = blocks[count - 1];
      block_count.store(count - 1, RELAXED);
      return;
    }
  }
}

}  // namespace

const char *name_of(library_call call) {
  return NAMES[static_cast<size_t>(call)];
}

failure_injector::failure_injector(library_call call, uint64_t nth, bool every_later_too) {
  call_count.store(0, RELAXED);
  failing_from.store(nth, RELAXED);
  failing_to.store(every_later_too ? UINT64_MAX : nth, RELAXED);
  failing.store(call, RELAXED);
}

failure_injector::~failure_injector() {
  failing.store(library_call::none, RELAXED);
}

uint64_t failure_injector::calls() const {
  return call_count.load(RELAXED);
}

size_t blocks_of_library() {
  return block_count.load(RELAXED);
}

void allow_workers(unsigned count) {
  workers_allowed.store(count, RELAXED);
}

void set_poll_time(long nanoseconds) {
  poll_time.store(nanoseconds, RELAXED);
}

void set_budget_time(long nanoseconds) {
  budget_time.store(nanoseconds, RELAXED);
}

}  // namespace velmarin_test

using namespace velmarin_test;

// Both expand to what only the exported function itself can say: whence it was called.
#define MUST_FAIL(name) must_fail(library_call::name, __builtin_return_address(0))
#define NEXT(name) next_function(library_call::name, ::name)

// A function that takes `parameters` and either answers `failure` with an errno or passes
// `arguments` on.
#define INJECTED_CALL(result, name, failure, parameters, arguments, ...)                  \
  __attribute__((visibility("default"))) result name parameters __VA_ARGS__ {             \
    return MUST_FAIL(name) ? refuse(static_cast<result>(failure)) : NEXT(name) arguments; \
  }

// One that answers with an error number and leaves errno alone.
#define INJECTED_CODE(name, code, parameters, arguments, ...)              \
  __attribute__((visibility("default"))) int name parameters __VA_ARGS__ { \
    return MUST_FAIL(name) ? code : NEXT(name) arguments;                  \
  }

// One that does what it is asked for, then perhaps says that it failed.
#define INJECTED_RELEASE(name, parameter, argument)            \
  __attribute__((visibility("default"))) int name(parameter) { \
    const bool fails = MUST_FAIL(name);                        \
    const int result = NEXT(name)(argument);                   \
    return fails ? refuse(-1) : result;                        \
  }

#pragma GCC visibility push(default)
extern "C" {

void *malloc(size_t size) noexcept {
  if (MUST_FAIL(malloc)) {
    return refuse<void *>(nullptr, ENOMEM);
  }
  void *block = __interceptor_malloc != nullptr ? __interceptor_malloc(size) : __libc_malloc(size);
  return note_block(block, __builtin_return_address(0));
}

void *calloc(size_t count, size_t size) noexcept {
  if (MUST_FAIL(calloc)) {
    return refuse<void *>(nullptr, ENOMEM);
  }
  void *block = __interceptor_calloc != nullptr ? __interceptor_calloc(count, size)
                                                : __libc_calloc(count, size);
  return note_block(block, __builtin_return_address(0));
}

// The library does not call it; what replaces malloc replaces all three.
void *realloc(void *block, size_t size) noexcept {
  return __interceptor_realloc != nullptr ? __interceptor_realloc(block, size)
                                          : __libc_realloc(block, size);
}

void free(void *block) noexcept {
  forget_block(block);
  if (__interceptor_free != nullptr) {
    __interceptor_free(block);
  } else {
    __libc_free(block);
  }
}

int open(const char *path, int flags, ...) {
  va_list arguments;
  va_start(arguments, flags);
  const auto mode = static_cast<mode_t>(va_arg(arguments, unsigned));
  va_end(arguments);
  return MUST_FAIL(open) ? refuse(-1) : NEXT(open)(path, flags, mode);
}

int ioctl(int fd, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return MUST_FAIL(ioctl) ? refuse(-1) : NEXT(ioctl)(fd, request, argument);
}

int snprintf_s(char *dest, size_t dest_max, size_t count, const char *format, ...) {
  if (MUST_FAIL(snprintf_s)) {
    return -1;
  }
  char text[128];
  va_list arguments;
  va_start(arguments, format);
  const int length = vsnprintf(text, sizeof(text), format, arguments);
  va_end(arguments);
  if (length < 0 || static_cast<size_t>(length) >= sizeof(text)) {
    abort();
  }
  return NEXT(snprintf_s)(dest, dest_max, count, "%s", text);
}

int posix_fadvise(int fd, off_t offset, off_t length, int advice) noexcept {
  if (MUST_FAIL(posix_fadvise)) {
    return INJECTED_ERROR;
  }
  return is_in_library(__builtin_return_address(0))
             ? 0
             : NEXT(posix_fadvise)(fd, offset, length, advice);
}

int fsync(int fd) {
  if (MUST_FAIL(fsync)) {
    return refuse(-1);
  }
  return is_in_library(__builtin_return_address(0)) ? 0 : NEXT(fsync)(fd);
}

int timer_settime(timer_t timer, int flags, const itimerspec *value, itimerspec *former) noexcept {
  if (MUST_FAIL(timer_settime)) {
    return refuse(-1);
  }
  itimerspec shortened = *value;
  if (budget_time.load(RELAXED) != 0 && is_in_library(__builtin_return_address(0))) {
    shortened.it_value = {0, budget_time.load(RELAXED)};
  }
  return NEXT(timer_settime)(timer, flags, &shortened, former);
}

int pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                   void *argument) noexcept {
  const bool is_worker = is_in_library(__builtin_return_address(0));
  if (MUST_FAIL(pthread_create) || (is_worker && workers_allowed.load(RELAXED) == 0)) {
    return EAGAIN;
  }
  if (is_worker) {
    workers_allowed.fetch_sub(1, RELAXED);
  }
  return NEXT(pthread_create)(thread, attributes, body, argument);
}

int nanosleep(const timespec *request, timespec *remaining) {
  static const auto next = reinterpret_cast<decltype(&nanosleep)>(dlsym(RTLD_NEXT, "nanosleep"));
  const timespec shortened = {0, poll_time.load(RELAXED)};
  return next(is_in_library(__builtin_return_address(0)) ? &shortened : request, remaining);
}

INJECTED_CALL(int, access, -1, (const char *path, int mode), (path, mode), noexcept)
INJECTED_CALL(int, fstat, -1, (int fd, struct stat *status), (fd, status), noexcept)
INJECTED_CALL(int, lstat, -1, (const char *path, struct stat *status), (path, status), noexcept)
INJECTED_CALL(char *, realpath, nullptr, (const char *path, char *resolved), (path, resolved),
              noexcept)
INJECTED_CALL(ssize_t, read, -1, (int fd, void *bytes, size_t count), (fd, bytes, count))
INJECTED_CALL(ssize_t, write, -1, (int fd, const void *bytes, size_t count), (fd, bytes, count))
INJECTED_CALL(off_t, lseek, -1, (int fd, off_t offset, int whence), (fd, offset, whence), noexcept)
INJECTED_CALL(int, remove, -1, (const char *path), (path), noexcept)
INJECTED_CALL(int, flock, -1, (int fd, int operation), (fd, operation), noexcept)
INJECTED_CALL(DIR *, fdopendir, nullptr, (int fd), (fd))
INJECTED_CALL(dirent *, readdir, nullptr, (DIR * stream), (stream))
INJECTED_CALL(int, timer_create, -1, (clockid_t clock, sigevent *event, timer_t *timer),
              (clock, event, timer), noexcept)
INJECTED_CALL(int, sigaction, -1,
              (int signal, const struct sigaction *action, struct sigaction *former),
              (signal, action, former), noexcept)
INJECTED_CALL(int, sigprocmask, -1, (int how, const sigset_t *set, sigset_t *former),
              (how, set, former), noexcept)

INJECTED_RELEASE(close, int fd, fd)
INJECTED_RELEASE(closedir, DIR *stream, stream)

INJECTED_CODE(pthread_mutex_init, ENOMEM,
              (pthread_mutex_t * mutex, const pthread_mutexattr_t *attributes), (mutex, attributes),
              noexcept)
INJECTED_CODE(pthread_cond_init, ENOMEM,
              (pthread_cond_t * condition, const pthread_condattr_t *attributes),
              (condition, attributes), noexcept)
INJECTED_CODE(pthread_spin_init, EAGAIN, (pthread_spinlock_t * lock, int shared), (lock, shared),
              noexcept)
INJECTED_CODE(memset_s, ERANGE, (void *dest, size_t dest_max, int value, size_t count),
              (dest, dest_max, value, count))
INJECTED_CODE(memcpy_s, ERANGE, (void *dest, size_t dest_max, const void *src, size_t count),
              (dest, dest_max, src, count))
INJECTED_CODE(strcpy_s, ERANGE, (char *dest, size_t dest_max, const char *src),
              (dest, dest_max, src))

}  // extern "C"
#pragma GCC visibility pop
