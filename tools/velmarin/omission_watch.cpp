#include "omission_watch.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>

namespace tool {
namespace {

OmissionWatch *active = nullptr;

// The flags with which the library's walk opens an entry.
constexpr int WALK_FLAGS = O_RDONLY | O_NONBLOCK | O_NOFOLLOW;

// Errors of entries that a scan does not examine: symbolic links, sockets, devices, and what was
// removed or moved meanwhile.
constexpr int EXPECTED[] = {ELOOP, ENXIO, ENODEV, ENOENT, ENOTDIR, EXDEV};

}  // namespace

OmissionWatch::OmissionWatch(Omissions &omissions, const EntryFilter &filter,
                             const std::vector<std::string> &skips, uint64_t min_size)
    : omissions_(omissions), filter_(filter), skips_(skips), min_size_(min_size) {
  active = this;
}

OmissionWatch::~OmissionWatch() {
  active = nullptr;
}

void OmissionWatch::note(std::string_view path, Cause cause, int error) {
  if (active != nullptr) {
    active->omissions_.add(path, cause, error);
  }
}

void OmissionWatch::note_failed_open(const char *path, int flags, int error) {
  if (active != nullptr && flags == WALK_FLAGS &&
      std::find(std::begin(EXPECTED), std::end(EXPECTED), error) == std::end(EXPECTED)) {
    active->take_failed_open(path, error);
  }
  errno = error;
}

void OmissionWatch::note_log_message(std::string_view message) {
  if (active != nullptr) {
    active->omissions_.read_log_message(message);
  }
}

bool OmissionWatch::is_wanted(const struct stat &status, std::string_view path) const {
  const bool is_large_enough =
      S_ISREG(status.st_mode) && static_cast<uint64_t>(status.st_size) >= min_size_;
  return (is_large_enough || S_ISDIR(status.st_mode)) && !filter_.leaves_out(status, path) &&
         std::find(skips_.begin(), skips_.end(), path) == skips_.end();
}

void OmissionWatch::take_failed_open(const char *path, int error) {
  struct stat status = {};
  if (sees_again_ && omissions_.is_full()) {
    return;
  }
  if (lstat(path, &status) != 0) {
    omissions_.add(path, Cause::not_opened, error);  // its type is unknown
  } else if (is_wanted(status, path)) {
    omissions_.add(path, S_ISDIR(status.st_mode) ? Cause::directory_not_read : Cause::not_opened,
                   error);
  }
}

}  // namespace tool
