#include "reflink/file_layer.h"

#include <fcntl.h>

#include <cstdlib>
#include <utility>

#include "reflink/control.h"

namespace velmarin {
namespace {

constexpr mode_t TEMPORARY_FILE_MODE = 0600;

int log_layer_failure(const layer_outcome &outcome, failure_style style) {
  switch (outcome.stopped_at) {
    case layer_step::open_temporary:
      return log_failure(outcome.error, style, "fail to open temporary file");
    case layer_step::read_status:
      return log_failure(outcome.error, style, "fail to stat temporary file");
    case layer_step::clone:
      // The misspelling is deliberate (sic): hosts rely on this line.
      return log_failure(outcome.error, style, "fail to clone to temperory file");
    case layer_step::connect:
      return log_failure(outcome.error, style, "fail to create layered inode");
    case layer_step::done:
      break;
  }
  return 0;
}

}  // namespace

int open_file(file_operand *file, int flags, mode_t mode, failure_style style) {
  file->fd.reset(open(file->path, flags, mode));
  if (!file->fd.is_open()) {
    return log_failure(errno, style, "fail to open %s", file->path);
  }
  return 0;
}

int read_status(file_operand *file, failure_style style) {
  if (fstat(file->fd.get(), &file->status) != 0) {
    return log_failure(errno, style, "fail to stat %s", file->path);
  }
  return 0;
}

int open_with_status(file_operand *file, int flags, failure_style style) {
  const int error = open_file(file, flags, 0, style);
  return error != 0 ? error : read_status(file, style);
}

int find_directory(const char *path, path_buffer *directory, failure_style style) {
  *directory = {};
  if (realpath(path, directory->text) == nullptr) {
    return log_failure(errno, style, "fail to get real path of %s", path);
  }
  *strrchr(directory->text, '/') = '\0';
  return 0;
}

layer_outcome make_layer(int source_fd, const char *directory, mode_t mode,
                         struct stat *empty_status, unique_fd *temporary) {
  temporary->reset(open(directory, O_RDWR | O_TMPFILE, mode));
  const int fd = temporary->get();
  if (!temporary->is_open()) {
    return {layer_step::open_temporary, fd, errno};
  }
  if (empty_status != nullptr && fstat(fd, empty_status) != 0) {
    return {layer_step::read_status, -1, errno};
  }
  int result = clone_into_temporary(fd, source_fd);
  if (result < 0) {
    return {layer_step::clone, result, errno};
  }
  result = connect_layer(source_fd, fd);
  if (result < 0) {
    return {layer_step::connect, result, errno};
  }
  return {layer_step::done, result, 0};
}

int make_layer_and_log(const file_operand &source, const char *directory, failure_style style,
                       unique_fd *layer) {
  struct stat empty_status = {};
  unique_fd temporary;
  const layer_outcome outcome =
      make_layer(source.fd.get(), directory, TEMPORARY_FILE_MODE, &empty_status, &temporary);
  if (outcome.stopped_at != layer_step::done) {
    return log_layer_failure(outcome, style);
  }
  log_info("created layered inode[ino:%lu,size:%lu] for %s[ino:%lu,size:%lu]",
           inode_of(empty_status), size_of(empty_status), source.path, inode_of(source.status),
           size_of(source.status));
  *layer = std::move(temporary);
  return 0;
}

int dedup_onto_layer(const file_operand &file, int src_fd, failure_style style) {
  if (share_data(file.fd.get(), src_fd, SIS_DEDUP_ATTACHED) < 0) {
    return log_failure(errno, style, "fail to deduplicate %s", file.path);
  }
  log_info("done deduplication for %s[ino:%lu,size:%lu]", file.path, inode_of(file.status),
           size_of(file.status));
  return 0;
}

}  // namespace velmarin
