// The digest jobs of one worker that are begun and not yet ended: small files that are open and on
// their way from the disk, which so has something to do while another file is read.
#pragma once

#include "common/unique_fd.h"
#include "fbddp/job_queue.h"
#include "fbddp/scan_context.h"

namespace velmarin {

class begun_digests {
 public:
  // Takes over a digest job: begins it and finishes it, at once or in one of the next calls. Jobs
  // end in the order in which they came.
  void add(sis_context *ctx, job *taken);

  // Ends all jobs. To be called before the worker turns to something else, so that no file stays
  // frozen for longer than the reading of a few small ones takes. Returns whether there was any.
  bool end_all(sis_context *ctx);

 private:
  static constexpr unsigned CAPACITY = 4;

  struct begun_job {
    job *taken;
    unique_fd fd;
  };

  void end_oldest(sis_context *ctx);

  begun_job ring_[CAPACITY];
  unsigned oldest_ = 0;
  unsigned count_ = 0;
};

}  // namespace velmarin
