// The name of a run's digest file.
#pragma once

#include "fbddp/scan_context.h"

namespace velmarin {

// Stores the name of the digest file, the SHA-256 of the root paths, in `pname`: the same roots in
// the same order find the digests of their last run. Returns 0, or the result with which the run
// ends: the errno of the failed call, or 1.
int name_digest_file(sis_context *ctx, const char **roots, int root_count);

}  // namespace velmarin
