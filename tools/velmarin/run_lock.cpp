#include "run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "exit_status.h"
#include "message.h"

namespace tool {

RunLock::~RunLock() {
  if (fd_ >= 0) {
    close(fd_);
  }
}

int RunLock::take(const std::string &state) {
  const std::string path = state + "/lock";
  fd_ =
      open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, S_IRUSR | S_IWUSR);
  if (fd_ >= 0 && flock(fd_, LOCK_EX | LOCK_NB) == 0) {
    return DONE;
  }
  if (fd_ >= 0 && errno == EWOULDBLOCK) {
    print_error("another run is using the state directory", state, "try again later");
    return BUSY;
  }
  print_error("cannot lock", path, std::strerror(errno));
  return FAILED;
}

}  // namespace tool
