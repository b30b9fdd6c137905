#include "support/failure_injector.h"

#include <bounds_checked.h>
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <span>
#include <string>

namespace velmarin_test {
namespace {

// All of these are accessed in relaxed order, so that they do not synchronize the library's
// threads.
constexpr auto RELAXED = std::memory_order_relaxed;
std::atomic<library_call> failing = library_call::end;
std::atomic<uint64_t> failing_from = 0;
std::atomic<uint64_t> failing_to = 0;
std::atomic<uint64_t> call_count = 0;

bool must_fail(library_call call) {
  if (failing.load(RELAXED) != call) {
    return false;
  }
  const uint64_t number = call_count.fetch_add(1, RELAXED) + 1;
  return number >= failing_from.load(RELAXED) && number <= failing_to.load(RELAXED);
}

// `Code` is what a failing function returns or, if it returns a pointer, stores in errno; 0 means
// that it fails as system calls do.
template <library_call Call, int Code, typename Result, typename... Arguments>
struct wrapper {
  static inline Result (*function)(Arguments...) = nullptr;

  static Result call(Arguments... arguments) {
    if (!must_fail(Call)) {
      return function(arguments...);
    }
    if constexpr (Call == library_call::close || Call == library_call::closedir) {
      function(arguments...);
    }
    if constexpr (std::is_pointer_v<Result>) {
      errno = Code != 0 ? Code : failing_errno.load(RELAXED);
      return nullptr;
    } else if constexpr (Code != 0) {
      return Code;
    } else {
      errno = failing_errno.load(RELAXED);
      return -1;
    }
  }
};

template <library_call Call, int Code = 0, typename Result, typename... Arguments>
void *wrapper_of(Result (*function)(Arguments...)) {
  using chosen = wrapper<Call, Code, Result, Arguments...>;
  chosen::function = function;
  return reinterpret_cast<void *>(chosen::call);
}

void *count_block(void *block) {
  library_blocks.fetch_add(block != nullptr ? 1 : 0, RELAXED);
  return block;
}

int create_worker(pthread_t *thread, const pthread_attr_t *attributes, void *(*body)(void *),
                  void *argument) {
  return workers_allowed.fetch_sub(1, RELAXED) > 0
             ? pthread_create(thread, attributes, body, argument)
             : EAGAIN;
}

int start_timer(timer_t timer, int flags, const itimerspec *value, itimerspec *previous) {
  const long chosen = budget_time.load(RELAXED);
  const itimerspec shortened = {{}, {0, chosen}};
  return timer_settime(timer, flags, chosen != 0 ? &shortened : value, previous);
}

int sleep_shortly(const timespec *, timespec *remaining) {
  const timespec shortened = {0, poll_time.load(RELAXED)};
  return nanosleep(&shortened, remaining);
}

// Each reading of the wall clock is 0.6 seconds after the one before.
int read_clock(clockid_t clock, timespec *now) {
  static std::atomic<long> tenths = 0;
  const long reading = clock == CLOCK_REALTIME ? tenths.fetch_add(6, RELAXED) : 0;
  *now = {reading / 10, reading % 10 * 100'000'000};
  return clock == CLOCK_REALTIME ? 0 : clock_gettime(clock, now);
}

int format(char *dest, size_t dest_max, size_t count, const char *form, ...) {
  char text[4096];
  va_list arguments;
  va_start(arguments, form);
  vsnprintf(text, sizeof(text), form, arguments);
  va_end(arguments);
  return must_fail(library_call::snprintf_s) ? -1 : snprintf_s(dest, dest_max, count, "%s", text);
}

// Calls of variadic functions pass these arguments as other calls do.
std::map<std::string, void *> all_wrappers() {
  using enum library_call;
#define WRAPPER(name) {#name, wrapper_of<library_call::name>(::name)},
  return {
      VELMARIN_PLAIN_SYSTEM_CALLS(WRAPPER)  //
      {"open", wrapper_of<open>(+[](const char *path, int flags, mode_t mode) {
         return ::open(path, flags, mode);
       })},
      {"ioctl", wrapper_of<ioctl>(+[](int fd, unsigned long request, void *argument) {
         return ::ioctl(fd, request, argument);
       })},
      {"fsync", wrapper_of<fsync>(+[](int) { return 0; })},
      {"posix_fadvise", wrapper_of<posix_fadvise, EIO>(+[](int, off_t, off_t, int) { return 0; })},
      {"timer_settime", wrapper_of<timer_settime>(start_timer)},
      {"malloc", wrapper_of<malloc, ENOMEM>(+[](size_t n) { return count_block(::malloc(n)); })},
      {"calloc", wrapper_of<calloc, ENOMEM>(
                     +[](size_t n, size_t size) { return count_block(::calloc(n, size)); })},
      {"free", reinterpret_cast<void *>(free_library_block)},
      {"pthread_create", wrapper_of<pthread_create, EAGAIN>(create_worker)},
      {"pthread_mutex_init", wrapper_of<pthread_mutex_init, ENOMEM>(::pthread_mutex_init)},
      {"pthread_cond_init", wrapper_of<pthread_cond_init, ENOMEM>(::pthread_cond_init)},
      {"pthread_spin_init", wrapper_of<pthread_spin_init, EAGAIN>(::pthread_spin_init)},
      {"nanosleep", reinterpret_cast<void *>(sleep_shortly)},
      {"clock_gettime", reinterpret_cast<void *>(read_clock)},
      {"memset_s", wrapper_of<memset_s, ERANGE>(::memset_s)},
      {"memcpy_s", wrapper_of<memcpy_s, ERANGE>(::memcpy_s)},
      {"strcpy_s", wrapper_of<strcpy_s, ERANGE>(::strcpy_s)},
      {"snprintf_s", reinterpret_cast<void *>(format)}};
#undef WRAPPER
}

void put_address(uintptr_t place, void *address) {
  const auto page_size = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
  void *page = reinterpret_cast<void *>(place / page_size * page_size);
  if (mprotect(page, page_size, PROT_READ | PROT_WRITE) != 0) {
    abort();
  }
  *reinterpret_cast<void **>(place) = address;
}

// Patches the relocations of the library before main begins.
[[maybe_unused]] const bool is_library_prepared = [] {
  Dl_info unused;
  void *found = nullptr;
  dladdr1(dlsym(RTLD_DEFAULT, "signal_no_time"), &unused, &found, RTLD_DL_LINKMAP);
  const auto *library = static_cast<const link_map *>(found);
  std::map<int64_t, uintptr_t> dynamic;
  for (const ElfW(Dyn) *entry = library->l_ld; entry->d_tag != DT_NULL; entry++) {
    dynamic[entry->d_tag] = entry->d_un.d_ptr;
  }
  const auto *symbols = reinterpret_cast<const ElfW(Sym) *>(dynamic[DT_SYMTAB]);
  const auto *names = reinterpret_cast<const char *>(dynamic[DT_STRTAB]);
  const std::map<std::string, void *> all = all_wrappers();
  std::map<std::string, void *> missing = all;
  for (const auto &[begin, size] : {std::pair(DT_RELA, DT_RELASZ), {DT_JMPREL, DT_PLTRELSZ}}) {
    const auto *first = reinterpret_cast<const ElfW(Rela) *>(dynamic[begin]);
    for (const auto &place : std::span(first, dynamic[size] / sizeof(*first))) {
      const char *name = names + symbols[ELF64_R_SYM(place.r_info)].st_name;
      if (all.count(name) != 0) {
        put_address(library->l_addr + place.r_offset, all.at(name));
        missing.erase(name);
      }
    }
  }
  if (!missing.empty()) {
    fprintf(stderr, "libvelmarin.so does not call %s\n", missing.begin()->first.c_str());
    abort();
  }
  return true;
}();

}  // namespace

failure_injector::failure_injector(library_call call, uint64_t nth, bool every_later_too) {
  call_count.store(0, RELAXED);
  failing_from.store(nth, RELAXED);
  failing_to.store(every_later_too ? UINT64_MAX : nth, RELAXED);
  failing.store(call, RELAXED);
}

failure_injector::~failure_injector() {
  failing.store(library_call::end, RELAXED);
}

uint64_t failure_injector::calls() const {
  return call_count.load(RELAXED);
}

void free_library_block(void *block) {
  library_blocks.fetch_sub(block != nullptr ? 1 : 0, RELAXED);
  free(block);
}

}  // namespace velmarin_test
