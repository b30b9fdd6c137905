// Service entry points for the coincide flag: set it on a file whose modification time the host
// knows, read it. They keep no state.

#include <sys/stat.h>

#include "reflink/control.h"
#include "service/resolved_file.h"
#include "velmarin/files.h"

namespace velmarin {
namespace {

// The resolved file of a request and what lstat said of it last.
struct checked_file {
  resolved_file file;
  struct stat status;
};

// A null path is refused before it is resolved. Returns 0 or the answer of the entry point.
int open_checked_path(const char *path, resolve_error_code form, resolved_file *file) {
  if (path == nullptr) {
    log_service("input file is NULL \n");
    return -1;
  }
  return open_resolved(path, form, file);
}

enum class time_check { failed, differs, same };

// Compares the file's present modification time with the expected one. `reading` names the call in
// the line of a failure.
time_check check_time(const char *reading, const timespec &expected, checked_file *checked) {
  if (lstat(checked->file.path.text, &checked->status) != 0) {
    log_service("%s lstat Error %s \n", reading, checked->file.path.text);
    return time_check::failed;
  }
  const timespec &time = checked->status.st_mtim;
  return time.tv_sec == expected.tv_sec && time.tv_nsec == expected.tv_nsec ? time_check::same
                                                                            : time_check::differs;
}

// Writes the line of a refused request and returns its errno.
int log_refusal(const char *verb, const char *object, const checked_file &checked, int result) {
  const int error = errno;
  log_service("ioctl %s %s(%lu) %s failed! ret = %d, errno = %d\n", verb, checked.file.path.text,
              static_cast<unsigned long>(checked.status.st_ino), object, result, error);
  return error;
}

// Returns 0 for a plain file, else the answer of the entry point.
int refuse_attached(const checked_file &checked) {
  sis_file_info info;
  const int result = query_file_info(checked.file.fd.get(), &info);
  if (result != 0) {
    log_refusal("get", "file info", checked, result);
    return -1;
  }
  return info.layered;
}

// Returns 0 or minus errno.
int change_flag(int (*change)(int fd), const char *verb, const checked_file &checked) {
  const int result = change(checked.file.fd.get());
  return result < 0 ? -log_refusal(verb, "coincide flag", checked, result) : 0;
}

// The time is compared before and after the flag is set: a writer that comes between the first
// comparison and the setting is seen by the second.
int set_flag_if_unmodified(const timespec &expected, checked_file *checked) {
  if (check_time("1st", expected, checked) != time_check::same) {
    return -1;
  }
  int answer = refuse_attached(*checked);
  if (answer != 0) {
    return answer;
  }
  answer = change_flag(set_coincide_flag, "set", *checked);
  if (answer != 0) {
    return answer;
  }
  switch (check_time("2nd", expected, checked)) {
    case time_check::same:
      return 0;
    case time_check::failed:
      return -1;  // the flag stays set
    case time_check::differs:
      break;
  }
  answer = change_flag(clear_coincide_flag, "clear", *checked);
  return answer != 0 ? answer : -1;
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

int setCheckFlagImpl(const char *path, long mtime_sec, long mtime_nsec) {
  checked_file checked = {};
  const int answer = open_checked_path(path, resolve_error_code::minus_one, &checked.file);
  return answer != 0 ? answer : set_flag_if_unmodified({mtime_sec, mtime_nsec}, &checked);
}

int getCoincideFlagImpl(const char *path) {
  resolved_file file;
  const int answer = open_checked_path(path, resolve_error_code::minus_errno, &file);
  if (answer != 0) {
    return answer;
  }
  uint32_t flags = SIS_FLAG_COINCIDE;
  const int result = get_flag_word(file.fd.get(), &flags);
  if (result < 0) {
    const int error = errno;
    log_service("ioctl get %s coincide flag failed! ret = %d, errno = %d\n", file.path.text, result,
                error);
    return -error;
  }
  return static_cast<int>(flags);
}
