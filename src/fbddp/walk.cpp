// The walk step of a worker. When a dentry is dropped, its record is freed before the descriptor
// that was opened for it is closed.

#include "fbddp/walk.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "common/atomic_word.h"
#include "common/log.h"
#include "common/paths.h"
#include "common/unique_fd.h"
#include "fbddp/dentry_forms.h"
#include "fbddp/file_key.h"
#include "fbddp/forest.h"
#include "fbddp/job_queue.h"
#include "fbddp/skip_set.h"

namespace velmarin {
namespace {

// An entry of the expected type, opened for examination.
struct opened_entry {
  path_buffer buffer;
  const char *path;
  unique_fd fd;
  struct stat status;
};

// Opens the dentry's path without blocking and without following a symbolic link. Returns whether
// it is an entry of the wanted type.
bool open_entry(const dentry *d, mode_t wanted_type, uint64_t *counter, opened_entry *entry) {
  entry->path = get_fullpath(d, entry->buffer.text);
  fetch_add(counter, 1);
  entry->fd.reset(open(entry->path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW));
  return entry->fd.is_open() && fstat(entry->fd.get(), &entry->status) == 0 &&
         (entry->status.st_mode & S_IFMT) == wanted_type;
}

bool is_in_skip_set(const rb_root *skips, const struct stat &status) {
  return skips->node != nullptr && is_skipped(skips, file_key_of(status));
}

// The filter's verdict: negative excludes the entry; 0 without a filter.
int filter_entry(const sis_context *ctx, const opened_entry &entry) {
  return ctx->ops->filter == nullptr ? 0
                                     : ctx->ops->filter(entry.fd.get(), &entry.status, entry.path);
}

bool is_dot_or_dot_dot(const char *name) {
  return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

void add_entry(sis_context *ctx, dentry *directory, const struct dirent *entry) {
  dentry *added = nullptr;
  if (create_dentry(directory, entry->d_name, &added,
                    entry->d_type == DT_REG ? FILE_FORM : DIRECTORY_FORM) != 0) {
    fetch_add(&ctx->nr_error, 1);
    return;
  }
  track_dentry(ctx, added);
  if (load_relaxed(&ctx->in_time) != 0) {
    schedule_job(ctx, added);
  }
}

void read_stream(sis_context *ctx, dentry *directory, DIR *stream) {
  for (;;) {
    errno = 0;
    const struct dirent *entry = readdir(stream);
    if (entry == nullptr) {
      if (errno != 0) {
        fetch_add(&ctx->nr_error, 1);
      }
      return;
    }
    if (!is_dot_or_dot_dot(entry->d_name)) {
      add_entry(ctx, directory, entry);
    }
  }
}

// Reads the entries of the opened directory. Returns false when it cannot be read.
bool read_entries(sis_context *ctx, dentry *directory, opened_entry *entry) {
  fetch_add(&ctx->nr_dir_read, 1);
  DIR *stream = fdopendir(entry->fd.get());
  if (stream == nullptr) {
    const int error = errno;
    log_erro("failed to open %s as directory returned %s", entry->path, strerror(error));
    fetch_add(&ctx->nr_error, 1);
    return false;
  }
  entry->fd.release();  // closed with the stream
  read_stream(ctx, directory, stream);
  if (closedir(stream) != 0) {
    const int error = errno;
    log_erro("closedir %s returned %s", entry->path, strerror(error));
  }
  return true;
}

bool is_readable_directory(sis_context *ctx, const dentry *directory, opened_entry *entry) {
  return open_entry(directory, S_IFDIR, &ctx->nr_dir_opened, entry) &&
         !is_in_skip_set(&ctx->dir_skips, entry->status) && filter_entry(ctx, *entry) >= 0;
}

bool is_candidate(sis_context *ctx, const dentry *file, opened_entry *entry) {
  if (!open_entry(file, S_IFREG, &ctx->nr_file_opened, entry) ||
      is_in_skip_set(&ctx->file_skips, entry->status)) {
    return false;
  }
  const int verdict = filter_entry(ctx, *entry);
  if (verdict != 0) {
    return verdict > 0;
  }
  return ctx->min_size == 0 || static_cast<uint64_t>(entry->status.st_size) >= ctx->min_size;
}

void record_attributes(const sis_context *ctx, dentry *file, const opened_entry &entry) {
  file->key = file_key_of(entry.status);
  file->size = static_cast<uint64_t>(entry.status.st_size);
  file->mtime = entry.status.st_mtim;
  int status = 0;
  if (ctx->ops->get_status != nullptr) {
    status = ctx->ops->get_status(entry.fd.get(), &entry.status, entry.path);
  }
  set_own_attributes(file, {status, static_cast<uint64_t>(entry.status.st_blocks)});
}

}  // namespace

void read_directory(sis_context *ctx, dentry *directory) {
  if (ctx->max_depth != 0 && directory->depth == ctx->max_depth) {
    free_entry(ctx, directory);
    return;
  }
  opened_entry entry;
  if (!is_readable_directory(ctx, directory, &entry) || !read_entries(ctx, directory, &entry)) {
    free_entry(ctx, directory);
  }
}

void admit_file(sis_context *ctx, dentry *file) {
  opened_entry entry;
  if (!is_candidate(ctx, file, &entry)) {
    free_entry(ctx, file);
    return;
  }
  fetch_add(&ctx->nr_scan_file, 1);
  record_attributes(ctx, file, entry);
  if (!insert_into_forest(ctx, file, entry.fd.get(), entry.path)) {
    free_entry(ctx, file);
  }
}

}  // namespace velmarin
