// The hash table of saved digests: the digest file in memory, keyed by file key. The run's own
// thread builds it before the walk. During the walk workers search it and take records out of its
// entries; nothing else changes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "common/list.h"
#include "fbddp/scan_context.h"
#include "velmarin/primitives.h"

namespace velmarin {

inline constexpr size_t DIGEST_SIZE = 32;

// The saved digest of one file: a separate heap block, with the same layout in memory and on disk
// (little-endian). A hash_entry owns it after a load, a dentry once its file has taken or computed
// it. A digest computed in this run fills in `digest` only.
struct usable_hash {
  uint32_t ino;  // with `dev`: the file key as one 64-bit word
  uint32_t dev;
  int64_t mtime_sec;  // st_mtim of the file when it was examined
  int64_t mtime_nsec;
  uint8_t digest[DIGEST_SIZE];  // SHA-256 of the whole content
};
static_assert(sizeof(usable_hash) == 56 && offsetof(usable_hash, dev) == 4 &&
              offsetof(usable_hash, mtime_sec) == 8 && offsetof(usable_hash, mtime_nsec) == 16 &&
              offsetof(usable_hash, digest) == 24);

struct hash_entry {
  usable_hash *record;  // owned; null once a file has taken it
  uint64_t key;         // the record's file key, set when the entry is indexed
  rb_node node;         // in the bucket's tree
  list_head link;       // in the run's `hash_entries`, which owns the entry
};
static_assert(sizeof(hash_entry) == 56 && offsetof(hash_entry, node) == 16 &&
              offsetof(hash_entry, link) == 40);

// Returns the entry with this key; null when there is none or no table. Any number of workers may
// search the table at once.
hash_entry *lookup_hash_table(const sis_context *ctx, uint64_t key);

// Frees all entries, the records that no file took, and the table.
void drop_hash_table(sis_context *ctx);

}  // namespace velmarin
