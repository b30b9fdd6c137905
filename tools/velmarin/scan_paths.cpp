#include "scan_paths.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "common/unique_fd.h"
#include "message.h"

namespace tool {
namespace {

constexpr size_t STATE_DIRECTORY_MAX = 4026;  // the library's limit

// Returns 0 and the resolved path, or an errno.
int resolve_directory(const std::string &path, std::string &resolved) {
  char buffer[PATH_MAX];
  struct stat status = {};
  if (realpath(path.c_str(), buffer) == nullptr || stat(buffer, &status) != 0) {
    return errno;
  }
  if (!S_ISDIR(status.st_mode)) {
    return ENOTDIR;
  }
  resolved = buffer;
  return access(buffer, R_OK | X_OK) == 0 ? 0 : errno;
}

const char *environment(const char *name) {
  const char *const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

std::string home_directory() {
  if (const char *const home = environment("HOME"); *home != '\0') {
    return home;
  }
  const struct passwd *const user = getpwuid(getuid());
  return user == nullptr ? "" : user->pw_dir;
}

int make_directory(const std::string &path) {
  return mkdir(path.c_str(), 0700) == 0 || errno == EEXIST ? 0 : errno;
}

// Creates the directory and any missing parents. Returns 0 or an errno.
int make_directories(const std::string &path) {
  int error = make_directory(path);
  const std::string parent = std::filesystem::path(path).parent_path();
  if (error == ENOENT && parent != path) {
    error = make_directories(parent);
    error = error != 0 ? error : make_directory(path);
  }
  return error;
}

int check_state_directory(const std::string &path) {
  struct stat status = {};
  if (path.size() > STATE_DIRECTORY_MAX) {
    return ENAMETOOLONG;
  }
  if (stat(path.c_str(), &status) != 0) {
    return errno;
  }
  if (!S_ISDIR(status.st_mode)) {
    return ENOTDIR;
  }
  return access(path.c_str(), R_OK | W_OK | X_OK) == 0 ? 0 : errno;
}

// Earlier versions let others read digest files.
void make_digests_private(const std::string &directory) {
  std::error_code error;
  for (const auto &entry : std::filesystem::directory_iterator(directory, error)) {
    if (entry.path().extension() != ".hsh") {
      continue;
    }
    const velmarin::unique_fd fd(
        open(entry.path().c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (fstat(fd.get(), &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1) {
      fchmod(fd.get(), S_IRUSR | S_IWUSR);
    }
  }
}

}  // namespace

bool resolve_roots(const std::vector<std::string> &given, std::vector<std::string> &roots) {
  bool all_usable = true;
  for (const std::string &path : given) {
    std::string resolved;
    if (const int error = resolve_directory(path, resolved); error != 0) {
      print_error("cannot use the root", path, std::strerror(error));
      all_usable = false;
    } else if (std::find(roots.begin(), roots.end(), resolved) == roots.end()) {
      roots.push_back(resolved);
    }
  }
  return all_usable;
}

std::string reported_path(const char *path) {
  return path[0] == '/' && path[1] == '/' ? path + 1 : path;
}

bool is_below(const std::string &path, const std::string &root) {
  return root == "/" || path.starts_with(root + "/");
}

std::vector<std::string> resolve_skips(const std::vector<std::string> &given, bool warn) {
  std::vector<std::string> skips;
  for (const std::string &path : given) {
    struct stat status = {};
    char resolved[PATH_MAX];
    const char *useless = nullptr;
    if (lstat(path.c_str(), &status) != 0 || realpath(path.c_str(), resolved) == nullptr) {
      useless = std::strerror(errno);
    } else if (S_ISLNK(status.st_mode)) {
      useless = "a symbolic link, which a scan does not follow";
    }
    if (useless != nullptr && warn) {
      print_error("nothing to skip at", path, useless);
    }
    skips.push_back(useless == nullptr ? resolved : path);
  }
  return skips;
}

std::string state_directory(const std::string &given) {
  if (!given.empty()) {
    return given;
  }
  const std::string state = environment("XDG_STATE_HOME");
  const bool is_usable = state.starts_with('/');  // a relative path is ignored
  return (is_usable ? state : home_directory() + "/.local/state") + "/velmarin";
}

bool prepare_state_directory(std::string &path) {
  int error = check_state_directory(path);
  if (error == ENOENT) {
    error = make_directories(path);
  }
  char resolved[PATH_MAX];
  if (error == 0) {
    error = realpath(path.c_str(), resolved) == nullptr ? errno : check_state_directory(resolved);
  }
  if (error != 0) {
    print_error("cannot use the state directory", path, std::strerror(error));
    return false;
  }
  path = resolved;
  make_digests_private(path);
  return true;
}

bool is_full(const std::string &directory) {
  struct statvfs volume = {};
  return statvfs(directory.c_str(), &volume) == 0 &&
         (volume.f_bavail == 0 || (volume.f_files > 0 && volume.f_favail == 0));
}

}  // namespace tool
