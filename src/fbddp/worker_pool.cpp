// Worker threads: their slots, their loop, and how they run a job.

#include "fbddp/worker_pool.h"

#include <cstdlib>
#include <ctime>

#include "common/atomic_word.h"
#include "common/log.h"
#include "fbddp/dentry.h"
#include "fbddp/fingerprint.h"
#include "fbddp/grouping.h"
#include "fbddp/job_queue.h"
#include "fbddp/walk.h"

namespace velmarin {
namespace {

constexpr int SLOT_ATTEMPTS = 4;
constexpr long WORKER_POLL_NS = 200000000;

// Sleeps for one poll interval, even if signals interrupt it.
void sleep_poll_interval() {
  struct timespec remaining = {0, WORKER_POLL_NS};
  struct timespec request;
  do {
    request = remaining;
  } while (nanosleep(&request, &remaining) != 0);
}

int32_t phase_of(const sis_context *ctx) {
  return load_acquire(&ctx->phase);
}

// A file is queued for its digest only after it was admitted, with its digest marked as pending,
// and only that job clears the mark. An unexamined file is never marked. So the mark tells the two
// jobs of a file apart.
void run_walk_job(sis_context *ctx, dentry *d) {
  if (!is_file_form(d)) {
    read_directory(ctx, d);
  } else if (is_digest_pending(d)) {
    make_digest(ctx, d);
  } else {
    admit_file(ctx, d);
  }
}

void run_job(sis_context *ctx, job *taken) {
  switch (phase_of(ctx)) {
    case PHASE_WALK:
      run_walk_job(ctx, taken->dentry);
      break;
    case PHASE_GROUP:
      split_group(ctx, taken->dentry);
      break;
    default:
      break;
  }
  finish_job(ctx, taken);
}

// Returns the next job, or null when the run is over.
job *wait_for_job(sis_context *ctx) {
  while (phase_of(ctx) != PHASE_STOP) {
    if (job *taken = take_job(ctx)) {
      return taken;
    }
    sleep_poll_interval();
  }
  return nullptr;
}

void *enqueued_worker(void *argument) {
  auto *ctx = static_cast<sis_context *>(argument);
  for (;;) {
    if (phase_of(ctx) == PHASE_START) {
      sleep_poll_interval();
    }
    job *taken = wait_for_job(ctx);
    if (taken == nullptr) {
      return nullptr;
    }
    run_job(ctx, taken);
  }
}

thread_slot *allocate_slot(int index) {
  for (int attempt = 0; attempt < SLOT_ATTEMPTS; attempt++) {
    if (auto *slot = static_cast<thread_slot *>(malloc(sizeof(thread_slot)))) {
      slot->thread = 0;
      return slot;
    }
    log_erro("fail to allocate thread %d", index);
  }
  return nullptr;
}

thread_slot *take_first_slot(sis_context *ctx) {
  thread_slot *slot = owner_of<&thread_slot::link>(ctx->threads.next);
  list_unlink(&slot->link);
  return slot;
}

}  // namespace

int allocate_threads(sis_context *ctx) {
  for (int i = 0; i < WORKER_COUNT; i++) {
    thread_slot *slot = allocate_slot(i);
    if (slot == nullptr) {
      free_thread_slots(ctx);
      return 1;
    }
    list_append(&ctx->threads, &slot->link);
  }
  return 0;
}

int get_thread(sis_context *ctx, void *worker_argument) {
  thread_slot *slot = take_first_slot(ctx);
  const int result = pthread_create(&slot->thread, nullptr, enqueued_worker, worker_argument);
  if (result != 0) {
    slot->thread = 0;
    log_erro("fail to get thread %s", "from pool");
  }
  list_append(&ctx->threads, &slot->link);
  return result;
}

void join_workers(sis_context *ctx) {
  for (int i = 0; i < WORKER_COUNT; i++) {
    thread_slot *slot = take_first_slot(ctx);
    if (slot->thread != 0) {
      pthread_join(slot->thread, nullptr);
    }
    list_append(&ctx->threads, &slot->link);
  }
}

void free_thread_slots(sis_context *ctx) {
  while (!list_is_empty(&ctx->threads)) {
    free(take_first_slot(ctx));
  }
}

}  // namespace velmarin
