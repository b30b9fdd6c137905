// The queue of jobs, first in, first out, and the count of unfinished jobs. A job names a dentry;
// the worker pool decides what to do with it.
#pragma once

#include "common/list.h"
#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

struct job {
  list_head link;         // in the run's `queue`
  struct dentry *dentry;  // not owned
};

// Queues a job for `d` and counts it as pending. If that fails, it logs the failure and counts
// nothing, and no worker will see the dentry. The caller may hold a forest lock.
void schedule_job(sis_context *ctx, dentry *d);

// Takes the oldest job, which the caller then owns; null when the queue is empty.
job *take_job(sis_context *ctx);

// Frees a completed job and counts it down; wakes the run's own thread after the last one. Any jobs
// that it scheduled have already been counted, so a count of 0 means that the phase is over.
void finish_job(sis_context *ctx, job *finished);

// Waits until no job is pending.
void wait_until_idle(sis_context *ctx);

}  // namespace velmarin
