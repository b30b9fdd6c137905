// The queue of jobs, first in, first out, and the count of unfinished jobs. A job names a dentry;
// what is done with it is the worker pool's business.
#pragma once

#include "common/list.h"
#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

struct job {
  list_head link;  // in the run's `queue`
  dentry *target;  // not owned
};

// Queues a job for `d` and counts it as pending. A failure is logged; nothing is counted then and
// the dentry stays untreated. May be called with a forest lock held.
void schedule_job(sis_context *ctx, dentry *d);

// Takes the oldest job, which the caller then owns; null when the queue is empty.
job *take_job(sis_context *ctx);

// Frees a treated job and counts it down; wakes the driver when it was the last one. Whatever the
// treatment scheduled has been counted before, so a count of 0 means that the phase is over.
void finish_job(sis_context *ctx, job *finished);

// Waits until no job is pending.
void wait_until_idle(sis_context *ctx);

}  // namespace velmarin
