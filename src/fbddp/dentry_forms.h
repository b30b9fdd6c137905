// The forms that a file's dentry takes on its way through a scan, and where it keeps its own
// attributes in each. Its fields overlap, so nothing else interprets them:
//
// - An unexamined file, or a tree node without a group, keeps them in `own`.
// - A tree node with a group has `group` in their place, and each member carries the node's
//   attributes beside its own.
// - A member of a group keeps them in `member`, and `group` is its link.
// - After the grouping, the first file on the `same` list of the former tree node carries the
//   node's attributes; every other head of identical files has kept its own in `member`.
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

// Whether a tree node heads a group of candidates; it means nothing for a member. To be asked under
// the forest lock during the walk.
inline bool heads_group(const dentry *file) {
  return file->own.group_marker != MARKER_NOT_SET;
}

// Whether a file holds member data: it is a member of a group, or was never examined.
inline bool has_member_data(const dentry *file) {
  return file->member.marker == MARKER_NOT_SET;
}

// Records the attributes of an unexamined file.
void set_own_attributes(dentry *file, const file_attributes &attributes);

// Turns an examined file into a member of the group that the tree node `head` heads from now on.
void become_member(dentry *file, dentry *head);

// Makes a tree node whose group is gone a node without a group again. `attributes` are its own,
// read before its group was taken apart.
void restore_head(dentry *node, const file_attributes &attributes);

// A file's own attributes, wherever its form keeps them.
file_attributes attributes_of(const dentry *file);

}  // namespace velmarin
