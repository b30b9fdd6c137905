// Reading small files ahead.

#include "fbddp/digest_read_ahead.h"

#include <fcntl.h>

#include "common/paths.h"
#include "common/unique_fd.h"
#include "fbddp/dentry.h"
#include "fbddp/fingerprint.h"

namespace velmarin {
namespace {

// Up to this size (bytes) a file is read ahead, whole. A larger one keeps the disk busy by itself,
// and should rather be left to another worker than wait behind one that this worker has taken.
constexpr uint64_t READ_AHEAD_MAX = 1U << 20;

// Asks the kernel for the file's content. The descriptor is not kept: a worker that kept some would
// take them from the other workers and from the host when few are left. This is advice, so a
// failure changes nothing, and no counter counts the opening.
void fetch_from_disk(const dentry *file) {
  path_buffer buffer;
  const char *path = get_fullpath(file, buffer.text);
  const unique_fd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
  if (fd.is_open()) {
    readahead(fd.get(), 0, file->size);
  }
}

}  // namespace

void digest_read_ahead::add(sis_context *ctx, job *taken) {
  dentry *file = taken->target;
  if (take_saved_digest(ctx, file)) {
    finish_job(ctx, taken);
    return;
  }
  const bool is_small = file->size <= READ_AHEAD_MAX;
  if (!is_small) {
    do_all(ctx);
  } else if (count_ == CAPACITY) {
    do_oldest(ctx);
  }
  ring_[(oldest_ + count_) % CAPACITY] = taken;
  count_++;
  if (is_small) {
    fetch_from_disk(file);
  } else {
    do_oldest(ctx);
  }
}

bool digest_read_ahead::do_all(sis_context *ctx) {
  const bool was_any = count_ > 0;
  while (count_ > 0) {
    do_oldest(ctx);
  }
  return was_any;
}

void digest_read_ahead::do_oldest(sis_context *ctx) {
  job *oldest = ring_[oldest_];
  oldest_ = (oldest_ + 1) % CAPACITY;
  count_--;
  compute_digest(ctx, oldest->target);
  finish_job(ctx, oldest);
}

}  // namespace velmarin
