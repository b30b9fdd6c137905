#include "support/scripted_fs.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "velmarin/control_codes.h"

namespace velmarin_test {
namespace {

using namespace velmarin;
namespace fs = std::filesystem;

const char *const NAMES[] = {"CONNECT", "DEDUP_FILE", "REVOKE",       "GET_FILE_INFO",
                             "unknown", "CLONE_FILE", "COINCIDE_FLAG"};

std::string path_of(int fd) {
  const fs::path link = "/proc/self/fd/" + std::to_string(fd);
  std::error_code error;
  fs::path path = fs::read_symlink(link, error);
  if (path.string().ends_with(" (deleted)")) {
    char mode[16];
    snprintf(mode, sizeof(mode), "[%o]", static_cast<unsigned>(fs::status(link).permissions()));
    path.replace_filename(mode);
  }
  return path.lexically_relative(fs::current_path());
}

std::string text_of(int fd, unsigned code, const void *argument) {
  const char *name = code == GETFLAGS ? "GETFLAGS" : NAMES[(_IOC_NR(code) - 0x32) % 7];
  const char *mode = (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR ? " rw " : " ro ";
  std::string text = std::string(name) + " " + path_of(fd) + mode;
  if (argument == nullptr) {
    return text + "null";
  }
  int words[2] = {};
  memcpy(words, argument, code == GETFLAGS ? 4 : _IOC_SIZE(code));
  const bool is_number =
      code == GETFLAGS || code == SIS_IOC_GET_FILE_INFO || code == SIS_IOC_COINCIDE_FLAG;
  text += is_number ? std::to_string(words[0]) : path_of(words[0]);
  return text + " " + std::to_string(words[1]);
}

// The target of an accepted request to share gets the size that every file has in these tests.
int fill_target(int fd, unsigned code) {
  const bool shares = code == SIS_IOC_CLONE_FILE || code == SIS_IOC_DEDUP_FILE;
  return shares ? truncate(("/proc/self/fd/" + std::to_string(fd)).c_str(), 4) : 0;
}

}  // namespace
}  // namespace velmarin_test

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long long_code,
                                                            ...) noexcept {
  va_list arguments;
  va_start(arguments, long_code);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  velmarin_test::scripted_fs *self = velmarin_test::scripted_fs::current;
  const auto code = static_cast<unsigned>(long_code);
  if (self == nullptr || (_IOC_TYPE(code) != 0xf5 && code != velmarin_test::GETFLAGS)) {
    static const auto next = reinterpret_cast<decltype(&ioctl)>(dlsym(RTLD_NEXT, "ioctl"));
    return next(fd, long_code, argument);
  }
  const std::lock_guard<std::mutex> guard(self->mutex);
  self->texts.push_back(velmarin_test::text_of(fd, code, argument));
  self->before_each(code, fd);
  const int error = self->failures[self->texts.size()];
  std::ranges::copy(self->answers[code], static_cast<uint8_t *>(argument));
  errno = error != 0 ? error : EOPNOTSUPP;  // as an earlier call left it
  return error == 0 ? velmarin_test::fill_target(fd, code) : -1;
}
