#include "fbddp/dentry_forms.h"

#include "common/list.h"

namespace velmarin {

void set_own_attributes(dentry *file, const file_attributes &attributes) {
  file->own.status = attributes.status;
  file->own.blocks = attributes.blocks;
}

void become_member(dentry *file, dentry *head) {
  const own_attributes own = file->own;
  file->member.marker = MARKER_NOT_SET;
  file->member.own_status = static_cast<int16_t>(own.status);
  file->member.own_blocks = own.blocks;
  if (!heads_group(head)) {
    file->member.head_status = static_cast<int16_t>(head->own.status);
    file->member.head_blocks = head->own.blocks;
    list_init(&head->group);
  } else {
    const dentry *last = owner_of<&dentry::group>(head->group.prev);
    file->member.head_status = last->member.head_status;
    file->member.head_blocks = last->member.head_blocks;
  }
  list_append(&head->group, &file->group);
}

void restore_head(dentry *node, const file_attributes &attributes) {
  node->own = {attributes.status, MARKER_NOT_SET, attributes.blocks};
}

file_attributes attributes_of(const dentry *file) {
  if (has_member_data(file)) {
    return {file->member.own_status, file->member.own_blocks};
  }
  if (!heads_group(file)) {
    return {file->own.status, file->own.blocks};
  }
  const dentry *first = list_is_empty(&file->same) ? owner_of<&dentry::group>(file->group.next)
                                                   : owner_of<&dentry::same>(file->same.next);
  return {first->member.head_status, first->member.head_blocks};
}

}  // namespace velmarin
