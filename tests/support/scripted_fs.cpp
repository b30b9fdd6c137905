#include "support/scripted_fs.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <filesystem>

#include "velmarin/control_codes.h"

namespace velmarin_test {
namespace {

using namespace velmarin;

// "/root/#12 (deleted)" is shown as "/root/(unnamed)".
std::string path_of(int fd) {
  std::error_code error;
  std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd), error);
  if (path.ends_with(" (deleted)")) {
    path.replace(path.rfind('/') + 1, std::string::npos, "(unnamed)");
  }
  return path;
}

std::string text_of(int fd, unsigned code, const void *argument) {
  uint32_t words[2] = {};
  if (argument != nullptr) {
    memcpy(words, argument, code == GETFLAGS ? 4 : _IOC_SIZE(code));
  }
  const bool is_writable = (fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR;
  const std::string file = " " + path_of(fd) + (is_writable ? " rw " : " ro ");
  const std::string other = path_of(static_cast<int>(words[0]));
  const std::string second = std::to_string(words[1]);
  switch (code) {
    case SIS_IOC_CONNECT:
      return "CONNECT" + file + "layer=" + other;
    case SIS_IOC_DEDUP_FILE:
      return "DEDUP_FILE" + file + "src=" + other + " mode=" + second;
    case SIS_IOC_CLONE_FILE:
      return "CLONE_FILE" + file + "src=" + other + " flags=" + second;
    case SIS_IOC_COINCIDE_FLAG:
      return "COINCIDE_FLAG" + file + "flags=" + std::to_string(words[0]) + " op=" + second;
    case SIS_IOC_REVOKE:
      return "REVOKE" + file + (argument == nullptr ? "null" : "fd=" + other);
    default:
      return (code == GETFLAGS ? "GETFLAGS" : "GET_FILE_INFO") + file +
             (words[0] == 0 && words[1] == 0 ? "zeroed" : "not zeroed");
  }
}

}  // namespace

std::vector<std::string> scripted_fs::texts(const std::string &root) const {
  std::vector<std::string> texts = texts_;
  for (std::string &text : texts) {
    for (size_t at = 0; (at = text.find(root + "/")) != std::string::npos;) {
      text.erase(at, root.size() + 1);
    }
  }
  return texts;
}

int scripted_fs::handle(int fd, unsigned long long_code, void *argument) {
  scripted_fs *self = current;
  const auto code = static_cast<unsigned>(long_code);
  if (self == nullptr || (_IOC_TYPE(code) != 0xf5 && code != GETFLAGS)) {
    static const auto next =
        reinterpret_cast<int (*)(int, unsigned long, ...)>(dlsym(RTLD_NEXT, "ioctl"));
    return next(fd, long_code, argument);
  }
  const std::lock_guard<std::mutex> guard(self->mutex_);
  self->texts_.push_back(text_of(fd, code, argument));
  self->counts_[code]++;
  self->hook_(code, fd);
  errno = self->failures_[self->texts_.size()];
  auto &[bytes, stays] = self->answers_[code];
  std::copy(bytes.begin(), bytes.end(), static_cast<uint8_t *>(argument));
  if (!stays) {
    bytes.clear();
  }
  return errno == 0 ? 0 : -1;
}

}  // namespace velmarin_test

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long code,
                                                            ...) noexcept {
  va_list arguments;
  va_start(arguments, code);
  void *argument = va_arg(arguments, void *);
  va_end(arguments);
  return velmarin_test::scripted_fs::handle(fd, code, argument);
}
