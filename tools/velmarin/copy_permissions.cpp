#include "copy_permissions.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>

#include "common/unique_fd.h"

namespace tool {
namespace {

constexpr const char *ACCESS_LIST = "system.posix_acl_access";
constexpr mode_t PERMISSIONS = 07777;

struct OpenFile {
  OpenFile(const std::string &path, int flags)
      : fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | flags)),
        error(fd.is_open() && fstat(fd.get(), &status) == 0 ? 0 : errno) {}

  struct stat status = {};
  const velmarin::unique_fd fd;
  const int error;  // of open or fstat
};

// Whether this is still the file that was created, not someone else's under the same name.
bool is_ours(const struct stat &status) {
  return S_ISREG(status.st_mode) && status.st_nlink == 1 && status.st_uid == geteuid() &&
         (status.st_mode & PERMISSIONS) == (S_IRUSR | S_IWUSR);
}

mode_t without_group(mode_t mode) {
  const mode_t others = mode & S_IRWXO;
  return (mode & ~static_cast<mode_t>(S_IRWXG | S_ISGID)) | ((others << 3) & mode);
}

bool has_no_list() {
  return errno == ENODATA || errno == EOPNOTSUPP;
}

// Removes the access control list that the copy got from its directory. Returns 0 or an errno.
int remove_access_list(int copy) {
  return fremovexattr(copy, ACCESS_LIST) == 0 || has_no_list() ? 0 : errno;
}

// Returns 0 or an errno.
int copy_access_list(int source, int copy) {
  char list[4096];
  const ssize_t size = fgetxattr(source, ACCESS_LIST, list, sizeof(list));
  if (size >= 0) {
    return fsetxattr(copy, ACCESS_LIST, list, static_cast<size_t>(size), 0) == 0 ? 0 : errno;
  }
  return has_no_list() ? remove_access_list(copy) : errno;
}

}  // namespace

int copy_permissions(const std::string &source, const std::string &copy) {
  const OpenFile from(source, 0);
  const OpenFile to(copy, O_NOFOLLOW);
  if (from.error != 0 || to.error != 0) {
    return from.error != 0 ? from.error : to.error;
  }
  if (!is_ours(to.status)) {
    return ESTALE;
  }
  const bool has_group = to.status.st_gid == from.status.st_gid ||
                         fchown(to.fd.get(), static_cast<uid_t>(-1), from.status.st_gid) == 0;
  mode_t mode = from.status.st_mode & PERMISSIONS;
  if (to.status.st_uid != from.status.st_uid) {
    mode &= ~static_cast<mode_t>(S_ISUID | S_ISGID);
  }
  const int error =
      has_group ? copy_access_list(from.fd.get(), to.fd.get()) : remove_access_list(to.fd.get());
  if (!has_group || error != 0) {
    mode = without_group(mode);
  }
  return fchmod(to.fd.get(), mode) == 0 ? 0 : errno;
}

}  // namespace tool
