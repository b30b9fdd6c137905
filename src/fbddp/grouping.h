// The grouping: after the walk, files with the same key are split into groups of identical content.
#pragma once

#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

// The grouping job of a tree node: splits its group by digest. Appends the head of each set of two
// or more identical files to the run's `groups`; the others of the set are on the head's `same`
// list. No other worker touches this node's group.
void split_group(sis_context *ctx, dentry *node);

}  // namespace velmarin
