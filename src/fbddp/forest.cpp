// Insertion into the forest and the splitting of groups.

#include "fbddp/forest.h"

#include <cstring>

#include "common/atomic_word.h"
#include "common/rbtree.h"
#include "fbddp/file_index.h"
#include "fbddp/file_key.h"
#include "fbddp/fingerprint.h"
#include "fbddp/job_queue.h"

namespace velmarin {
namespace {

// A candidate on its way into the forest.
struct candidate {
  dentry *file;
  int fd;
  const char *path;
};

// Computes the patterns of both files unless they are known. One that fails does not keep the other
// from being computed.
bool have_patterns(const candidate &added, dentry *present) {
  const bool have_added =
      added.file->pattern != 0 || make_pattern(added.file, added.path, added.fd) == 0;
  const bool have_present = present->pattern != 0 || make_pattern(present, nullptr, -1) == 0;
  return have_added && have_present;
}

// The order of keys. Files whose patterns cannot be had compare as equal: their digests will keep
// them apart.
int compare_with_node(const candidate &added, rb_node *node) {
  dentry *present = owner_of<&dentry::node>(node);
  const int order = compare_keys(added.file->size, present->size);
  if (order != 0 || added.file->size < PATTERN_MIN_SIZE || !have_patterns(added, present)) {
    return order;
  }
  return compare_keys(added.file->pattern, present->pattern);
}

bool is_same_inode(const dentry *left, const dentry *right) {
  return inode_of_key(left->key) == inode_of_key(right->key);
}

bool group_holds_inode_of(dentry *head, const dentry *file) {
  for (const dentry &member : list_range<&dentry::group>(&head->group)) {
    if (is_same_inode(&member, file)) {
      return true;
    }
  }
  return false;
}

// Turns `file` into a member of the group of `head`. The head's status and blocks live on in its
// members, since its own fields give way to the list.
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

void want_digest(sis_context *ctx, dentry *file) {
  store_release(&file->hash, hash_pending());
  if (load_relaxed(&ctx->in_time) != 0) {
    schedule_job(ctx, file);
  }
}

// The forest lock is held. Returns false for a second dentry of an inode.
bool join_group(sis_context *ctx, dentry *file, dentry *head) {
  if (is_same_inode(file, head) || (heads_group(head) && group_holds_inode_of(head, file))) {
    return false;
  }
  become_member(file, head);
  if (load_acquire(&head->hash) == nullptr) {
    want_digest(ctx, head);
  }
  want_digest(ctx, file);
  return true;
}

bool has_digest_of(const dentry *left, const usable_hash *right) {
  const usable_hash *record = digest_record_of(left);
  return record != nullptr && memcmp(record->digest, right->digest, DIGEST_SIZE) == 0;
}

// Moves the files after `head` on the list that have its digest to its `same` list.
void collect_identical(list_head *candidates, dentry *head, const usable_hash *record) {
  for (list_head *link = head->group.next; link != candidates;) {
    dentry *other = owner_of<&dentry::group>(link);
    link = link->next;
    if (has_digest_of(other, record)) {
      list_unlink(&other->group);
      list_append(&head->same, &other->same);
    }
  }
}

// Moves each file that has identical ones among the candidates to `result`, with those on its
// `same` list. Files without a digest or without a partner stay.
void split_by_digest(list_head *candidates, list_head *result) {
  for (list_head *link = candidates->next; link != candidates;) {
    dentry *head = owner_of<&dentry::group>(link);
    const usable_hash *record = digest_record_of(head);
    if (record != nullptr) {
      collect_identical(candidates, head, record);
    }
    link = link->next;
    if (!list_is_empty(&head->same)) {
      list_unlink(&head->group);
      list_append(result, &head->group);
    }
  }
}

}  // namespace

bool insert_into_forest(sis_context *ctx, dentry *file, int fd, const char *path) {
  const candidate added = {file, fd, path};
  const size_t tree = file->size & (FOREST_TREES - 1);
  rb_root *root = &ctx->rbtree_roots[tree];

  const spinlock_guard guard(&ctx->forest_lock[tree]);
  const rb_position position =
      rb_search(root, [&added](rb_node *node) { return compare_with_node(added, node); });
  if (position.match != nullptr) {
    return join_group(ctx, file, owner_of<&dentry::node>(position.match));
  }
  rb_insert_at(position, &file->node, root);
  return true;
}

void split_group(sis_context *ctx, dentry *node) {
  if (!heads_group(node) || list_is_empty(&node->group)) {
    return;
  }
  const member_data first = owner_of<&dentry::group>(node->group.next)->member;

  // The node's own link becomes the first element of a list of its own.
  list_head candidates;
  list_init(&candidates);
  list_append(&node->group, &candidates);
  list_head result;
  list_init(&result);
  split_by_digest(&candidates, &result);

  // What is left stays a ring without a head.
  list_unlink(&candidates);
  if (list_is_empty(&node->same) && list_is_empty(&node->group)) {
    node->own = {first.head_status, MARKER_NOT_SET, first.head_blocks};
  }
  if (!list_is_empty(&result)) {
    const spinlock_guard guard(&ctx->groups_lock);
    list_append_all(&ctx->groups, &result);
  }
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
