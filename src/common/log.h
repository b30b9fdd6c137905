// The diagnostic log: error and info lines of the modules, service lines of the entry points. Each
// line is one call of the platform's log function. Logging allocates nothing and takes no lock. It
// may change errno, so a caller that still needs it saves it first.
#pragma once

#include <android/log.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <ctime>

namespace velmarin {

struct module_file {
  char name[40];
};

// The file shown in a line: the folder of the source file, which is its module's name, with the
// source file's extension: ".../src/fbddp/walk.cpp" gives "fbddp.cpp".
template <size_t Size>
consteval module_file module_file_of(const char (&source_path)[Size]) {
  size_t name_start = 0;    // of the file
  size_t folder_start = 0;  // of the folder that holds it
  size_t extension = Size - 1;
  for (size_t i = 0; i < Size - 1; i++) {
    if (source_path[i] == '/') {
      folder_start = name_start;
      name_start = i + 1;
      extension = Size - 1;
    } else if (source_path[i] == '.') {
      extension = i;
    }
  }
  module_file file = {};
  size_t length = 0;
  for (size_t i = folder_start; i + 1 < name_start; i++) {
    file.name[length++] = source_path[i];
  }
  for (size_t i = extension; i < Size - 1; i++) {
    file.name[length++] = source_path[i];
  }
  return file;
}

// The wall-clock time of a line; zero when it cannot be read.
inline timespec log_time() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME_COARSE, &now);
  return now;
}

inline int kernel_thread_id() {
  return static_cast<int>(syscall(SYS_gettid));
}

}  // namespace velmarin

#define VELMARIN_LOG_LINE(priority, kind, format, ...)                                         \
  do {                                                                                         \
    static constexpr ::velmarin::module_file log_file_ = ::velmarin::module_file_of(__FILE__); \
    const timespec log_time_ = ::velmarin::log_time();                                         \
    __android_log_buf_print(LOG_ID_SYSTEM, priority, nullptr,                                  \
                            "[" kind " from thread %d at %s:%04d @%ld.%09ld] " format,         \
                            ::velmarin::kernel_thread_id(), log_file_.name, __LINE__,          \
                            static_cast<long>(log_time_.tv_sec),                               \
                            log_time_.tv_nsec __VA_OPT__(, ) __VA_ARGS__);                     \
  } while (0)

#define log_erro(format, ...) \
  VELMARIN_LOG_LINE(ANDROID_LOG_ERROR, "ERRO", format __VA_OPT__(, ) __VA_ARGS__)

#define log_info(format, ...) \
  VELMARIN_LOG_LINE(ANDROID_LOG_INFO, "INFO", format __VA_OPT__(, ) __VA_ARGS__)

#define log_service(format, ...)                                                               \
  __android_log_buf_print(LOG_ID_SYSTEM, ANDROID_LOG_ERROR, nullptr, "[velmarin][%d] " format, \
                          __LINE__ __VA_OPT__(, ) __VA_ARGS__)
