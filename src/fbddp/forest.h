// The forest: candidate files in FOREST_TREES trees, ordered by size and, from PATTERN_MIN_SIZE up,
// by pattern.
//
// A file with a new key becomes a tree node. A file whose key is already there joins that node's
// group, and both are queued for their digests. So a file whose key is unique is never read in
// full.
#pragma once

#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

// Inserts an examined file. `fd` is open on it and `path` is its full path. Takes the forest lock
// of its size. Returns false when another dentry of the same inode is already there; the caller
// then drops this one.
bool insert_into_forest(sis_context *ctx, dentry *file, int fd, const char *path);

}  // namespace velmarin
