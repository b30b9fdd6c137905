// Reading small files ahead.

#include "fbddp/begun_digests.h"

#include <fcntl.h>

#include <utility>

#include "fbddp/dentry.h"
#include "fbddp/fingerprint.h"

namespace velmarin {
namespace {

// Up to this size (bytes) a file is read ahead, whole. A larger one keeps the disk busy by itself,
// and should rather be left to another worker than wait behind one that this worker has begun.
constexpr uint64_t READ_AHEAD_MAX = 1U << 20;

}  // namespace

void begun_digests::add(sis_context *ctx, job *taken) {
  const uint64_t size = taken->target->size;
  if (size > READ_AHEAD_MAX) {
    end_all(ctx);
  } else if (count_ == CAPACITY) {
    end_oldest(ctx);
  }
  unique_fd fd = begin_digest(ctx, taken->target);
  if (!fd.is_open()) {
    finish_job(ctx, taken);
    return;
  }
  if (size <= READ_AHEAD_MAX) {
    readahead(fd.get(), 0, size);  // advice: a failure changes nothing
  }
  ring_[(oldest_ + count_) % CAPACITY] = {taken, std::move(fd)};
  count_++;
  if (size > READ_AHEAD_MAX) {
    end_oldest(ctx);
  }
}

bool begun_digests::end_all(sis_context *ctx) {
  const bool was_any = count_ > 0;
  while (count_ > 0) {
    end_oldest(ctx);
  }
  return was_any;
}

void begun_digests::end_oldest(sis_context *ctx) {
  begun_job &oldest = ring_[oldest_];
  oldest_ = (oldest_ + 1) % CAPACITY;
  count_--;
  end_digest(ctx, oldest.taken->target, std::move(oldest.fd));
  finish_job(ctx, oldest.taken);
}

}  // namespace velmarin
