// Service entry points for single files: make one file share the data of another, report whether a
// file is a single-instance file, give a file its own data back. They keep no state.

#include <bounds_checked.h>
#include <fcntl.h>

#include <cstring>

#include "common/heap_ptr.h"
#include "reflink/control.h"
#include "reflink/file_layer.h"
#include "service/refusal_line.h"
#include "service/resolved_file.h"
#include "velmarin/files.h"

namespace velmarin {
namespace {

constexpr mode_t TEMPORARY_FILE_MODE = 0777;
constexpr int NOT_RECOVERED = -2;

// Two files of a request. The second is closed before the first.
struct file_pair {
  unique_fd first;
  unique_fd second;
};

// Copies `path` up to and including its last '/'. Returns 0 or -1.
int copy_directory(const char *path, heap_ptr<char> *directory) {
  const char *separator = strrchr(path, '/');
  if (separator == nullptr) {
    log_service("file1 %s invalid \n", path);
    return -1;
  }
  const size_t length = static_cast<size_t>(separator - path) + 1;
  const size_t size = length + 1;
  *directory = heap_allocate<char>(size);
  if (*directory == nullptr) {
    log_service("Create tmp_file Failed, malloc fail\n");
    return -1;
  }
  if (memcpy_s(directory->get(), size, path, length) != 0) {
    log_service("Create tmp_file Failed, memcpy_s fail\n");
    return -1;
  }
  directory->get()[length] = '\0';
  return 0;
}

// Returns 0 or -1.
int open_pair(const char *file1, const char *file2, file_pair *files) {
  files->first.reset(open(file1, O_RDWR));
  if (!files->first.is_open()) {
    log_service("open file1:%s failed !\n", file1);
    return -1;
  }
  files->second.reset(open(file2, O_RDWR));
  if (!files->second.is_open()) {
    log_service("open file2:%s failed !\n", file2);
    return -1;
  }
  return 0;
}

// `info` is valid only if the result is 0; `error` is set for any other result.
int request_file_info(int fd, sis_file_info *info, int *error) {
  const int result = query_file_info(fd, info);
  if (result != 0) {
    *error = log_refusal(result, errno, "get file info");
  }
  return result;
}

// Creates a layered inode from `fd`. Returns false and sets `error` on failure. The caller keeps
// `temporary` open until the request for the second file is done.
bool make_layer_for_request(int fd, const char *directory, unique_fd *temporary, int *error) {
  const layer_outcome outcome = make_layer(fd, directory, TEMPORARY_FILE_MODE, nullptr, temporary);
  switch (outcome.stopped_at) {
    case layer_step::open_temporary:
      log_service("open tmp_fd failed! ret = %d, errno = %d, tmp_file %s\n", outcome.result,
                  outcome.error, directory);
      break;
    case layer_step::clone:
      log_refusal(outcome.result, outcome.error, "clone file");
      break;
    case layer_step::connect:
      log_refusal(outcome.result, outcome.error, "connect");
      break;
    case layer_step::read_status:
    case layer_step::done:
      break;
  }
  *error = outcome.error;
  return outcome.stopped_at == layer_step::done;
}

// Returns the non-negative result of the request or an errno.
int share_with_first(const file_pair &files, const char *file1) {
  const int result = share_data(files.second.get(), files.first.get(), SIS_DEDUP_COPY);
  if (result >= 0) {
    return result;
  }
  const int error = log_refusal(result, errno, "dedup file");
  getSISFileInfoImpl(file1);  // only for the lines it logs
  return error;
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

// Guards release in reverse order: the temporary descriptor, file2's, file1's, then the directory
// buffer.
int sisFileTaskImpl(const char *file1, const char *file2) {
  heap_ptr<char> directory;
  file_pair files;
  if (copy_directory(file1, &directory) != 0 || open_pair(file1, file2, &files) != 0) {
    return -1;
  }
  sis_file_info info;
  int error = 0;
  if (request_file_info(files.first.get(), &info, &error) != 0) {
    return error;
  }
  unique_fd temporary;
  if (info.layered == 0 &&
      !make_layer_for_request(files.first.get(), directory.get(), &temporary, &error)) {
    return error;
  }
  return share_with_first(files, file1);
}

int getSISFileInfoImpl(const char *path) {
  resolved_file file;
  const int code = open_resolved(path, resolve_error_code::minus_one, &file);
  if (code != 0) {
    return code;
  }
  sis_file_info info;
  int error = 0;
  return request_file_info(file.fd.get(), &info, &error) != 0 ? -1 : info.layered;
}

int recoverFileImpl(const char *path) {
  path_buffer resolved;
  int code = resolve_path(path, resolve_error_code::minus_errno, &resolved);
  if (code != 0) {
    return code;
  }
  const unique_fd fd(open(resolved.text, O_RDWR));
  if (!fd.is_open()) {
    log_service("recover file %s, open FAIL \n", resolved.text);
    return -1;
  }
  if (revoke_with_descriptor(fd.get()) < 0) {
    return -errno;
  }
  code = getSISFileInfoImpl(resolved.text);
  if (code == 1) {
    log_service("get file info, this file NOT recover!!! \n");
    return NOT_RECOVERED;
  }
  return code;
}
