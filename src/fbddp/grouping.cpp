// Splits groups by digest.

#include "fbddp/grouping.h"

#include <cstring>

#include "common/hash_set.h"
#include "fbddp/dentry_forms.h"
#include "fbddp/file_index.h"

namespace velmarin {
namespace {

// The first candidate with a given digest.
struct digest_head {
  dentry *file;
  const uint8_t *digest;

  bool is_empty() const { return file == nullptr; }
  // The bits of a digest are already well spread.
  uint64_t hash() const {
    uint64_t word = 0;
    memcpy(&word, digest, sizeof(word));
    return word;
  }
  bool equals(const digest_head &other) const {
    return memcmp(digest, other.digest, DIGEST_SIZE) == 0;
  }
};

// Searches the candidates before `wanted` one by one.
dentry *find_head_in_list(list_head *candidates, const digest_head &wanted) {
  for (list_head *link = candidates->next; link != &wanted.file->group; link = link->next) {
    dentry *earlier = owner_of<&dentry::group>(link);
    const usable_hash *record = digest_record_of(earlier);
    if (record != nullptr && wanted.equals({earlier, record->digest})) {
      return earlier;
    }
  }
  return nullptr;
}

// Moves each file to the `same` list of the first candidate that has its digest. A hash set finds
// that candidate, or a linear search once there is no memory for the set.
void collect_identical(list_head *candidates) {
  hash_set<digest_head> heads = {};
  bool indexed = true;
  for (list_head *link = candidates->next; link != candidates;) {
    dentry *file = owner_of<&dentry::group>(link);
    link = link->next;
    const usable_hash *record = digest_record_of(file);
    if (record == nullptr) {
      continue;
    }
    const digest_head wanted = {file, record->digest};
    const digest_head *found = hash_set_find(&heads, wanted);
    dentry *head = found != nullptr ? found->file : nullptr;
    if (!indexed) {
      head = find_head_in_list(candidates, wanted);
    }
    if (head != nullptr) {
      list_unlink(&file->group);
      list_append(&head->same, &file->same);
    } else if (indexed && !hash_set_add(&heads, wanted)) {
      indexed = false;
    }
  }
  hash_set_free(&heads);
}

// Moves the files whose `same` list is not empty to `result`, in order.
void move_heads(list_head *candidates, list_head *result) {
  for (list_head *link = candidates->next; link != candidates;) {
    dentry *file = owner_of<&dentry::group>(link);
    link = link->next;
    if (!list_is_empty(&file->same)) {
      list_unlink(&file->group);
      list_append(result, &file->group);
    }
  }
}

}  // namespace

void split_group(sis_context *ctx, dentry *node) {
  if (!heads_group(node) || list_is_empty(&node->group)) {
    return;
  }
  const file_attributes own = attributes_of(node);

  // The node's own link becomes the first element of a separate list.
  list_head candidates;
  list_append(&node->group, &candidates);
  list_head result;
  list_init(&result);
  collect_identical(&candidates);
  move_heads(&candidates, &result);

  // The remaining files stay in a ring without a head.
  list_unlink(&candidates);
  if (list_is_empty(&node->same) && list_is_empty(&node->group)) {
    restore_head(node, own);
  }
  if (!list_is_empty(&result)) {
    const spinlock_guard guard(&ctx->groups_lock);
    list_append_all(&ctx->groups, &result);
  }
}

}  // namespace velmarin
