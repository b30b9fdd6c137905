// The forest: candidate files by size and, from PATTERN_MIN_SIZE on, by pattern, in FOREST_TREES
// trees; and the splitting of files with the same key into groups of identical content.
//
// A file whose key is new becomes a tree node. A file whose key is there joins the group of that
// node, and both are queued for their digests. So a file that is alone with its key is never read.
#pragma once

#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

// Inserts an examined file. `fd` is open on it and `path` is its full path. Takes the forest lock
// of its size. Returns false when another dentry of the same inode is there already: the caller
// then drops this one.
bool insert_into_forest(sis_context *ctx, dentry *file, int fd, const char *path);

// The grouping job of a tree node: splits its group by digest. Appends the head of each set of two
// or more identical files to the run's `groups`; the others of the set are on the head's `same`
// list. No other worker touches this node's group meanwhile.
void split_group(sis_context *ctx, dentry *node);

// A file's status and allocated blocks, wherever its present form keeps them: they move into the
// members of a group when the file becomes its head. For use after the grouping.
struct file_attributes {
  int32_t status;
  uint64_t blocks;
};
file_attributes attributes_of(const dentry *file);

}  // namespace velmarin
