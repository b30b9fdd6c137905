// The walk: reading directories and admitting files as candidates.
#pragma once

#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

// Reads the directory of a directory-form dentry: makes a dentry and, while there is time, a job
// for every entry. The dentry is dropped when it is no directory, cannot be opened, is to be
// skipped or lies at the depth limit; the first four are neither logged nor counted as errors.
void read_directory(sis_context *ctx, dentry *directory);

// Examines a file-form dentry for the first time: a regular file that is not to be skipped, passes
// the filter and has the minimum size goes into the forest; otherwise the dentry is dropped.
void admit_file(sis_context *ctx, dentry *file);

}  // namespace velmarin
