// The steps that the operations on groups and single files share: opening a file, creating a
// layered inode from it, deduplicating another file onto it. When a later step fails, nothing is
// undone on the file system.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include "common/paths.h"
#include "common/unique_fd.h"
#include "reflink/failure_line.h"

namespace velmarin {

// A file of an operation. Log lines show the inode number and size in `status`.
struct file_operand {
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

// The next four functions return 0 or an errno and log a failure in the given style.

// `mode` is used only when `flags` creates the file.
int open_file(file_operand *file, int flags, mode_t mode, failure_style style);
int read_status(file_operand *file, failure_style style);
int open_with_status(file_operand *file, int flags, failure_style style);

// Stores the directory of the file's real path, without the final '/': "" for a file in the root
// directory.
int find_directory(const char *path, path_buffer *directory, failure_style style);

// The calls that create a layered inode, in order.
enum class layer_step { open_temporary, read_status, clone, connect, done };

struct layer_outcome {
  layer_step stopped_at;  // the call that failed, or `done`
  int result;             // of that call
  int error;              // its errno
};

// Opens an unnamed temporary file in `directory`, clones the data of `source_fd` into it, makes it
// a layered inode and attaches `source_fd` to it. `empty_status`, unless null, receives the status
// of the temporary file before the clone. The caller keeps `temporary` open until it has dealt with
// the outcome. Does not log.
layer_outcome make_layer(int source_fd, const char *directory, mode_t mode,
                         struct stat *empty_status, unique_fd *temporary);

// Builds a layered inode from `source` in `directory`. Logs success, or failure in the given style.
// Returns 0 or an errno; on success `layer` holds the temporary file's descriptor.
int make_layer_and_log(const file_operand &source, const char *directory, failure_style style,
                       unique_fd *layer);

// Deduplicates `file` onto the layered inode of `src_fd`. Logs success, or failure in the given
// style. Returns 0 or an errno.
int dedup_onto_layer(const file_operand &file, int src_fd, failure_style style);

}  // namespace velmarin
