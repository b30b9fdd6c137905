// Schedules, takes and finishes jobs.

#include "fbddp/job_queue.h"

#include <cstdlib>

#include "common/atomic_word.h"
#include "common/log.h"

namespace velmarin {

void schedule_job(sis_context *ctx, dentry *d) {
  auto *scheduled = static_cast<job *>(malloc(sizeof(job)));
  if (scheduled == nullptr) {
    log_erro("fail to allocate job for %s", name_of(d));
    return;
  }
  // Counted before a worker can see the job and count it down.
  fetch_add(&ctx->pending, 1);
  scheduled->dentry = d;
  const spinlock_guard guard(&ctx->queue_lock);
  list_append(&ctx->queue, &scheduled->link);
}

job *take_job(sis_context *ctx) {
  const spinlock_guard guard(&ctx->queue_lock);
  if (list_is_empty(&ctx->queue)) {
    return nullptr;
  }
  job *oldest = owner_of<&job::link>(ctx->queue.next);
  list_unlink(&oldest->link);
  return oldest;
}

void finish_job(sis_context *ctx, job *finished) {
  free(finished);
  if (fetch_add(&ctx->pending, static_cast<uint64_t>(-1)) == 1) {
    pthread_mutex_lock(&ctx->work_lock);
    pthread_cond_signal(&ctx->work_done);
    pthread_mutex_unlock(&ctx->work_lock);
  }
}

void wait_until_idle(sis_context *ctx) {
  pthread_mutex_lock(&ctx->work_lock);
  while (load_acquire(&ctx->pending) != 0) {
    pthread_cond_wait(&ctx->work_done, &ctx->work_lock);
  }
  pthread_mutex_unlock(&ctx->work_lock);
}

}  // namespace velmarin
