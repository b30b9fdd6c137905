// Service entry points for the coincide flag: set it if the file has a given modification time,
// read it. They keep no state.

#include <sys/stat.h>

#include "reflink/control.h"
#include "service/refusal_line.h"
#include "service/resolved_file.h"
#include "velmarin/files.h"

namespace velmarin {
namespace {

// The file of a request and its latest lstat result.
struct checked_file {
  resolved_file file;
  struct stat status;
};

// Refuses a null path before resolving it. Returns 0 or the entry point's result.
int open_checked_path(const char *path, resolve_error_code on_error, resolved_file *file) {
  if (path == nullptr) {
    log_service("input file is NULL \n");
    return -1;
  }
  return open_resolved(path, on_error, file);
}

enum class time_check { failed, differs, same };

// Compares the file's current modification time with the expected one.
time_check check_time(const timespec &expected, checked_file *checked) {
  if (lstat(checked->file.path.text, &checked->status) != 0) {
    return time_check::failed;
  }
  const timespec &time = checked->status.st_mtim;
  return time.tv_sec == expected.tv_sec && time.tv_nsec == expected.tv_nsec ? time_check::same
                                                                            : time_check::differs;
}

unsigned long inode_of(const checked_file &checked) {
  return checked.status.st_ino;
}

// Returns 0 for a plain file, otherwise the entry point's result.
int refuse_attached(const checked_file &checked) {
  sis_file_info info;
  const int result = query_file_info(checked.file.fd.get(), &info);
  if (result != 0) {
    log_refusal(result, errno, "get %s(%lu) file info", checked.file.path.text, inode_of(checked));
    return -1;
  }
  return info.layered;
}

// Returns 0 or minus errno.
int set_flag(const checked_file &checked) {
  const int result = set_coincide_flag(checked.file.fd.get());
  return result >= 0 ? 0
                     : -log_refusal(result, errno, "set %s(%lu) coincide flag",
                                    checked.file.path.text, inode_of(checked));
}

// Returns 0 or minus errno.
int clear_flag(const checked_file &checked) {
  const int result = clear_coincide_flag(checked.file.fd.get());
  return result >= 0 ? 0
                     : -log_refusal(result, errno, "clear %s(%lu) coincide flag",
                                    checked.file.path.text, inode_of(checked));
}

// Sets the flag if the file has the expected time. Returns 0 or the entry point's result.
int set_flag_at_time(const timespec &expected, checked_file *checked) {
  const time_check time = check_time(expected, checked);
  if (time == time_check::failed) {
    log_service("1st lstat Error %s \n", checked->file.path.text);
  }
  if (time != time_check::same) {
    return -1;
  }
  const int code = refuse_attached(*checked);
  return code != 0 ? code : set_flag(*checked);
}

// The time is compared before and after the flag is set: the second comparison detects a write
// between the first comparison and the setting of the flag.
int set_flag_if_unmodified(const timespec &expected, checked_file *checked) {
  int code = set_flag_at_time(expected, checked);
  if (code != 0) {
    return code;
  }
  switch (check_time(expected, checked)) {
    case time_check::same:
      return 0;
    case time_check::failed:
      log_service("2nd lstat Error %s \n", checked->file.path.text);
      return -1;  // the flag stays set
    case time_check::differs:
      break;
  }
  code = clear_flag(*checked);
  return code != 0 ? code : -1;
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

int setCheckFlagImpl(const char *path, long mtime_sec, long mtime_nsec) {
  checked_file checked = {};
  const int code = open_checked_path(path, resolve_error_code::minus_one, &checked.file);
  return code != 0 ? code : set_flag_if_unmodified({mtime_sec, mtime_nsec}, &checked);
}

int getCoincideFlagImpl(const char *path) {
  resolved_file file;
  const int code = open_checked_path(path, resolve_error_code::minus_errno, &file);
  if (code != 0) {
    return code;
  }
  uint32_t flags = SIS_FLAG_COINCIDE;
  const int result = get_flag_word(file.fd.get(), &flags);
  if (result < 0) {
    return -log_refusal(result, errno, "get %s coincide flag", file.path.text);
  }
  return static_cast<int>(flags);
}
