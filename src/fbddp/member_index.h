// An index of the inodes in the groups of a forest tree. With it, finding a second name of an inode
// takes constant time, however large the group is. Without it, or once it cannot grow, the members
// are searched one by one.
//
// An index belongs to one tree and is guarded by that tree's forest lock.
#pragma once

#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

// Creates the run's indexes, all empty. If that fails, the run does without them.
void make_member_indexes(sis_context *ctx);

void free_member_indexes(sis_context *ctx);

// Whether the tree node `head`, which heads a group in tree `tree`, has a member with the inode
// number of `file`.
bool group_holds_inode_of(const sis_context *ctx, size_t tree, dentry *head, const dentry *file);

// Records that `file` has become a member of the group of `head`.
void index_member(sis_context *ctx, size_t tree, const dentry *head, const dentry *file);

}  // namespace velmarin
