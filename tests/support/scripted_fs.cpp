#include "support/scripted_fs.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <sstream>

#include "velmarin/control_codes.h"

namespace velmarin_test {
namespace {

using namespace velmarin;

constexpr unsigned GETFLAGS = static_cast<unsigned>(FS_IOC_GETFLAGS);

std::atomic<scripted_fs *> current = nullptr;

int platform_ioctl(int fd, unsigned long code, void *argument) {
  using ioctl_function = int (*)(int, unsigned long, ...);
  static const auto next = reinterpret_cast<ioctl_function>(dlsym(RTLD_NEXT, "ioctl"));
  return next(fd, code, argument);
}

std::string path_of(int fd) {
  char path[4096];
  const ssize_t length =
      readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof(path));
  return length < 0 ? "?" : std::string(path, static_cast<size_t>(length));
}

bool names_a_descriptor(unsigned code) {
  return code == SIS_IOC_CONNECT || code == SIS_IOC_DEDUP_FILE || code == SIS_IOC_CLONE_FILE;
}

fs_request record_request(int fd, unsigned code, const void *argument) {
  fs_request request = {};
  request.code = code;
  request.fd = fd;
  struct stat status = {};
  fstatat(fd, "", &status, AT_EMPTY_PATH);  // fstat may be under a test's command too
  request.inode = status.st_ino;
  request.path = path_of(fd);
  request.access_mode = fcntl(fd, F_GETFL) & O_ACCMODE;
  request.null_argument = argument == nullptr;
  if (argument != nullptr) {
    const auto *bytes = static_cast<const uint8_t *>(argument);
    request.argument.assign(bytes, bytes + (code == GETFLAGS ? 4 : _IOC_SIZE(code)));
    if (names_a_descriptor(code)) {
      request.argument_path = path_of(request.argument_as<int>());
    }
  }
  return request;
}

// "/root/a" is shown as "a", "/root/#12 (deleted)" as "(unnamed)".
std::string name_below(const std::string &root, std::string path) {
  const std::string deleted = " (deleted)";
  if (path.ends_with(deleted)) {
    path.replace(path.rfind('/') + 1, std::string::npos, "(unnamed)");
  }
  return path.starts_with(root + "/") ? path.substr(root.size() + 1) : path;
}

}  // namespace

std::string fs_request::text(const std::string &root) const {
  const auto words = argument_as<sis_coincide_arg>();
  const auto hex = [](uint32_t word) { return (std::ostringstream() << std::hex << word).str(); };
  const std::string other = name_below(root, argument_path);
  const std::string file = name_below(root, path) + (access_mode == O_RDWR ? " rw " : " ro ");
  const std::string zeroed = words.flags == 0 && words.op == 0 ? "zeroed" : "not zeroed";
  switch (code) {
    case SIS_IOC_CONNECT:
      return "CONNECT " + file + "layer=" + other;
    case SIS_IOC_DEDUP_FILE:
      return "DEDUP_FILE " + file + "src=" + other + " mode=" + hex(words.op);
    case SIS_IOC_CLONE_FILE:
      return "CLONE_FILE " + file + "src=" + other + " flags=" + hex(words.op);
    case SIS_IOC_COINCIDE_FLAG:
      return "COINCIDE_FLAG " + file + "flags=" + hex(words.flags) + " op=" + hex(words.op);
    case SIS_IOC_REVOKE:
      return "REVOKE " + file +
             (null_argument              ? "null"
              : argument_as<int>() == fd ? "own fd"
                                         : "other word");
    default:
      return (code == GETFLAGS ? "GETFLAGS " : "GET_FILE_INFO ") + file + zeroed;
  }
}

scripted_fs::scripted_fs(source answers) : answers_(answers) {
  current = this;
}

scripted_fs::~scripted_fs() {
  current = nullptr;
}

void scripted_fs::answer(unsigned code, int result, int error) {
  queue({result, error, {}, false}, code);
}

void scripted_fs::queue(const fs_answer &answer, unsigned code) {
  const std::lock_guard<std::mutex> guard(mutex_);
  queues_[code].push_back(answer);
}

void scripted_fs::fail(unsigned code, int nth, int error) {
  const std::lock_guard<std::mutex> guard(mutex_);
  failures_[{code, nth}] = error;
}

void scripted_fs::before_each(std::function<void(const fs_request &)> hook) {
  const std::lock_guard<std::mutex> guard(mutex_);
  hook_ = std::move(hook);
}

std::vector<fs_request> scripted_fs::requests() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return requests_;
}

std::vector<std::string> scripted_fs::texts(const std::string &root) const {
  std::vector<std::string> texts;
  for (const fs_request &request : requests()) {
    texts.push_back(request.text(root));
  }
  return texts;
}

size_t scripted_fs::count(unsigned code) const {
  const std::vector<fs_request> all = requests();
  return static_cast<size_t>(std::count_if(
      all.begin(), all.end(), [code](const fs_request &request) { return request.code == code; }));
}

int scripted_fs::handle(int fd, unsigned long long_code, void *argument) {
  scripted_fs *self = current;
  const auto code = static_cast<unsigned>(long_code);
  if (self == nullptr || (_IOC_TYPE(code) != 0xf5 && code != GETFLAGS)) {
    return platform_ioctl(fd, long_code, argument);
  }
  const int errno_before = errno;
  const fs_request request = record_request(fd, code, argument);
  fs_answer answer = {};
  bool is_answered = self->answers_ == source::script;
  std::function<void(const fs_request &)> hook;
  {
    const std::lock_guard<std::mutex> guard(self->mutex_);
    self->requests_.push_back(request);
    const auto failure = self->failures_.find({code, ++self->counts_[code]});
    std::deque<fs_answer> &queue = self->queues_[code];
    if (failure != self->failures_.end()) {
      answer = {-1, failure->second, {}, false};
      is_answered = true;
    } else if (!queue.empty()) {
      answer = queue.front();
      if (!answer.stays) {
        queue.pop_front();
      }
      is_answered = true;
    }
    hook = self->hook_;
  }
  if (hook) {
    hook(request);
  }
  errno = answer.result < 0 ? answer.error : errno_before;
  if (!is_answered) {
    return platform_ioctl(fd, code, argument);
  }
  if (argument != nullptr) {
    std::copy(answer.argument.begin(), answer.argument.end(), static_cast<uint8_t *>(argument));
  }
  return answer.result;
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
