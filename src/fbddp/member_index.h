// An index of the inodes in the groups of a forest tree. With it, finding a second name of an inode
// takes one step however large the group is. Without it, or once it cannot grow, the members are
// searched one by one.
//
// An index belongs to one tree and is guarded by that tree's forest lock.
#pragma once

#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

// Makes the run's indexes, all empty. On failure the run goes on without them.
void make_member_indexes(sis_context *ctx);

void free_member_indexes(sis_context *ctx);

// Whether the tree node `head`, which heads a group in tree `tree`, has a member with the inode
// number of `file`.
bool group_holds_inode_of(const sis_context *ctx, size_t tree, dentry *head, const dentry *file);

// Notes that `file` has become a member of the group of `head`.
void index_member(sis_context *ctx, size_t tree, const dentry *head, const dentry *file);

}  // namespace velmarin
