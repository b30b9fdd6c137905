// Creates, names and frees dentries.

#include "fbddp/dentry.h"

#include <bounds_checked.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/heap_ptr.h"
#include "common/log.h"
#include "common/memory_error.h"
#include "common/paths.h"

namespace velmarin {
namespace {

// Copies `text` so that it ends just before `end`. Returns its start, or null when it does not fit
// into the buffer.
char *prepend(char *end, const char *text, char *buffer) {
  const size_t length = strlen(text);
  const auto room = static_cast<size_t>(end - buffer);
  if (length > room) {
    return nullptr;
  }
  char *start = end - length;
  return memcpy_s(start, length, text, length) == 0 ? start : nullptr;
}

void free_dentry(dentry *d) {
  if (is_file_form(d)) {
    free(digest_record_of(d));
  }
  free(d);
}

}  // namespace

int create_dentry(dentry *parent, const char *name, dentry **out, int form) {
  const bool file_form = (form & FILE_FORM) != 0;
  const size_t header_size = file_form ? FILE_HEADER_SIZE : DIRECTORY_HEADER_SIZE;
  const size_t name_length = strlen(name);
  const size_t size = header_size + name_length + 1;

  *out = nullptr;
  errno = 0;
  heap_ptr<dentry> d = heap_allocate<dentry>(size);
  if (d == nullptr) {
    const int error = allocation_error();
    log_erro("failed to allocate dentry for %s returned %s", name, strerror(error));
    return error;
  }
  int code = memset_s(d.get(), size, 0, size);
  if (code != 0) {
    return code;
  }
  if (file_form) {
    d->member.marker = MARKER_NOT_SET;
    d->own.group_marker = MARKER_NOT_SET;
    list_init(&d->same);
  }
  // The zero fill terminates the name.
  // NOLINTNEXTLINE(bugprone-not-null-terminated-result)
  code =
      memcpy_s(reinterpret_cast<char *>(d.get()) + header_size, name_length + 1, name, name_length);
  if (code != 0) {
    return code;
  }
  list_init(&d->link);
  if (parent != nullptr) {
    d->parent_word = reinterpret_cast<uintptr_t>(parent) | (file_form ? DENTRY_FILE_TAG : 0);
    if (!file_form) {
      d->depth = (parent->depth + 1) & DENTRY_DEPTH_MASK;
    }
  }
  *out = d.release();
  return 0;
}

void track_dentry(sis_context *ctx, dentry *d) {
  const spinlock_guard guard(&ctx->dentries_lock);
  list_append(&ctx->dentries, &d->link);
}

const char *get_fullpath(const dentry *d, char *buffer) {
  char *const last = buffer + PATH_BUF_SIZE - 1;
  const int code = memset_s(buffer, PATH_BUF_SIZE, 0, PATH_BUF_SIZE);
  *last = '\0';
  if (code != 0) {
    return last;
  }
  char *start = prepend(last, name_of(d), buffer);
  while (start != nullptr && parent_of(d) != nullptr) {
    d = parent_of(d);
    if (start == buffer) {
      return last;
    }
    *--start = '/';
    start = prepend(start, name_of(d), buffer);
  }
  return start != nullptr ? start : last;
}

void free_all_dentries(sis_context *ctx) {
  while (!list_is_empty(&ctx->dentries)) {
    dentry *d = owner_of<&dentry::link>(ctx->dentries.prev);
    list_unlink(&d->link);
    free_dentry(d);
  }
}

}  // namespace velmarin

using namespace velmarin;

void free_entry(sis_context *ctx, dentry *d) {
  {
    const spinlock_guard guard(&ctx->dentries_lock);
    list_unlink(&d->link);
  }
  free_dentry(d);
}
