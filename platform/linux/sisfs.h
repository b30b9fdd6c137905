// Emulation of the deduplicating file system's control codes on ordinary Linux file systems: the
// declarations shared by the files sisfs*.cpp. Every function returns 0 or a positive errno unless
// it says otherwise. Nothing is kept in memory between requests and no lock is taken: only the file
// system orders requests on the same file. Before a request writes a record, it checks that the
// files it examined have not changed. Another request may come between that check and the record: a
// simultaneous dedup and revoke of one file may leave extents shared without a record, or a record
// without shared extents. That costs space but no content.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "common/unique_fd.h"
#include "velmarin/control_codes.h"

namespace velmarin::sisfs {

// --- sisfs_state.cpp: a file's state, kept in user extended attributes ---

// What a record stores about a file. The inode number and birth time tell whether the record was
// written for this file; the size and modification time tell whether the file was written to since.
struct file_stamp {
  uint64_t ino;
  uint64_t size;
  int64_t mtime_sec;
  int64_t birth_sec;  // 0 where the file system records no birth time
  uint32_t mtime_nsec;
  uint32_t birth_nsec;
};
static_assert(sizeof(file_stamp) == 40);
static_assert(std::endian::native == std::endian::little,
              "records are stored as they are in memory");

struct file_status {
  file_stamp stamp;
  uint64_t device;
  uint32_t links;
  bool is_protected;  // immutable or append-only
};

// The record of a file that is, or was until it was written to, attached to a layered inode.
struct layer_record {
  uint32_t version;
  uint8_t deduped;
  uint8_t layered;
  uint8_t reserved[2];
  uint32_t layer_ino;
  uint32_t padding;
  file_stamp file;  // when it was attached
};
static_assert(sizeof(layer_record) == 56 && offsetof(layer_record, file) == 16);

bool is_same_inode(const file_stamp &left, const file_stamp &right);
bool is_unchanged(const file_stamp &left, const file_stamp &right);

// Fails with EBADF for a bad descriptor, EISDIR for a directory and EINVAL for anything else but a
// regular file.
int stat_regular(int fd, file_status *status);

// Like `stat_regular`, and guarantees that a write that begins after the call gives the file a
// different modification time, even where the file system stores times as coarsely as one second.
// The guarantee covers times taken from this machine's clock, not a network file system's, and ends
// if that clock is set back; for a time in the future, it ends when the clock reaches that time.
// Waits only if the file was written to within the current clock tick or within the granularity of
// its own time. Fails with EAGAIN if the file keeps being written to.
int stat_settled(int fd, file_status *status);

// Like `stat_settled`, but starts with an earlier result of `stat_regular` and stats the file again
// only if it must wait. A write before this call may have left the file with the time in `*status`.
int settle(int fd, file_status *status);

// Fails with EAGAIN when the file was written to since `before` was taken.
int check_unchanged(int fd, const file_status &before);

// Reads the record that was written for this file, even if the file was written to since. Fails
// with ENODATA when there is none.
int read_layer(int fd, layer_record *record, file_status *status);

// Like `read_layer`, but also fails with ENODATA if the file was written to since it was attached.
int read_attachment(int fd, layer_record *record);

// Like `read_attachment`, for a file whose stamp is already known.
int read_attachment_of(int fd, const file_stamp &file, layer_record *record);

int write_layer(int fd, const file_stamp &file, bool deduped, uint32_t layer_ino);

// Removes the record unless it differs from `record`: another request may have replaced it.
int remove_layer(int fd, const layer_record &record);

// Fails with ENODATA for a value of another size too: something else wrote it.
int read_attribute(int fd, const char *name, void *record, size_t size);

int write_attribute(int fd, const char *name, const void *record, size_t size);

// Fails with EOPNOTSUPP for a file on an overlay. The first change to a file of the lower layer,
// even to an attribute, would copy it up, which takes space instead of saving it and breaks hard
// links.
int check_changeable(int fd);

// Marks the temporary file `fd` as a clone of the file of `source`, as that file was then.
int write_clone_mark(int fd, const file_stamp &source);

// Fails with EINVAL when the temporary file was not cloned from the file of `source`, and with
// EAGAIN when either file was written to since.
int check_clone_mark(int fd, const file_stamp &source);

// --- sisfs_extents.cpp: file data and shared extents ---

int kernel_ioctl(int fd, unsigned long request, void *argument);  // as ioctl(2)

// A separate open file description, with its own offset, of the file behind `fd`. On failure the
// result is not open and errno is set.
unique_fd reopen(int fd, int access_mode);

// Whether two files are on the same file system. The subvolumes of a Btrfs file system have
// different device numbers but are one file system.
bool is_same_file_system(int left_fd, const file_status &left, int right_fd,
                         const file_status &right);

// Whether files of this file system can share extents.
bool can_share_extents(int fd);

// Makes the range of `target` share the extents of the same range of `source`. The kernel compares
// and remaps while it holds the locks of both files, so no byte of the target ever changes. Fails
// with EBADE when the contents differ, and with EOPNOTSUPP when the file system cannot share
// extents after all.
int share_range(int source, int target, uint64_t offset, uint64_t length);

// Makes two files of `size` bytes share their data where the file system can; elsewhere only
// compares them. Fails with EBADE when the contents differ. The comparison takes no lock, and a
// write sets the file's time before its data. So it misses the part of a long write, begun earlier,
// that lands behind the comparison, and stores through a shared mapping that leave the time
// unchanged. The files keep their own data then: no content is lost, but the record is wrong until
// the next write.
int merge_contents(int source, int target, uint64_t size);

// A range of a file that holds data, in whole blocks except at the end of the file.
struct data_range {
  uint64_t begin;
  uint64_t end;
};

// Moves `range` to the next data at or after `range->end`, below `size`; both ends are `size` when
// there is none, or none left because the file got shorter. Moves the offset of `fd`.
int next_data(int fd, uint64_t size, data_range *range);

// Copies `size` bytes into the empty file `target` through a buffer, so no extent is shared. Holes
// stay holes. The target grows as it is filled, so an interrupted copy is too short. If the source
// gets shorter meanwhile, the rest is a hole or the call fails with EAGAIN: the caller checks the
// source.
int copy_contents(int source, int target, uint64_t size);

// Fills the empty file `target` with the content of `source`: as a clone where the file system can
// do that, otherwise as a copy. `*is_refused` is set when the file system can share extents but
// refuses to share these. A clone is an atomic snapshot. A copy fails with EAGAIN when a write to
// the source begins while it is made. It may hold part of a write(2) that had already begun, and
// part of what is stored through a shared mapping into a page that is already dirty (on tmpfs,
// already mapped), since neither updates the file's time again.
int clone_contents(int source, int target, bool *is_refused);

// --- the requests: sisfs_attach.cpp, sisfs_revoke.cpp, sisfs_coincide.cpp ---

int clone_file(int fd, const sis_clone_arg &argument);
int connect_layer(int fd, const sis_connect_arg &argument);
int dedup_file(int fd, const sis_dedup_arg &argument);
int revoke_file(int fd);
int coincide_flag(int fd, sis_coincide_arg *argument);

}  // namespace velmarin::sisfs
