#include "open_beneath.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace tool {

int open_beneath(int directory, const char *path, int flags, mode_t mode) {
  open_how how = {.flags = static_cast<__u64>(flags | O_NONBLOCK),
                  .mode = mode,
                  .resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS | RESOLVE_NO_MAGICLINKS};
  return static_cast<int>(syscall(SYS_openat2, directory, path, &how, sizeof(how)));
}

}  // namespace tool
