// Helpers that the library exports besides its operations: time text, CRC-64, the red-black tree,
// the hash table of saved digests and the digest file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "velmarin/export.h"

namespace velmarin {

// Records of the scan engine. Ordinary hosts never use them. The functions that take them are for
// hosts that build their own context, as described in src/fbddp/scan_context.h and file_index.h.
struct sis_context;
struct hash_entry;
struct dentry;

// A node of a red-black tree, embedded in its owner's record, which must be aligned to 4 bytes.
struct rb_node {
  uintptr_t parent_color;  // address of the parent; bit 0 is the colour: 0 red, 1 black. A node
                           // whose parent address is its own is in no tree.
  rb_node *right;          // greater keys
  rb_node *left;           // smaller keys
};
static_assert(sizeof(rb_node) == 3 * sizeof(void *) &&
              offsetof(rb_node, left) == 2 * sizeof(void *));

// A tree; null is the empty tree, so zero-filled memory holds empty trees.
struct rb_root {
  rb_node *node;
};
static_assert(sizeof(rb_root) == sizeof(void *));

}  // namespace velmarin

extern "C" {

// Writes the local date and time of `ts` to `buf` as "YYYY-MM-DD hh:mm:ss", followed by a decimal
// point and nine digits unless the nanoseconds are 0. Nothing is written at or beyond `buf[len]`.
//
// Returns 0; 1 when the time cannot be converted or the fraction does not fit (`buf` then holds
// date and time); 2 when date and time do not fit; 3 when the text fills the buffer. Thread-safe.
VELMARIN_EXPORT int timespec2str(char *buf, unsigned len, const struct timespec *ts);

// CRC-64/ECMA-182, most significant bit first, no final inversion (ECMA-182, annex B). Returns the
// CRC of the `len` bytes at `p`, continued from `crc`; pass 0 to start. Thread-safe.
VELMARIN_EXPORT uint64_t crc64_be(uint64_t crc, const void *p, size_t len);

// CRC-64/NVME, also known as Rocksoft, reflected, inverted before and after (NVM Express NVM
// Command Set, section 5.2.1.3.4). Returns the CRC of the `len` bytes at `p`, continued from `crc`;
// pass 0 to start. Thread-safe.
VELMARIN_EXPORT uint64_t crc64_rocksoft_generic(uint64_t crc, const void *p, size_t len);

// Rebalances the tree after `node` was linked as a red leaf: its `parent_color` set to the address
// of its parent, its children to null, and the parent's child pointer (or the root) to the node.
// (Cormen, Leiserson, Rivest, Stein: Introduction to Algorithms, chapter 13.) The tree functions do
// not lock: the caller guards its tree.
VELMARIN_EXPORT void rb_insert_color(velmarin::rb_node *node, velmarin::rb_root *root);

// Takes `node` out of the tree and rebalances. The node's own fields are undefined afterwards.
VELMARIN_EXPORT void rb_erase(velmarin::rb_node *node, velmarin::rb_root *root);

// Returns the node with the smallest key, or null for an empty tree.
VELMARIN_EXPORT velmarin::rb_node *rb_first(const velmarin::rb_root *root);

// Returns the node with the next greater key; null after the last node and for a node that is in no
// tree.
VELMARIN_EXPORT velmarin::rb_node *rb_next(const velmarin::rb_node *node);

// Gives `ctx` an empty hash table of saved digests. Returns 0, or 1 when out of memory.
VELMARIN_EXPORT int initialize_hash_table(velmarin::sis_context *ctx);

// Indexes `entry` by its file key. Its record must be set, and it must be on the context's list of
// entries. A second entry with the same key is logged and not indexed.
VELMARIN_EXPORT void add_to_hash_table(velmarin::sis_context *ctx, velmarin::hash_entry *entry);

// Takes `d` off the context's list of dentries and frees it with the digest record it owns.
VELMARIN_EXPORT void free_entry(velmarin::sis_context *ctx, velmarin::dentry *d);

// Reads the digest file of `ctx` in `save_dir` into the hash table and removes the file. Returns
// the number of records read, or -1; the caller then discards whatever was loaded.
VELMARIN_EXPORT int64_t load_usable_hash(velmarin::sis_context *ctx, const char *save_dir);

// Writes one record for every file of `ctx` that has a digest to its digest file in `save_dir`.
// Returns the number of records written, even if a later write failed and the file was removed.
VELMARIN_EXPORT int64_t save_usable_hash(velmarin::sis_context *ctx, const char *save_dir);

// The suffix of digest files: one element, ".hsh".
VELMARIN_EXPORT extern const char *suffix_list[1];

}  // extern "C"
