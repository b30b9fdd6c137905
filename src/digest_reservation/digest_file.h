// The digest file of a set of roots: its path, and how it is opened, locked, kept and removed.
//
// The run's `pname` holds the file's name without the suffix. The suffix is present only while a
// path is being built: the two functions below clear it again, unless unlocking the file or forming
// the path fails.
#pragma once

#include "fbddp/scan_context.h"

namespace velmarin {

// Values of `write_mode`.
inline constexpr unsigned OPEN_FOR_READING = 0;
inline constexpr unsigned OPEN_FOR_WRITING = 1;

// Values of `discard`.
inline constexpr unsigned KEEP_FILE = 0;
inline constexpr unsigned REMOVE_FILE = 1;

// Bit 0 of `write_mode`: create the file for writing and lock it exclusively; otherwise open it for
// reading with a shared lock. Waits for the lock. Stores the descriptor in `*fd` as soon as the
// open returns, even a negative one. Returns 0; 1 when the path cannot be formed; the errno of a
// failed open or lock; the code of a failed bounded fill. Whatever the result, call the function
// below afterwards.
int create_open_hashfiles(sis_context *ctx, const char *save_dir, int *fd, unsigned write_mode);

// Unlocks and closes the digest file if `*fd` is 1 or more; `*fd` keeps its value. Bit 0 of
// `discard`: remove the file after closing it; otherwise sync it to storage before closing. A
// failed unlock is logged and leaves the file open.
void destroy_exist_hashfiles(sis_context *ctx, const char *save_dir, int *fd, unsigned discard);

}  // namespace velmarin
