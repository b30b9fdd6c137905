// The pool of worker threads of a run.
#pragma once

#include <pthread.h>

#include "common/list.h"
#include "fbddp/scan_context.h"

namespace velmarin {

inline constexpr int WORKER_COUNT = 3;

struct thread_slot {
  pthread_t thread;  // 0 until a worker is started in it
  list_head link;    // in the run's `threads`, which owns the slot
};

// Allocates the slots. Returns 0, or 1 when out of memory, with no slot left.
int allocate_threads(sis_context *ctx);

// Starts a worker in the first slot, with `worker_argument` (the run's context), and moves the slot
// to the tail. Returns the result of pthread_create.
int get_thread(sis_context *ctx, void *worker_argument);

// Joins the workers that were started. `phase` must be PHASE_STOP. The slots remain.
void join_workers(sis_context *ctx);

void free_thread_slots(sis_context *ctx);

}  // namespace velmarin
