#include "output_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "message.h"

namespace tool {
namespace {

bool write_all(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(fd, text.data(), text.size());
    if (written == -1 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
  }
  return true;
}

// A pipe or a terminal has nothing to truncate.
bool empty_file(int fd) {
  struct stat status = {};
  return fstat(fd, &status) == 0 && (!S_ISREG(status.st_mode) || ftruncate(fd, 0) == 0);
}

}  // namespace

bool OutputFile::open(const std::string &path) {
  path_ = path;
  fd_.reset(::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
  return fd_.is_open() || fail();
}

bool OutputFile::write(const std::string &text) {
  const bool is_written = empty_file(fd_.get()) && write_all(fd_.get(), text);
  return (is_written && close(fd_.release()) == 0) || fail();
}

bool OutputFile::fail() {
  print_error("cannot write", path_, std::strerror(errno));
  return false;
}

}  // namespace tool
