// Prefetches small files.

#include "fbddp/digest_read_ahead.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "common/atomic_word.h"
#include "common/paths.h"
#include "common/unique_fd.h"
#include "fbddp/dentry.h"
#include "fbddp/fingerprint.h"
#include "fbddp/job_queue.h"

namespace velmarin {
namespace {

// Files up to this size (bytes) are read ahead in full. A larger one keeps the disk busy by itself.
constexpr uint64_t READ_AHEAD_MAX = 1U << 20;

// The descriptor is not kept: the other workers and the host may need it when few are left. The
// file is opened and closed before it is frozen: a later close would release a record lock that the
// host's prep takes, and a later open would break a lease. This is advice, so a failure changes
// nothing and the open is not counted. A FIFO that has replaced the file is left alone: opening it
// would release a writer that waits for a reader.
void fetch_from_disk(const dentry *file) {
  path_buffer buffer;
  const char *path = get_fullpath(file, buffer.text);
  struct stat status;
  if (lstat(path, &status) != 0 || !S_ISREG(status.st_mode)) {
    return;
  }
  const unique_fd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (fd.is_open()) {
    readahead(fd.get(), 0, file->size);
  }
}

}  // namespace

void read_ahead(sis_context *ctx) {
  // A fixed limit, however fast others take jobs: this worker has a file to read.
  for (int i = 0; i < LOOK_AHEAD && load_relaxed(&ctx->in_time) != 0; i++) {
    job *next = begin_fetch(ctx);
    if (next == nullptr) {
      return;
    }
    const dentry *file = next->target;
    if (file->size <= READ_AHEAD_MAX && !has_saved_digest(ctx, file)) {
      fetch_from_disk(file);
    }
    end_fetch(next);
  }
}

}  // namespace velmarin
