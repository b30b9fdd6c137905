// The record of a directory entry reached by a scan.
//
// A dentry has one of two forms, chosen at creation. Entries that the directory lists as regular
// files get the file form; everything else, and every root, gets the directory form. A dentry is
// one allocation: the header of its form, then its name.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "common/atomic_word.h"
#include "common/list.h"
#include "fbddp/scan_context.h"
#include "velmarin/primitives.h"

namespace velmarin {

struct usable_hash;

// A 32-bit marker word that is not set.
inline constexpr uint32_t MARKER_NOT_SET = 0xFFFFFFFF;

// Set in the parent word of a dentry of the file form. User-space addresses never have this bit.
inline constexpr uintptr_t DENTRY_FILE_TAG = uintptr_t{1} << 54;

// The depth of a directory is kept modulo 2048.
inline constexpr uint64_t DENTRY_DEPTH_MASK = 0x7ff;

// What a member of a candidate group stores where a tree node has its tree link.
struct member_data {
  int16_t own_status;
  int16_t head_status;  // of the tree node that heads the group
  uint32_t marker;      // MARKER_NOT_SET; in a tree node the upper half of the parent word
  uint64_t own_blocks;
  uint64_t head_blocks;  // of the tree node
};
static_assert(sizeof(member_data) == sizeof(rb_node));

// A file's own attributes, until it becomes the head or a member of a group. A head left without a
// group gets them back.
struct own_attributes {
  int32_t status;         // result of the status callback
  uint32_t group_marker;  // MARKER_NOT_SET while the dentry heads no group; in a list link the
                          // upper half of a pointer
  uint64_t blocks;        // st_blocks
};
static_assert(sizeof(own_attributes) == sizeof(list_head));

struct dentry {
  list_head link;         // in the run's `dentries`; guarded by dentries_lock
  uintptr_t parent_word;  // address of the parent, 0 for a root; DENTRY_FILE_TAG
  union {
    uint64_t depth;  // directory form: depth below its root
    uint64_t size;   // file form: st_size when examined
  };

  // The fields from here on exist only in the file form; in the directory form the name starts
  // here. Until the file is inserted into the forest they belong to the worker that examines it.
  // `key`, `size` and `mtime` never change after that. While the walk runs, the forest lock of the
  // file's size guards the others, except for `hash`.
  uint64_t key;           // file key: inode number, then device number
  struct timespec mtime;  // st_mtim when examined
  union {
    rb_node node;        // while the dentry is a node of the forest
    member_data member;  // while it is unexamined or a member of a group
  };
  union {
    own_attributes own;
    list_head group;  // tree node: head of its members; member: link among them; after grouping, in
                      // the head of a group of identical files: link in the run's `groups`
  };
  list_head same;     // head of a group of identical files: the others; in those: link
  uint64_t pattern;   // CRC-64 of sampled content; 0: not computed
  usable_hash *hash;  // digest record, owned; null or HASH_PENDING: none. The file's digest
                      // job writes it without a lock, so all access is atomic
};

inline constexpr size_t DIRECTORY_HEADER_SIZE = offsetof(dentry, key);
inline constexpr size_t FILE_HEADER_SIZE = sizeof(dentry);
static_assert(DIRECTORY_HEADER_SIZE == 32 && FILE_HEADER_SIZE == 128);
static_assert(offsetof(dentry, mtime) == 40 && sizeof(struct timespec) == 16 &&
              offsetof(dentry, node) == 56 && offsetof(dentry, own) == 80 &&
              offsetof(dentry, same) == 96 && offsetof(dentry, pattern) == 112 &&
              offsetof(dentry, hash) == 120);

// HASH_PENDING: the value of `hash` while a digest is pending.
inline usable_hash *hash_pending() {
  return reinterpret_cast<usable_hash *>(UINTPTR_MAX);
}

inline bool is_file_form(const dentry *d) {
  return (d->parent_word & DENTRY_FILE_TAG) != 0;
}

inline dentry *parent_of(const dentry *d) {
  return reinterpret_cast<dentry *>(d->parent_word & ~DENTRY_FILE_TAG);
}

inline char *name_of(dentry *d) {
  return reinterpret_cast<char *>(d) + (is_file_form(d) ? FILE_HEADER_SIZE : DIRECTORY_HEADER_SIZE);
}

inline const char *name_of(const dentry *d) {
  return name_of(const_cast<dentry *>(d));
}

// The digest record of a file, or null when there is none yet.
inline usable_hash *digest_record_of(const dentry *file) {
  usable_hash *hash = load_acquire(&file->hash);
  return hash == hash_pending() ? nullptr : hash;
}

inline bool is_digest_pending(const dentry *file) {
  return load_acquire(&file->hash) == hash_pending();
}

// Values of `form`.
inline constexpr int DIRECTORY_FORM = 0;
inline constexpr int FILE_FORM = 1;

// Creates a dentry below `parent` (null for a root) for the entry `name`; bit 0 of `form` selects
// the file form. Stores it in `*out`, null on failure; the caller puts it on the run's list.
// Returns 0, an errno, or the code of a failed bounded fill or copy.
int create_dentry(dentry *parent, const char *name, dentry **out, int form);

// Appends a dentry to the run's list, under dentries_lock.
void track_dentry(sis_context *ctx, dentry *d);

// Builds the full path of a dentry at the end of `buffer` (PATH_BUF_SIZE bytes) and returns its
// start; the path is empty when it does not fit or a bounded copy fails. Parents and names never
// change during a run, so no lock is needed.
const char *get_fullpath(const dentry *d, char *buffer);

// Frees every dentry of a run, children before their parents. Call it after the workers are joined.
void free_all_dentries(sis_context *ctx);

}  // namespace velmarin
