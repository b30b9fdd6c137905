// The requests that attach files to a layered inode: clone, connect, dedup. The layered inode
// exists only as the extents that its files share and as a number in the record of each.
//
// A refused request leaves every byte of every file as it was, except that the unnamed temporary
// file of a failed clone may hold part of the source. A request that dies halfway leaves extents
// shared without a record, which is harmless since a write still copies, or a new file that is
// shorter than its source. `fill_target` tells what happens to a new file that another process
// writes to meanwhile.
#include <fcntl.h>
#include <sys/random.h>

#include <cerrno>

#include "sisfs.h"

namespace velmarin::sisfs {
namespace {

// The access that an open descriptor allows; none for a bad one.
struct descriptor_access {
  bool is_readable;
  bool is_writable;
  bool is_appending;
};

descriptor_access access_of(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  if ((flags & O_PATH) != 0) {  // also after a failure: -1 has every bit
    return {};
  }
  const int mode = flags & O_ACCMODE;
  return {mode != O_WRONLY, mode != O_RDONLY, (flags & O_APPEND) != 0};
}

// The inode number of the temporary file will not do: once that file is gone, ext4 and XFS reuse
// its number, and two layered inodes would look like one.
int random_layer_number(uint32_t *number) {
  do {
    if (getrandom(number, sizeof(*number), 0) != static_cast<ssize_t>(sizeof(*number))) {
      return errno;
    }
  } while (*number == 0);
  return 0;
}

// The two files of a request, both regular and on the same file system. `source_fd` belongs to the
// caller.
struct file_pair {
  int source_fd;
  file_status source;
  file_status target;
};

int stat_pair(int target_fd, uint32_t source_fd, file_pair *pair) {
  pair->source_fd = static_cast<int>(source_fd);
  int error = check_changeable(target_fd);
  if (error == 0) {
    error = stat_regular(target_fd, &pair->target);
  }
  if (error == 0) {
    error = stat_settled(pair->source_fd, &pair->source);
  }
  if (error != 0) {
    return error;
  }
  if (!is_same_file_system(pair->source_fd, pair->source, target_fd, pair->target)) {
    return EXDEV;
  }
  const bool is_one_inode = pair->source.device == pair->target.device &&
                            pair->source.stamp.ino == pair->target.stamp.ino;
  return is_one_inode ? EINVAL : 0;
}

// Writes the record of a filled target. If the source is not attached, the target stays a plain
// copy.
int record_copy(int fd, const file_pair &pair, const file_status &filled) {
  layer_record layer = {};
  int error = read_attachment(pair.source_fd, &layer);
  if (error != 0) {
    return error == ENODATA ? 0 : error;
  }
  error = check_unchanged(pair.source_fd, pair.source);
  file_status settled;
  if (error == 0) {
    error = stat_settled(fd, &settled);
  }
  if (error != 0) {
    return error;
  }
  const bool is_ours =
      is_unchanged(settled.stamp, filled.stamp) && settled.stamp.size == pair.source.stamp.size;
  return is_ours ? write_layer(fd, settled.stamp, true, layer.layer_ino) : EAGAIN;
}

// The target was found empty through the read-only descriptor that created it. After a failure it
// is empty again, unless another process wrote to it after it was filled, or beyond the source's
// size. What another process writes meanwhile can be lost, since no system call fills or empties a
// file only if it is unchanged. A write below the source's size can be lost from the check of the
// size until the file system's clock has ticked after the filling; a write at any offset, between a
// check of the file and the call that clones or sets its size.
int fill_target(int fd, const file_pair &pair) {
  const unique_fd writable = reopen(fd, O_RDWR);
  if (!writable.is_open()) {
    return errno;
  }
  file_status filled;
  int error = stat_regular(writable.get(), &filled);
  if (error != 0 || filled.stamp.size != 0) {
    return error != 0 ? error : EINVAL;
  }
  bool is_refused = false;
  error = clone_contents(pair.source_fd, writable.get(), &is_refused);
  const int stat_error = stat_regular(writable.get(), &filled);
  if (stat_error != 0) {
    return stat_error;
  }
  if (error == 0 && !is_refused) {
    error = record_copy(fd, pair, filled);
  }
  const bool is_ours =
      filled.stamp.size <= pair.source.stamp.size && check_unchanged(writable.get(), filled) == 0;
  const bool is_left = error != 0 && is_ours && ftruncate(writable.get(), 0) != 0;
  return is_left ? errno : error;
}

// Once the data is shared, both files must still be unchanged: a file that was written to meanwhile
// keeps what was written and is not attached. Anything written between the first stat of a file and
// the comparison is compared too. `fd` is open for writing.
int merge_target(int fd, const file_pair &pair) {
  layer_record layer = {};
  int error = read_attachment_of(pair.source_fd, pair.source.stamp, &layer);
  if (error != 0) {
    return error == ENODATA ? EINVAL : error;
  }
  file_status target = pair.target;
  error = settle(fd, &target);
  if (error != 0) {
    return error;
  }
  if (pair.source.stamp.size != target.stamp.size) {
    return EBADE;
  }
  error = merge_contents(pair.source_fd, fd, target.stamp.size);
  if (error == 0) {
    error = check_unchanged(pair.source_fd, pair.source);
  }
  if (error == 0) {
    error = check_unchanged(fd, target);
  }
  return error != 0 ? error : write_layer(fd, target.stamp, true, layer.layer_ino);
}

}  // namespace

// Only an unnamed file is filled: an empty file with a name may be in use.
int clone_file(int fd, const sis_clone_arg &argument) {
  file_pair pair;
  int error = stat_pair(fd, argument.src_fd, &pair);
  if (error != 0) {
    return error;
  }
  if (argument.flags != SIS_CLONE_FLAGS || pair.target.links != 0 || pair.target.stamp.size != 0) {
    return EINVAL;
  }
  const descriptor_access access = access_of(fd);
  if (!access_of(pair.source_fd).is_readable || !access.is_writable || access.is_appending) {
    return EBADF;  // as for FICLONE
  }
  bool is_refused = false;  // then the layer is a copy; later dedup requests may share
  error = clone_contents(pair.source_fd, fd, &is_refused);
  return error != 0 ? error : write_clone_mark(fd, pair.source.stamp);
}

int connect_layer(int fd, const sis_connect_arg &argument) {
  file_pair pair;
  int error = stat_pair(static_cast<int>(argument.layer_fd), static_cast<uint32_t>(fd), &pair);
  if (error != 0) {
    return error;
  }
  if (pair.target.links != 0 || pair.target.stamp.size != pair.source.stamp.size) {
    return EINVAL;
  }
  error = check_clone_mark(static_cast<int>(argument.layer_fd), pair.source.stamp);
  uint32_t layer_ino = 0;
  if (error == 0) {
    error = random_layer_number(&layer_ino);
  }
  return error != 0 ? error : write_layer(fd, pair.source.stamp, false, layer_ino);
}

// An empty target is filled only through a read-only descriptor, such as the one of a caller that
// has just created the file; a target opened for writing is merged like any other.
int dedup_file(int fd, const sis_dedup_arg &argument) {
  file_pair pair;
  const int error = stat_pair(fd, argument.src_fd, &pair);
  if (error != 0) {
    return error;
  }
  if (argument.mode != SIS_DEDUP_ATTACHED && argument.mode != SIS_DEDUP_COPY) {
    return EINVAL;
  }
  const descriptor_access access = access_of(fd);
  if (!access_of(pair.source_fd).is_readable || !access.is_readable) {
    return EBADF;
  }
  if (access.is_writable) {
    return merge_target(fd, pair);
  }
  const bool is_copy = argument.mode == SIS_DEDUP_COPY && pair.target.stamp.size == 0;
  return is_copy ? fill_target(fd, pair) : EBADF;
}

}  // namespace velmarin::sisfs
