// Reading small files ahead.

#include "fbddp/digest_read_ahead.h"

#include <fcntl.h>
#include <sys/stat.h>

#include "common/paths.h"
#include "common/unique_fd.h"
#include "fbddp/dentry.h"
#include "fbddp/fingerprint.h"
#include "fbddp/job_queue.h"

namespace velmarin {
namespace {

// Up to this size (bytes) a file is read ahead, whole. A larger one keeps the disk busy by itself.
constexpr uint64_t READ_AHEAD_MAX = 1U << 20;

// The descriptor is not kept: a worker that kept some would take them from the other workers and
// from the host when few are left. It is closed before the file is frozen: closing it would release
// a record lock that the host's prep takes, and opening it would break a lease. This is advice, so
// a failure changes nothing, and no counter counts the opening. A FIFO that has taken the file's
// place is left alone: who waits for a reader is to meet the one that reads.
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
  // No more than that at once, however fast others take jobs: this worker has a file to read.
  for (int i = 0; i < LOOK_AHEAD; i++) {
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
