#include "run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "exit_status.h"
#include "message.h"

namespace tool {

int RunLock::take(const std::string &state) {
  const std::string path = state + "/lock";
  fd_.reset(open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC,
                 S_IRUSR | S_IWUSR));
  if (fd_.is_open() && flock(fd_.get(), LOCK_EX | LOCK_NB) == 0) {
    return DONE;
  }
  if (errno == EWOULDBLOCK) {
    print_error("another run is using the state directory", state, "try again later");
    return BUSY;
  }
  print_error("cannot lock", path, std::strerror(errno));
  return FAILED;
}

}  // namespace tool
