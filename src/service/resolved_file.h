// Shared by the service entry points that take one path: resolving it and opening the file.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>

#include "common/log.h"
#include "common/paths.h"
#include "common/unique_fd.h"

namespace velmarin {

// What an entry point returns when its path cannot be resolved.
enum class resolve_error_code { minus_one, minus_errno };

// Returns 0 or the entry point's result, which the log line shows too.
inline int resolve_path(const char *path, resolve_error_code on_error, path_buffer *resolved) {
  *resolved = {};
  if (realpath(path, resolved->text) != nullptr) {
    return 0;
  }
  const int code = on_error == resolve_error_code::minus_errno ? -errno : -1;
  log_service("Failed to realpath %s returned %d\n", path, code);
  return code;
}

struct resolved_file {
  path_buffer path;
  unique_fd fd;  // open for reading and writing
};

// Returns 0 or the entry point's result: that for an unresolved path, or -1.
inline int open_resolved(const char *path, resolve_error_code on_error, resolved_file *file) {
  const int code = resolve_path(path, on_error, &file->path);
  if (code != 0) {
    return code;
  }
  file->fd.reset(open(file->path.text, O_RDWR));
  if (!file->fd.is_open()) {
    log_service("open file:%s failed !\n", file->path.text);
    return -1;
  }
  return 0;
}

}  // namespace velmarin
