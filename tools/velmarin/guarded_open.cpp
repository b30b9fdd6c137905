#include "guarded_open.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <string_view>
#include <utility>

#include "common/unique_fd.h"
#include "message.h"
#include "omission_watch.h"
#include "open_beneath.h"
#include "scan_probes.h"
#include "stop_signal.h"

namespace tool {
namespace {

struct HeldRoot {
  std::string path;
  velmarin::unique_fd fd;  // if it is closed, every open below the root fails
};

// The first three are written while the process has one thread.
std::vector<HeldRoot> held_roots;
bool makes_private_files = false;
std::string digest_directory;
bool stops_opens = false;
std::atomic<uint64_t> refused_for_digests = 0;

int plain_open(const char *path, int flags, mode_t mode) {
  return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

// The part of `path` below the root: "." for the root itself, null for a path elsewhere.
const char *path_below(const std::string &root, const char *path) {
  if (!std::string_view(path).starts_with(root)) {
    return nullptr;
  }
  const char *rest = path + root.size();
  if (*rest != '\0' && *rest != '/' && root != "/") {
    return nullptr;
  }
  while (*rest == '/') {
    ++rest;
  }
  return *rest == '\0' ? "." : rest;
}

// Closes a file that existed before and belongs to someone else.
int close_if_foreign(int fd) {
  struct stat status = {};
  if (fd < 0 || (fstat(fd, &status) == 0 && status.st_uid == geteuid())) {
    return fd;
  }
  close(fd);
  errno = EACCES;
  return -1;
}

bool is_temporary(int flags) {
  return (flags & O_TMPFILE) == O_TMPFILE;
}

// How the library opens a file to read all of it: a file to compare or, if the state directory is
// below a root, the digest file.
bool is_content_open(int flags) {
  return flags == O_RDONLY;
}

// How it opens entries of the walk, and skip paths.
bool is_walk_open(int flags) {
  return flags == (O_RDONLY | O_NONBLOCK | O_NOFOLLOW);
}

bool is_stopped(int flags) {
  if (!stops_opens || !(is_content_open(flags) || is_walk_open(flags)) || !stop_requested()) {
    return false;
  }
  refused_for_digests += is_content_open(flags);
  return true;
}

int open_below_roots(const char *path, int flags, mode_t mode) {
  // A link to a descriptor of this process, through which the platform reopens a file.
  if (std::string_view(path).starts_with("/proc/self/fd/")) {
    return plain_open(path, flags, mode);
  }
  for (const HeldRoot &root : held_roots) {
    if (const char *const rest = path_below(root.path, path)) {
      if (is_stopped(flags)) {
        errno = ECANCELED;
        return -1;
      }
      probe_counts.read += is_content_open(flags);
      const int fd = open_beneath(root.fd.get(), rest, flags, mode);
      if (fd < 0) {
        OmissionWatch::note_failed_open(path, flags, errno);
      }
      return fd;
    }
  }
  if (is_temporary(flags) && !held_roots.empty()) {
    errno = EXDEV;
    return -1;
  }
  return plain_open(path, flags, mode);
}

// Also true of a digest file's second name, and of one for a further run.
bool is_digest_file(std::string_view path) {
  return !digest_directory.empty() && path.starts_with(digest_directory) &&
         path.find(".hsh", digest_directory.size()) != std::string_view::npos;
}

int guarded_open(const char *path, int flags, mode_t mode) {
  const bool may_create = (flags & O_CREAT) != 0;
  if (!makes_private_files || !(may_create || is_digest_file(path))) {
    return open_below_roots(path, flags, mode);
  }
  flags |= may_create && is_digest_file(path) ? O_NOFOLLOW : 0;
  return close_if_foreign(open_below_roots(path, flags, mode & (S_IRUSR | S_IWUSR)));
}

}  // namespace

GuardedRoots::GuardedRoots(const std::vector<std::string> &roots) {
  std::vector<HeldRoot> held;
  for (const std::string &root : roots) {
    held.push_back(
        {root, velmarin::unique_fd(plain_open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC, 0))});
    const velmarin::unique_fd trial(
        open_beneath(held.back().fd.get(), ".", O_RDONLY | O_CLOEXEC, 0));
    if (!trial.is_open()) {
      print_error("cannot confine the scan to", root, std::strerror(errno));
      are_held_ = false;
    }
  }
  held_roots = std::move(held);
}

GuardedRoots::~GuardedRoots() {
  held_roots.clear();
}

StoppableOpens::StoppableOpens() {
  refused_for_digests = 0;
  stops_opens = true;
}

StoppableOpens::~StoppableOpens() {
  stops_opens = false;
}

uint64_t StoppableOpens::refused_digests() const {
  return refused_for_digests;
}

PrivateFiles::PrivateFiles(std::string state) {
  digest_directory = state.empty() ? "" : std::move(state) + "/";
  makes_private_files = true;
}

PrivateFiles::~PrivateFiles() {
  makes_private_files = false;
}

}  // namespace tool

// Overrides the C library's function for the whole process.
extern "C" int open(const char *path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0 || tool::is_temporary(flags)) {
    va_list arguments;
    va_start(arguments, flags);
    mode = va_arg(arguments, mode_t);
    va_end(arguments);
  }
  return tool::guarded_open(path, flags, mode);
}
