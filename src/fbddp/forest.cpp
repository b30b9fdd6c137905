// Inserts files into the forest.

#include "fbddp/forest.h"

#include "common/atomic_word.h"
#include "common/rbtree.h"
#include "fbddp/dentry_forms.h"
#include "fbddp/file_key.h"
#include "fbddp/fingerprint.h"
#include "fbddp/job_queue.h"
#include "fbddp/member_index.h"

namespace velmarin {
namespace {

// A candidate on its way into the forest.
struct candidate {
  dentry *file;
  int fd;
  const char *path;
};

// Computes the patterns of both files unless they are known; the second even if the first fails.
bool ensure_patterns(const candidate &added, dentry *present) {
  const bool have_added =
      added.file->pattern != 0 || make_pattern(added.file, added.path, added.fd) == 0;
  const bool have_present = present->pattern != 0 || make_pattern(present, nullptr, -1) == 0;
  return have_added && have_present;
}

// The order of keys. Files without a pattern compare as equal: their digests will tell them apart.
int compare_with_node(const candidate &added, rb_node *node) {
  dentry *present = owner_of<&dentry::node>(node);
  const int order = compare_keys(added.file->size, present->size);
  if (order != 0 || added.file->size < PATTERN_MIN_SIZE || !ensure_patterns(added, present)) {
    return order;
  }
  return compare_keys(added.file->pattern, present->pattern);
}

void request_digest(sis_context *ctx, dentry *file) {
  store_release(&file->hash, hash_pending());
  if (load_relaxed(&ctx->in_time) != 0) {
    schedule_job(ctx, file);
  }
}

// The caller holds the forest lock. Returns false for a second dentry of an inode.
bool join_group(sis_context *ctx, size_t tree, dentry *file, dentry *head) {
  if (inode_of_key(file->key) == inode_of_key(head->key) ||
      (heads_group(head) && group_holds_inode_of(ctx, tree, head, file))) {
    return false;
  }
  become_member(file, head);
  index_member(ctx, tree, head, file);
  if (load_acquire(&head->hash) == nullptr) {
    request_digest(ctx, head);
  }
  request_digest(ctx, file);
  return true;
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
    return join_group(ctx, tree, file, owner_of<&dentry::node>(position.match));
  }
  rb_insert_at(position, &file->node, root);
  return true;
}

}  // namespace velmarin
