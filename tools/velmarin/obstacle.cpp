#include "obstacle.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>

namespace tool {
namespace {

// An old kernel that cannot answer is no obstacle.
int refused_access(int fd, const char *path, int mode, int flags) {
  if (faccessat(fd, path, mode, AT_EACCESS | flags) == 0) {
    return 0;
  }
  return errno == EACCES || errno == EPERM || errno == EROFS ? errno : 0;
}

// Append-only files can be opened for appending alone, and sealed ones for reading alone.
bool is_protected(int fd) {
  struct statx status = {};
  return statx(fd, "", AT_EMPTY_PATH, STATX_TYPE, &status) == 0 &&
         (status.stx_attributes & (STATX_ATTR_APPEND | STATX_ATTR_VERITY)) != 0;
}

std::set<std::pair<dev_t, ino_t>> running_programs() {
  std::set<std::pair<dev_t, ino_t>> files;
  DIR *const processes = opendir("/proc");
  if (processes == nullptr) {
    return files;
  }
  while (const dirent *const entry = readdir(processes)) {
    struct stat status = {};
    const std::string program = std::string(entry->d_name) + "/exe";
    if (isdigit(static_cast<unsigned char>(entry->d_name[0])) != 0 &&
        fstatat(dirfd(processes), program.c_str(), &status, 0) == 0) {
      files.emplace(status.st_dev, status.st_ino);
    }
  }
  closedir(processes);
  return files;
}

}  // namespace

bool RunningPrograms::contains(const struct stat &status) {
  if (!files_) {
    files_ = running_programs();
  }
  return files_->contains({status.st_dev, status.st_ino});
}

int obstacle_to_writing(int fd, const struct stat &status, RunningPrograms &programs) {
  if (const int error = refused_access(fd, "", W_OK, AT_EMPTY_PATH); error != 0) {
    return error;
  }
  if (is_protected(fd)) {
    return EPERM;
  }
  constexpr mode_t EXECUTABLE = S_IXUSR | S_IXGRP | S_IXOTH;
  return (status.st_mode & EXECUTABLE) != 0 && programs.contains(status) ? ETXTBSY : 0;
}

int obstacle_beside(const std::string &path) {
  const std::string directory = path.substr(0, path.rfind('/') + 1);
  return refused_access(AT_FDCWD, directory.c_str(), W_OK | X_OK, 0);
}

}  // namespace tool
