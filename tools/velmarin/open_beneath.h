// Opens paths below a directory in which other users may rename entries at any moment.
#pragma once

#include <sys/types.h>

namespace tool {

// Like openat(2), but fails with ELOOP or EXDEV if any part of `path` is a symbolic link or leads
// out of `directory`. Never waits for the other end of a FIFO, a device or a lease. `path` is
// relative and not empty. Needs Linux 5.6.
int open_beneath(int directory, const char *path, int flags, mode_t mode);

}  // namespace tool
