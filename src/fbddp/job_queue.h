// The queue of jobs, first in, first out, and the count of unfinished jobs. A job names a dentry
// and says whether its file is being fetched; the worker pool decides what to do with it.
#pragma once

#include <cstdint>

#include "common/list.h"
#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

struct job {
  list_head link;  // in the run's `queue`
  dentry *target;  // not owned
  uint32_t fetch;  // a fetch_state; atomic
};

// Whether the content of a file is being fetched from the disk before it is read.
enum fetch_state : uint32_t { FETCH_NONE, FETCH_BEGUN, FETCH_DONE };

// Queues a job for `d` and counts it as pending. If that fails, it logs the failure and counts
// nothing, and no worker will see the dentry. The caller may hold a forest lock.
void schedule_job(sis_context *ctx, dentry *d);

// Takes the oldest job, which the caller then owns; null when the queue is empty.
job *take_job(sis_context *ctx);

// How many jobs `begin_fetch` examines.
inline constexpr int LOOK_AHEAD = 8;

// Returns the first of the next LOOK_AHEAD jobs that will compute a digest and whose file no worker
// has begun to fetch, or null. The caller fetches that file and then calls `end_fetch`. The job
// stays in the queue; a worker that takes it meanwhile waits in `await_fetch`, so it lives until
// then. Its dentry lives as long as the run.
job *begin_fetch(sis_context *ctx);
void end_fetch(job *fetched);

// Waits while another worker fetches the file of a job that was taken.
void await_fetch(const job *taken);

// Frees a completed job and counts it down; wakes the run's own thread after the last one. Any jobs
// that it scheduled have already been counted, so a count of 0 means that the phase is over.
void finish_job(sis_context *ctx, job *finished);

// Waits until no job is pending.
void wait_until_idle(sis_context *ctx);

}  // namespace velmarin
