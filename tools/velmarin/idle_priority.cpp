#include "idle_priority.h"

#include <linux/ioprio.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "message.h"

namespace tool {
// The kernel takes the highest number for the lowest priority, 19. Not SCHED_IDLE: the thread could
// hold file locks for as long as others keep the processors busy.
void become_idle() {
  if (syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0)) !=
          0 ||
      setpriority(PRIO_PROCESS, 0, PRIO_MAX) != 0) {
    print_error(std::string("cannot run at idle priority: ") + std::strerror(errno));
  }
}

}  // namespace tool
