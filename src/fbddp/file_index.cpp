// The hash table of saved digests: 4096 buckets, each a red-black tree ordered by file key.

#include "fbddp/file_index.h"

#include <bounds_checked.h>

#include <cstdlib>
#include <cstring>

#include "common/heap_ptr.h"
#include "common/log.h"
#include "common/rbtree.h"

namespace velmarin {
namespace {

constexpr unsigned HASH_BUCKETS = 4096;

rb_root *bucket_of(const sis_context *ctx, uint64_t key) {
  return &ctx->hash_table[key & (HASH_BUCKETS - 1)];
}

uint64_t key_of(const usable_hash *record) {
  uint64_t key = 0;
  memcpy(&key, record, sizeof(key));
  return key;
}

// Compares a key with that of a bucket's node.
auto order_of(uint64_t key) {
  return [key](rb_node *node) { return compare_keys(key, owner_of<&hash_entry::node>(node)->key); };
}

}  // namespace

hash_entry *lookup_hash_table(const sis_context *ctx, uint64_t key) {
  if (ctx->hash_table == nullptr) {
    return nullptr;
  }
  rb_node *match = rb_find(bucket_of(ctx, key), order_of(key));
  return match == nullptr ? nullptr : owner_of<&hash_entry::node>(match);
}

void drop_hash_table(sis_context *ctx) {
  while (!list_is_empty(&ctx->hash_entries)) {
    hash_entry *entry = owner_of<&hash_entry::link>(ctx->hash_entries.next);
    list_unlink(&entry->link);
    free(entry->record);
    free(entry);
  }
  free(ctx->hash_table);
  ctx->hash_table = nullptr;
}

}  // namespace velmarin

using namespace velmarin;

int initialize_hash_table(sis_context *ctx) {
  constexpr size_t TABLE_SIZE = HASH_BUCKETS * sizeof(rb_root);
  ctx->hash_table = nullptr;
  heap_ptr<rb_root> table = heap_allocate<rb_root>(TABLE_SIZE);
  if (table == nullptr) {
    log_erro("fail to allocate %u hash buckets\n", HASH_BUCKETS);
    return 1;
  }
  if (memset_s(table.get(), TABLE_SIZE, 0, TABLE_SIZE) != 0) {
    return 1;
  }
  ctx->hash_table = table.release();
  return 0;
}

void add_to_hash_table(sis_context *ctx, hash_entry *entry) {
  entry->key = key_of(entry->record);
  rb_root *bucket = bucket_of(ctx, entry->key);
  const rb_position position = rb_search(bucket, order_of(entry->key));
  if (position.match != nullptr) {
    log_erro("same dev:ino found in hash table for %u:%u\n", entry->record->dev,
             entry->record->ino);
    return;
  }
  rb_insert_at(position, &entry->node, bucket);
}
