// The digest jobs that one worker has taken and not yet done: small files on their way from the
// disk, which so has something to do while another file is read. Such a file is neither open nor
// frozen.
#pragma once

#include "fbddp/job_queue.h"
#include "fbddp/scan_context.h"

namespace velmarin {

class digest_read_ahead {
 public:
  // Takes over a digest job and does it, at once or in one of the next calls. Files are read one
  // after the other in the order in which their jobs came.
  void add(sis_context *ctx, job *taken);

  // Does all jobs. To be called before the worker turns to something else. Returns whether there
  // was any.
  bool do_all(sis_context *ctx);

 private:
  static constexpr unsigned CAPACITY = 4;

  void do_oldest(sis_context *ctx);

  job *ring_[CAPACITY];
  unsigned oldest_ = 0;
  unsigned count_ = 0;
};

}  // namespace velmarin
