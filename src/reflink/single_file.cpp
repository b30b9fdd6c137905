// Operations on one file or a pair of files.

#include <fcntl.h>

#include "reflink/control.h"
#include "reflink/file_layer.h"
#include "velmarin/files.h"

namespace velmarin {
namespace {

constexpr mode_t COPY_MODE = 0644;

}  // namespace
}  // namespace velmarin

using namespace velmarin;

int create_layer(const char *path) {
  file_operand file = {path, {}, {}};
  path_buffer directory;
  if (open_with_status(&file, O_RDWR, failure_style::info_returned) != 0 ||
      find_directory(path, &directory, failure_style::info_returned) != 0) {
    return -1;
  }
  log_info("creating temporary file for %s", path);
  unique_fd layer;
  if (make_layer_and_log(file, directory.text, failure_style::info_returned, &layer) != 0) {
    return -1;
  }
  return file.fd.release();
}

int dedup_file(const char *path, int src_fd) {
  file_operand file = {path, {}, {}};
  const int error = open_with_status(&file, O_RDWR, failure_style::info_returned);
  return error != 0 ? error : dedup_onto_layer(file, src_fd, failure_style::info_returned);
}

int reflink_copy(const char *src, const char *dst) {
  file_operand source = {src, {}, {}};
  int error = open_with_status(&source, O_RDONLY, failure_style::erro_return);
  if (error != 0) {
    return error;
  }
  file_operand copy = {dst, {}, {}};
  error = open_file(&copy, O_RDONLY | O_CREAT | O_EXCL, COPY_MODE, failure_style::erro_return);
  if (error != 0) {
    return error;
  }
  if (share_data(copy.fd.get(), source.fd.get(), SIS_DEDUP_COPY) < 0) {
    return log_failure(errno, failure_style::erro_return, "fail to do rapid copy from %s to %s",
                       src, dst);
  }
  error = read_status(&copy, failure_style::erro_return);
  if (error != 0) {
    return error;
  }
  log_info("reflink %s[ino:%lu,size:%lu] to %s[ino:%lu,size:%lu]", dst, inode_of(copy.status),
           size_of(copy.status), src, inode_of(source.status), size_of(source.status));
  return 0;
}

int revoke_file(const char *path) {
  file_operand file = {path, {}, {}};
  const int error = open_with_status(&file, O_RDONLY, failure_style::info_return);
  if (error != 0) {
    return error;
  }
  sis_file_info info;
  if (query_file_info(file.fd.get(), &info) < 0) {
    return log_failure(errno, failure_style::info_return, "fail to query %s", path);
  }
  if (info.deduped == 0 && info.layered == 0) {
    log_info("%s[ino:%lu,size:%lu] is not deduped inode nor layered inode", path,
             inode_of(file.status), size_of(file.status));
    return 1;
  }
  if (revoke(file.fd.get()) < 0) {
    return log_failure(errno, failure_style::erro_return, "fail to revoke %s", path);
  }
  log_info("revoke %s[ino:%lu,size:%lu] from its %s inode[ino:%d]", path, inode_of(file.status),
           size_of(file.status), info.deduped != 0 ? "deduped" : "layered",
           static_cast<int>(info.layer_ino));
  return 0;
}
