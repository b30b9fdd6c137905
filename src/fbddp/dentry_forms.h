// The forms that a file's dentry takes during a scan, and where each form stores the file's own
// attributes. Its fields overlap, so no other code interprets them:
//
// - An unexamined file, or a tree node without a group, has them in `own`.
// - A tree node with a group has `group` in their place, and each member holds the node's
//   attributes beside its own.
// - A member of a group has them in `member`, and `group` is its link.
// - After the grouping, the first file on the `same` list of the former tree node holds the node's
//   attributes; every other head of identical files still has its own in `member`.
//
// While the walk runs, the caller holds the file's forest lock. During the grouping a group belongs
// to the worker that splits it.
#pragma once

#include <cstdint>

#include "fbddp/dentry.h"

namespace velmarin {

struct file_attributes {
  int32_t status;   // result of the status callback
  uint64_t blocks;  // st_blocks
};

// Whether a tree node heads a group of candidates; not valid for a member. During the walk, call it
// under the forest lock.
inline bool heads_group(const dentry *file) {
  return file->own.group_marker != MARKER_NOT_SET;
}

// Whether a file holds member data: it is a member of a group, or was never examined.
inline bool has_member_data(const dentry *file) {
  return file->member.marker == MARKER_NOT_SET;
}

// Records the attributes of an unexamined file.
void set_own_attributes(dentry *file, const file_attributes &attributes);

// Adds an examined file to the group of the tree node `head`, which need not head one yet.
void become_member(dentry *file, dentry *head);

// Returns a tree node that has lost its group to the form without one. `attributes` are its own,
// read before its group was split.
void restore_head(dentry *node, const file_attributes &attributes);

// A file's own attributes, wherever its form stores them.
file_attributes attributes_of(const dentry *file);

}  // namespace velmarin
