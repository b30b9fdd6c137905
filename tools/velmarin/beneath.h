// Opening what lies below a directory that other users may rename in at any moment.
#pragma once

#include <sys/types.h>

namespace tool {

// As openat(2), but no part of `path` may be a symbolic link or lead out of `directory`; ELOOP or
// EXDEV says that one does. Never waits for the other end of a FIFO, for a device or for a lease.
// `path` is relative and not empty. Needs Linux 5.6.
int open_beneath(int directory, const char *path, int flags, mode_t mode);

}  // namespace tool
