// A file's state, kept in two user extended attributes so that updating one never undoes an update
// of the other: the layered inode that the file is attached to (here) and its coincide flag
// (sisfs_coincide.cpp). A temporary file that will become a layered inode carries a third.
//
// A record holds the stamp of the file it was written for. If the inode number or birth time
// differs, the record was copied from another file and is ignored. If the size or modification time
// differs, the file was written to and is no longer attached: copy on write has ended the sharing
// where it was written. Content is not compared here, so a `touch` detaches a file too, which costs
// only another dedup request (the data stays shared on disk until then). A program that writes a
// file, keeps its size and restores its time goes unnoticed. That never endangers content, since
// data is merged only after a comparison.
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <sys/xattr.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "sisfs.h"

namespace velmarin::sisfs {
namespace {

constexpr char LAYER_ATTRIBUTE[] = "user.velmarin.layer";
constexpr char CLONE_ATTRIBUTE[] = "user.velmarin.clone";
constexpr uint32_t RECORD_VERSION = 1;

constexpr int64_t SECOND_NS = 1'000'000'000;

// How often `settle` polls, and how long it waits beyond the granularity of the file's time.
constexpr int64_t SETTLE_POLL_NS = 2'000'000;
constexpr int64_t SETTLE_LIMIT_NS = 32'000'000;

// On a temporary file: when and from what it was filled.
struct clone_record {
  uint32_t version;
  uint32_t padding;
  file_stamp clone;
  file_stamp source;
};
static_assert(sizeof(clone_record) == 88);

int64_t nanoseconds_from(const timespec &time, const file_stamp &stamp) {
  return (stamp.mtime_sec - time.tv_sec) * SECOND_NS + stamp.mtime_nsec - time.tv_nsec;
}

// The file system's time granularity, estimated from one time: one second for a whole second, as on
// ext4 with small inodes, and so on. Never finer than the real one where files have user
// attributes.
int64_t granularity_of(const file_stamp &stamp) {
  int64_t granularity = 1;
  while (granularity < SECOND_NS && stamp.mtime_nsec % (granularity * 10) == 0) {
    granularity *= 10;
  }
  return granularity;
}

// File times come from the coarse clock, or from the fine one where the file system distinguishes
// changes within a tick. A file whose time, truncated to the granularity, lies between the two was
// changed within the current tick, and another change might leave it with the same time.
bool is_racily_clean(const file_stamp &stamp) {
  timespec tick_start = {};
  timespec now = {};
  clock_gettime(CLOCK_REALTIME_COARSE, &tick_start);
  clock_gettime(CLOCK_REALTIME, &now);
  if (stamp.mtime_sec < now.tv_sec - 2 || stamp.mtime_sec > now.tv_sec) {
    return false;  // also keeps the sums below from overflowing
  }
  return nanoseconds_from(tick_start, stamp) + granularity_of(stamp) > 0 &&
         nanoseconds_from(now, stamp) < 0;
}

}  // namespace

int read_attribute(int fd, const char *name, void *record, size_t size) {
  const ssize_t length = fgetxattr(fd, name, record, size);
  if (length < 0) {
    return errno == ERANGE ? ENODATA : errno;
  }
  return static_cast<size_t>(length) == size ? 0 : ENODATA;
}

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
  if (fd == AT_FDCWD) {  // which statx would accept
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
  status->is_protected = (stx.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0;
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

int settle(int fd, file_status *status) {
  for (int64_t waited = 0; is_racily_clean(status->stamp); waited += SETTLE_POLL_NS) {
    if (waited > granularity_of(status->stamp) + SETTLE_LIMIT_NS) {
      return EAGAIN;
    }
    const timespec pause = {0, SETTLE_POLL_NS};
    nanosleep(&pause, nullptr);
    const int error = stat_regular(fd, status);
    if (error != 0) {
      return error;
    }
  }
  return 0;
}

int stat_settled(int fd, file_status *status) {
  const int error = stat_regular(fd, status);
  return error != 0 ? error : settle(fd, status);
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
  const bool is_valid =
      record->version == RECORD_VERSION && is_same_inode(record->file, status->stamp);
  return is_valid ? 0 : ENODATA;
}

int read_attachment_of(int fd, const file_stamp &file, layer_record *record) {
  const int error = read_attribute(fd, LAYER_ATTRIBUTE, record, sizeof(*record));
  if (error != 0) {
    return error;
  }
  const bool is_valid = record->version == RECORD_VERSION && is_unchanged(record->file, file);
  return is_valid ? 0 : ENODATA;
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
  return write_attribute(fd, LAYER_ATTRIBUTE, &record, sizeof(record));
}

int remove_layer(int fd, const layer_record &record) {
  layer_record now;
  const int error = read_attribute(fd, LAYER_ATTRIBUTE, &now, sizeof(now));
  if (error == ENODATA || (error == 0 && memcmp(&now, &record, sizeof(now)) != 0)) {
    return 0;
  }
  if (error != 0) {
    return error;
  }
  const bool is_gone = fremovexattr(fd, LAYER_ATTRIBUTE) == 0 || errno == ENODATA;
  return is_gone ? 0 : errno;
}

int write_attribute(int fd, const char *name, const void *record, size_t size) {
  return fsetxattr(fd, name, record, size, 0) == 0 ? 0 : errno;
}

int check_changeable(int fd) {
  struct statfs file_system = {};
  const bool is_overlay =
      fstatfs(fd, &file_system) == 0 && file_system.f_type == OVERLAYFS_SUPER_MAGIC;
  return is_overlay ? EOPNOTSUPP : 0;
}

int write_clone_mark(int fd, const file_stamp &source) {
  file_status clone;
  const int error = stat_regular(fd, &clone);
  if (error != 0) {
    return error;
  }
  const clone_record record = {RECORD_VERSION, 0, clone.stamp, source};
  return write_attribute(fd, CLONE_ATTRIBUTE, &record, sizeof(record));
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
