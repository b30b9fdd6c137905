// The steps from which the operations on groups and on single files are made: opening a file,
// making a layered inode of it, deduplicating a file onto it. Nothing is undone on the file system
// when a later step fails.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include "common/paths.h"
#include "common/unique_fd.h"
#include "reflink/failure_line.h"

namespace velmarin {

// A file of an operation. `status` is its state before the operation changed anything; lines show
// inode number and size from it.
struct opened_file {
  const char *path;  // as the caller gave it
  unique_fd fd;
  struct stat status;
};

inline unsigned long inode_of(const struct stat &status) {
  return status.st_ino;
}

inline unsigned long size_of(const struct stat &status) {
  return static_cast<unsigned long>(status.st_size);
}

// The four steps below write a line in the given style when they fail. They return 0 or an errno.

// `mode` is the permission of a file that `flags` creates.
int open_file(opened_file *file, int flags, mode_t mode, failure_style style);
int read_status(opened_file *file, failure_style style);
int open_with_status(opened_file *file, int flags, failure_style style);

// Leaves the directory of the file's real path, without the final '/'; a file in the root directory
// has "".
int find_directory(const char *path, path_buffer *directory, failure_style style);

// The calls that make a layered inode, in their order.
enum class layer_step { open_temporary, read_status, clone, connect, done };

struct layer_outcome {
  layer_step stopped_at;  // the call that failed, or `done`
  int result;             // of that call
  int error;              // its errno
};

// Opens an unnamed temporary file in `directory`, clones the data of `source_fd` into it and
// attaches `source_fd` to it as a layered inode. `empty_status`, unless null, receives the status
// of the temporary file before the clone. `temporary` is to stay open until the caller has dealt
// with the outcome. Writes no line.
layer_outcome build_layer(int source_fd, const char *directory, mode_t mode,
                          struct stat *empty_status, unique_fd *temporary);

// Builds the layered inode of `source` in `directory`; writes the line of success or, in the given
// form, of failure. Returns 0 or an errno; `layer` holds the temporary file's descriptor on
// success.
int create_layered_inode(const opened_file &source, const char *directory, failure_style style,
                         unique_fd *layer);

// Deduplicates `file` onto the layered inode of `src_fd`; writes the line of success or, in the
// given style, of failure. Returns 0 or an errno.
int dedup_onto_layer(const opened_file &file, int src_fd, failure_style style);

}  // namespace velmarin
