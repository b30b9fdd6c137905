// The diagnostic log: error and info lines of the modules, service lines of the entry points. Each
// line is one call of the platform's log function. Logging allocates nothing and takes no lock. It
// may change errno, so a caller that still needs it saves it first.
#pragma once

#include <android/log.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <string_view>

namespace velmarin {

struct module_file {
  char name[40];
};

// The file shown in a line: the folder of the source file, which is its module's name, with the
// source file's extension: ".../src/fbddp/walk.cpp" gives "fbddp.cpp".
consteval module_file module_file_of(std::string_view source_path) {
  const std::string_view folder = source_path.substr(0, source_path.rfind('/'));
  const std::string_view module = folder.substr(folder.rfind('/') + 1);
  module_file file = {};
  char *end = file.name;
  for (const std::string_view part : {module, source_path.substr(source_path.rfind('.'))}) {
    end = std::copy(part.begin(), part.end(), end);
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
