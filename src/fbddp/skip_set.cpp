// Skip entries: one record for each accepted skip path, in the tree for its type.

#include "fbddp/skip_set.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/heap_ptr.h"
#include "common/log.h"
#include "common/rbtree.h"
#include "common/unique_fd.h"
#include "fbddp/file_key.h"

namespace velmarin {
namespace {

struct skip_entry {
  uint64_t key;    // file key
  rb_node node;    // in `file_skips` or `dir_skips`
  list_head link;  // in `skip_entries`, which owns the entry
};

// Compares a key with that of a skip set's node.
auto order_of(uint64_t key) {
  return [key](rb_node *node) { return compare_keys(key, owner_of<&skip_entry::node>(node)->key); };
}

// The set that a file of this type belongs to, or null for a type that cannot be skipped.
rb_root *set_for_type(sis_context *ctx, mode_t mode) {
  if (S_ISREG(mode)) {
    return &ctx->file_skips;
  }
  return S_ISDIR(mode) ? &ctx->dir_skips : nullptr;
}

// Stats the entry at `path` without following a symbolic link. Returns whether that worked.
bool stat_skip_path(const char *path, struct stat *status) {
  unique_fd fd(open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW));
  if (!fd.is_open()) {
    const int error = errno;
    log_info("failed to open skip entry %s returned %s", path, strerror(error));
    return false;
  }
  const int error = fstat(fd.get(), status) == 0 ? 0 : errno;
  fd.reset();
  if (error != 0) {
    log_info("fail to stat %s skip entry returned %s", path, strerror(error));
    return false;
  }
  return true;
}

void add_skip_entry(sis_context *ctx, const char *path) {
  struct stat status = {};
  if (!stat_skip_path(path, &status)) {
    return;
  }
  rb_root *set = set_for_type(ctx, status.st_mode);
  if (set == nullptr) {
    log_info("skip entry %s is not a file nor a directory", path);
    return;
  }
  heap_ptr<skip_entry> entry = heap_allocate<skip_entry>();
  if (entry == nullptr) {
    log_info("failed to allocate entry for %s", path);
    return;
  }
  entry->key = file_key_of(status);
  const rb_position position = rb_search(set, order_of(entry->key));
  if (position.match != nullptr) {
    log_info("duplicated skip entry of %s", path);
    return;
  }
  list_append(&ctx->skip_entries, &entry->link);
  rb_insert_at(position, &entry.release()->node, set);
}

}  // namespace

void add_skip_entries(sis_context *ctx, const char **paths, int count) {
  for (int i = 0; i < count; i++) {
    add_skip_entry(ctx, paths[i]);
  }
}

bool is_skipped(const rb_root *set, uint64_t key) {
  return rb_find(set, order_of(key)) != nullptr;
}

void free_skip_entries(sis_context *ctx) {
  while (!list_is_empty(&ctx->skip_entries)) {
    skip_entry *entry = owner_of<&skip_entry::link>(ctx->skip_entries.next);
    list_unlink(&entry->link);
    free(entry);
  }
  ctx->file_skips.node = nullptr;
  ctx->dir_skips.node = nullptr;
}

}  // namespace velmarin
