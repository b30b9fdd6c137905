// The walk: reading directories and admitting files as candidates.
#pragma once

#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

// Reads the directory of a directory-form dentry: creates a dentry and, while there is time, a job
// for every entry. Drops the dentry when it is at the depth limit, cannot be opened or examined,
// is not a directory, is in the skip set, is refused by the filter, or cannot be read as a stream.
// Only the last is logged and counted as an error.
void read_directory(sis_context *ctx, dentry *directory);

// Examines a file-form dentry for the first time. A regular file that is not in the skip set,
// passes the filter and has the minimum size goes into the forest; any other dentry is dropped.
void admit_file(sis_context *ctx, dentry *file);

}  // namespace velmarin
