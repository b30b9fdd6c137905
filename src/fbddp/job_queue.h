// The queue of jobs, first in, first out, and the count of unfinished jobs. A job only names a
// dentry; the worker pool decides what to do with it.
#pragma once

#include <cstddef>

#include "common/list.h"
#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

struct job {
  list_head link;      // in the run's `queue`
  dentry *target;      // not owned
  bool was_looked_at;  // by `look_ahead`
};

// How many jobs `look_ahead` looks at.
inline constexpr size_t LOOK_AHEAD = 8;

// Queues a job for `d` and counts it as pending. A failure is logged: nothing is counted, and no
// worker will see the dentry. The caller may hold a forest lock.
void schedule_job(sis_context *ctx, dentry *d);

// Takes the oldest job, which the caller then owns; null when the queue is empty.
job *take_job(sis_context *ctx);

// Looks at the oldest jobs, which stay in the queue. Stores in `files` those of their dentries
// whose digest is wanted and that were not stored before, and returns their number. Such a dentry
// lives as long as the run.
size_t look_ahead(sis_context *ctx, const dentry *(&files)[LOOK_AHEAD]);

// Frees a completed job and counts it down; wakes the driver after the last one. The jobs that it
// scheduled have been counted by then, so a count of 0 means that the phase is over.
void finish_job(sis_context *ctx, job *finished);

// Waits until no job is pending.
void wait_until_idle(sis_context *ctx);

}  // namespace velmarin
