// Fetches small files from the disk before a worker reads them.
#pragma once

#include "fbddp/scan_context.h"

namespace velmarin {

// Asks the kernel for the content of small files whose digest jobs are next in the queue, so that
// the disk stays busy while another file is read. The jobs stay there for any worker, and no file
// stays open. Does nothing once the run is told to stop. Call it from a worker that is about to
// read a file.
void read_ahead(sis_context *ctx);

}  // namespace velmarin
