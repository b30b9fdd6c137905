// What the service entry points for one path have in common: resolving it, opening what it names.
#pragma once

#include <fcntl.h>

#include <cerrno>
#include <cstdlib>

#include "common/log.h"
#include "common/paths.h"
#include "common/unique_fd.h"

namespace velmarin {

// How an entry point answers when its path cannot be resolved.
enum class resolve_error_code { minus_one, minus_errno };

// Returns 0 or the answer of the entry point, which the line shows too.
inline int resolve_path(const char *path, resolve_error_code form, path_buffer *resolved) {
  *resolved = {};
  if (realpath(path, resolved->text) != nullptr) {
    return 0;
  }
  const int answer = form == resolve_error_code::minus_errno ? -errno : -1;
  log_service("Failed to realpath %s returned %d\n", path, answer);
  return answer;
}

struct resolved_file {
  path_buffer path;
  unique_fd fd;  // open for reading and writing
};

// Returns 0 or the answer of the entry point: that of an unresolved path, or -1.
inline int open_resolved(const char *path, resolve_error_code form, resolved_file *file) {
  const int answer = resolve_path(path, form, &file->path);
  if (answer != 0) {
    return answer;
  }
  file->fd.reset(open(file->path.text, O_RDWR));
  if (!file->fd.is_open()) {
    log_service("open file:%s failed !\n", file->path.text);
    return -1;
  }
  return 0;
}

}  // namespace velmarin
