// The index of group members by group and inode number.

#include "fbddp/member_index.h"

#include <cstdint>
#include <cstdlib>

#include "common/hash_set.h"
#include "fbddp/file_key.h"

namespace velmarin {

struct group_member {
  const dentry *head;
  uint32_t inode;

  bool is_empty() const { return head == nullptr; }
  uint64_t hash() const { return mix_bits(reinterpret_cast<uintptr_t>(head) ^ inode); }
  bool equals(const group_member &other) const {
    return head == other.head && inode == other.inode;
  }
};

struct member_index {
  hash_set<group_member> members;
  bool incomplete;  // a member could not be added
};

void make_member_indexes(sis_context *ctx) {
  ctx->member_indexes = static_cast<member_index *>(calloc(FOREST_TREES, sizeof(member_index)));
}

void free_member_indexes(sis_context *ctx) {
  for (size_t tree = 0; ctx->member_indexes != nullptr && tree < FOREST_TREES; tree++) {
    hash_set_free(&ctx->member_indexes[tree].members);
  }
  free(ctx->member_indexes);
  ctx->member_indexes = nullptr;
}

bool group_holds_inode_of(const sis_context *ctx, size_t tree, dentry *head, const dentry *file) {
  const uint32_t inode = inode_of_key(file->key);
  const member_index *index = ctx->member_indexes == nullptr ? nullptr : &ctx->member_indexes[tree];
  if (index != nullptr && !index->incomplete) {
    return hash_set_find(&index->members, group_member{head, inode}) != nullptr;
  }
  for (const dentry &member : list_range<&dentry::group>(&head->group)) {
    if (inode_of_key(member.key) == inode) {
      return true;
    }
  }
  return false;
}

void index_member(sis_context *ctx, size_t tree, const dentry *head, const dentry *file) {
  if (ctx->member_indexes == nullptr) {
    return;
  }
  member_index *index = &ctx->member_indexes[tree];
  const group_member member = {head, inode_of_key(file->key)};
  if (!index->incomplete && !hash_set_add(&index->members, member)) {
    index->incomplete = true;
    hash_set_free(&index->members);
  }
}

}  // namespace velmarin
