// Revoke: gives a file its own data back. On Btrfs and XFS, makes a private copy in an unnamed
// temporary file, then asks the kernel to make the file share the copy's extents instead of those
// of the layered inode. The kernel does so only where the contents are equal, and holds the locks
// of both files, so a concurrent write is never lost and a crash leaves the old or the new extents,
// with the same content. Then the copy is dropped and the extents belong to the file alone.
#include <fcntl.h>
#include <linux/fs.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "sisfs.h"

namespace velmarin::sisfs {
namespace {

// How often the copy is attempted while the file is being written to.
constexpr int UNSHARE_ATTEMPTS = 5;

// Opens an unnamed file in the file's directory. A file that was removed, or whose name is outside
// this process's view, may have no such directory; the directory of a file that is itself a mount
// point is on another file system.
int open_temporary_beside(int fd, const file_status &status, unique_fd *temporary) {
  char link[32];
  char directory[PATH_MAX];
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  const ssize_t length = readlink(link, directory, sizeof(directory));
  if (length < 0 || static_cast<size_t>(length) == sizeof(directory)) {
    return length < 0 ? errno : ENAMETOOLONG;
  }
  directory[length] = '\0';
  if (directory[0] != '/') {
    return ENOENT;
  }
  strrchr(directory, '/')[1] = '\0';
  temporary->reset(open(directory, O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (!temporary->is_open()) {
    return errno;
  }
  file_status temporary_status;
  const int error = stat_regular(temporary->get(), &temporary_status);
  if (error != 0) {
    return error;
  }
  return is_same_file_system(fd, status, temporary->get(), temporary_status) ? 0 : EXDEV;
}

// Btrfs shares extents only between files with the same NOCOW flag, which can be changed only while
// a file is empty. Other file systems do not have the flag. If a mismatch remains, the file system
// refuses to share.
void match_nocow_flag(int fd, int empty_fd) {
  int flags = 0;
  int empty_flags = 0;
  if (kernel_ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0 ||
      kernel_ioctl(empty_fd, FS_IOC_GETFLAGS, &empty_flags) != 0 ||
      ((flags ^ empty_flags) & FS_NOCOW_FL) == 0) {
    return;
  }
  empty_flags ^= FS_NOCOW_FL;
  kernel_ioctl(empty_fd, FS_IOC_SETFLAGS, &empty_flags);
}

// Makes the whole copy before the first extent moves, so that a lack of space shows while the file
// is untouched. Only data is moved; anything written into a hole meanwhile is private anyway.
int replace_extents(int fd, int temporary, uint64_t size) {
  match_nocow_flag(fd, temporary);
  int error = copy_contents(fd, temporary, size);
  data_range range = {};
  while (error == 0) {
    error = next_data(temporary, size, &range);
    if (error != 0 || range.begin == range.end) {
      break;
    }
    error = share_range(temporary, fd, range.begin, range.end - range.begin);
    if (error == EOPNOTSUPP) {
      return 0;  // XFS without reflink support: nothing was ever shared
    }
  }
  return error;
}

// Fails with EBUSY when the file was written to meanwhile.
int unshare_once(int fd, const file_status &status) {
  unique_fd temporary;
  int error = open_temporary_beside(fd, status, &temporary);
  if (error != 0) {
    return error;
  }
  error = replace_extents(fd, temporary.get(), status.stamp.size);
  if (error == 0) {
    // Releases the copy's share at once; XFS would do so some time after the close.
    return ftruncate(temporary.get(), 0) == 0 ? 0 : errno;
  }
  const bool has_changed = error == EBADE || check_unchanged(fd, status) == EAGAIN;
  return has_changed ? EBUSY : error;
}

int unshare(int fd) {
  int error = EBUSY;
  for (int attempt = 0; error == EBUSY && attempt < UNSHARE_ATTEMPTS; attempt++) {
    file_status status;
    error = stat_regular(fd, &status);
    if (error == 0 && status.stamp.size > 0) {
      error = unshare_once(fd, status);
    }
  }
  return error;
}

}  // namespace

// A file that was written to since it was attached gets its own data too: it may still share what
// was not written. Fails with EINVAL for a file that was never attached. An immutable or
// append-only file is refused at once: its extents could be moved, but its record could not be
// removed.
int revoke_file(int fd) {
  layer_record record = {};
  file_status status;
  int error = check_changeable(fd);
  if (error == 0) {
    error = stat_regular(fd, &status);
  }
  if (error == 0) {
    error = read_layer(fd, &record, &status);
  }
  if (error != 0) {
    return error == ENODATA ? EINVAL : error;
  }
  if (status.is_protected) {
    return EPERM;
  }
  if (can_share_extents(fd)) {
    error = unshare(fd);
  }
  return error != 0 ? error : remove_layer(fd, record);
}

}  // namespace velmarin::sisfs
