// Deduplicates a whole group of files in one call. All members are opened before the first change
// and stay open to the end.

#include <fcntl.h>

#include <cstdlib>
#include <new>

#include "reflink/file_layer.h"
#include "velmarin/files.h"

namespace velmarin {
namespace {

class file_group {
 public:
  file_group(char **paths, int count)
      : files_(
            static_cast<file_operand *>(calloc(static_cast<size_t>(count), sizeof(file_operand)))),
        count_(files_ != nullptr ? count : 0) {
    for (int i = 0; i < count_; i++) {
      new (&files_[i]) file_operand{paths[i], {}, {}};
    }
  }
  ~file_group() {
    while (count_ > 0) {
      files_[--count_].~file_operand();
    }
    free(files_);
  }
  file_group(const file_group &) = delete;
  file_group &operator=(const file_group &) = delete;

  bool is_allocated() const { return files_ != nullptr; }
  file_operand &first() { return files_[0]; }
  file_operand *begin() { return files_; }
  file_operand *end() { return files_ + count_; }

 private:
  file_operand *files_;
  int count_;
};

// Stops at the first member that cannot be opened.
int open_members(file_group *group) {
  for (file_operand &file : *group) {
    const int error = open_with_status(&file, O_RDWR, failure_style::erro_returned);
    if (error != 0) {
      return error;
    }
  }
  return 0;
}

// Continues after a refused member. Returns 0 or the errno of the last one refused.
int dedup_other_members(file_group *group) {
  int result = 0;
  for (file_operand *file = group->begin() + 1; file != group->end(); file++) {
    const int error =
        dedup_onto_layer(*file, group->first().fd.get(), failure_style::erro_returned);
    if (error != 0) {
      result = error;
    }
  }
  return result;
}

int dedup_group(file_group *group) {
  int error = open_members(group);
  if (error != 0) {
    return error;
  }
  path_buffer directory;
  error = find_directory(group->first().path, &directory, failure_style::erro_returned);
  if (error != 0) {
    return error;
  }
  log_info("creating temporary file under %s", directory.text);
  unique_fd layer;
  error = make_layer_and_log(group->first(), directory.text, failure_style::erro_returned, &layer);
  if (error != 0) {
    return error;
  }
  return dedup_other_members(group);
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

int sis_them_all(char **paths, int count) {
  if (count < 1) {
    return log_failure(EINVAL, failure_style::erro_returned,
                       "fail to deduplicate a group of %d files", count);
  }
  file_group group(paths, count);
  if (!group.is_allocated()) {
    return log_failure(ENOMEM, failure_style::erro_returned, "fail to allocate a group of %d files",
                       count);
  }
  return dedup_group(&group);
}
