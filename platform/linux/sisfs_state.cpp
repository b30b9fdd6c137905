// A file's state, kept in two user extended attributes so that an update of one never undoes an
// update of the other: the layered inode it is attached to (here), and its coincide flag
// (sisfs_coincide.cpp). A temporary file that is to become a layered inode carries a third.
//
// A record holds the stamp of the file for which it was written. With another inode number or time
// of birth it came here by copying and counts for nothing. With another size or modification time
// the file was written to, and it is no longer attached: what it shared with others ended, where it
// was written, with the file system's copy on write. Only times are compared, so a `touch` detaches
// a file as well, which costs nothing but a further dedup request (its data stays shared on disk
// until then); and a program that writes a file and then puts the old time back, keeping the size,
// goes unnoticed. The latter never endangers content, since data is merged only after a comparison.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>

#include <cerrno>
#include <ctime>

#include "sisfs.h"

namespace velmarin::sisfs {
namespace {

constexpr char LAYER_ATTRIBUTE[] = "user.velmarin.layer";
constexpr char CLONE_ATTRIBUTE[] = "user.velmarin.clone";
constexpr uint32_t RECORD_VERSION = 1;

// How often `stat_settled` looks again. A file that keeps changing is left alone after that: the
// next write comes soon enough.
constexpr int SETTLE_ATTEMPTS = 16;
constexpr long SETTLE_POLL_NS = 2'000'000;

// On a temporary file: when and from what it was filled.
struct clone_record {
  uint32_t version;
  uint32_t padding;
  file_stamp clone;
  file_stamp source;
};
static_assert(sizeof(clone_record) == 88);

bool is_before(const file_stamp &stamp, const timespec &time) {
  return stamp.mtime_sec < time.tv_sec ||
         (stamp.mtime_sec == time.tv_sec && stamp.mtime_nsec < static_cast<uint32_t>(time.tv_nsec));
}

// Times of files come from the coarse clock, or from the fine one where the file system wants to
// tell changes within a tick apart. A file whose time lies between the two was changed within the
// present tick, and a further change might leave it with the same time.
bool may_change_unseen(const file_stamp &stamp) {
  timespec tick_start = {};
  timespec now = {};
  clock_gettime(CLOCK_REALTIME_COARSE, &tick_start);
  clock_gettime(CLOCK_REALTIME, &now);
  const bool lies_in_future = !is_before(stamp, now);
  return !is_before(stamp, tick_start) && !lies_in_future;
}

// A value of another size was not written here; it is answered as ENODATA.
int read_attribute(int fd, const char *name, void *record, size_t size) {
  const ssize_t length = fgetxattr(fd, name, record, size);
  if (length < 0) {
    return errno == ERANGE ? ENODATA : errno;
  }
  return static_cast<size_t>(length) == size ? 0 : ENODATA;
}

}  // namespace

bool is_same_inode(const file_stamp &left, const file_stamp &right) {
  return left.ino == right.ino && left.birth_sec == right.birth_sec &&
         left.birth_nsec == right.birth_nsec;
}

bool is_unchanged(const file_stamp &left, const file_stamp &right) {
  return is_same_inode(left, right) && left.size == right.size &&
         left.mtime_sec == right.mtime_sec && left.mtime_nsec == right.mtime_nsec;
}

int stat_regular(int fd, file_status *status) {
  *status = {};
  if (fd < 0) {  // also AT_FDCWD, which statx would follow
    return EBADF;
  }
  struct statx stx = {};
  if (statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_BTIME, &stx) != 0) {
    return errno;
  }
  if (!S_ISREG(stx.stx_mode)) {
    return S_ISDIR(stx.stx_mode) ? EISDIR : EINVAL;
  }
  status->stamp.ino = stx.stx_ino;
  status->stamp.size = stx.stx_size;
  status->stamp.mtime_sec = stx.stx_mtime.tv_sec;
  status->stamp.mtime_nsec = stx.stx_mtime.tv_nsec;
  if ((stx.stx_mask & STATX_BTIME) != 0) {
    status->stamp.birth_sec = stx.stx_btime.tv_sec;
    status->stamp.birth_nsec = stx.stx_btime.tv_nsec;
  }
  status->device = makedev(stx.stx_dev_major, stx.stx_dev_minor);
  status->links = stx.stx_nlink;
  return 0;
}

int check_unchanged(int fd, const file_status &before) {
  file_status now;
  const int error = stat_regular(fd, &now);
  if (error != 0) {
    return error;
  }
  return is_unchanged(before.stamp, now.stamp) ? 0 : EAGAIN;
}

int stat_settled(int fd, file_status *status) {
  for (int attempt = 0;; attempt++) {
    const int error = stat_regular(fd, status);
    if (error != 0 || attempt == SETTLE_ATTEMPTS || !may_change_unseen(status->stamp)) {
      return error;
    }
    const timespec pause = {0, SETTLE_POLL_NS};
    nanosleep(&pause, nullptr);
  }
}

int read_layer(int fd, layer_record *record, file_status *status) {
  const int error = read_attribute(fd, LAYER_ATTRIBUTE, record, sizeof(*record));
  if (error != 0) {
    return error;
  }
  const int stat_error = stat_regular(fd, status);
  if (stat_error != 0) {
    return stat_error;
  }
  const bool counts =
      record->version == RECORD_VERSION && is_same_inode(record->file, status->stamp);
  return counts ? 0 : ENODATA;
}

int read_attachment(int fd, layer_record *record) {
  file_status status;
  const int error = read_layer(fd, record, &status);
  if (error != 0) {
    return error;
  }
  return is_unchanged(record->file, status.stamp) ? 0 : ENODATA;
}

int write_layer(int fd, const file_stamp &file, bool deduped, uint32_t layer_ino) {
  layer_record record = {};
  record.version = RECORD_VERSION;
  record.deduped = deduped ? 1 : 0;
  record.layered = 1;
  record.layer_ino = layer_ino;
  record.file = file;
  return fsetxattr(fd, LAYER_ATTRIBUTE, &record, sizeof(record), 0) == 0 ? 0 : errno;
}

int remove_layer(int fd) {
  return fremovexattr(fd, LAYER_ATTRIBUTE) == 0 || errno == ENODATA ? 0 : errno;
}

int write_clone_mark(int fd, const file_stamp &source) {
  file_status clone;
  const int error = stat_regular(fd, &clone);
  if (error != 0) {
    return error;
  }
  const clone_record record = {RECORD_VERSION, 0, clone.stamp, source};
  return fsetxattr(fd, CLONE_ATTRIBUTE, &record, sizeof(record), 0) == 0 ? 0 : errno;
}

int check_clone_mark(int fd, const file_stamp &source) {
  clone_record record = {};
  int error = read_attribute(fd, CLONE_ATTRIBUTE, &record, sizeof(record));
  if (error != 0) {
    return error == ENODATA ? EINVAL : error;
  }
  file_status clone;
  error = stat_regular(fd, &clone);
  if (error != 0) {
    return error;
  }
  if (record.version != RECORD_VERSION || !is_same_inode(record.clone, clone.stamp) ||
      !is_same_inode(record.source, source)) {
    return EINVAL;
  }
  const bool unchanged =
      is_unchanged(record.clone, clone.stamp) && is_unchanged(record.source, source);
  return unchanged ? 0 : EAGAIN;
}

}  // namespace velmarin::sisfs
