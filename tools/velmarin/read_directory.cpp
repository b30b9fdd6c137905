// Replaces readdir(3) for the library, which does not say which directory it could not read to its
// end.
#include <dirent.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <system_error>

#include "omission_watch.h"

namespace tool {
namespace {

void note_failed_read(DIR *stream, int error) {
  std::error_code unknown;
  const std::string path =
      std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(dirfd(stream)), unknown);
  OmissionWatch::note(path, Cause::directory_not_read, error);
}

}  // namespace
}  // namespace tool

// Overrides the C library's function for the whole process.
extern "C" struct dirent *readdir(DIR *stream) {
  static_assert(sizeof(struct dirent) == sizeof(struct dirent64));
  const int saved_errno = errno;
  errno = 0;
  auto *const entry = reinterpret_cast<struct dirent *>(readdir64(stream));
  if (entry == nullptr && errno != 0) {
    const int error = errno;
    tool::note_failed_read(stream, error);
    errno = error;
  } else {
    errno = saved_errno;
  }
  return entry;
}
