// The control codes of the deduplicating file system, carried out on ordinary Linux file systems:
// what the files sisfs*.cpp share. Every function returns 0 or a positive errno, unless it says
// otherwise. Nothing is kept in memory between requests and no lock is taken: requests on the same
// file are ordered by the file system alone, and each checks before it writes a record that the
// files it judged are still as it found them. Between that check and the record another request may
// come: a dedup and a revoke of one file at the same time may leave extents shared without a
// record, or a record without shared extents. That costs space and no content.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "common/unique_fd.h"
#include "velmarin/control_codes.h"

namespace velmarin::sisfs {

// --- sisfs_state.cpp: a file's state, kept in user extended attributes ---

// What a record remembers of a file. The inode number and the time of birth tell whether the file
// is the one for which the record was written, size and modification time whether it was written
// to.
struct file_stamp {
  uint64_t ino;
  uint64_t size;
  int64_t mtime_sec;
  int64_t birth_sec;  // 0 where the file system knows no time of birth
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

// Fails with EBADF for a bad descriptor, EISDIR for a directory and EINVAL for anything else that
// is not a regular file.
int stat_regular(int fd, file_status *status);

// As `stat_regular`; additionally a write that begins after the call gives the file a modification
// time that differs from the returned one, however coarsely, up to one second, the file system
// keeps times. That holds for times taken from this machine's clock, not for a network file
// system's, and while that clock is not set back; a time that lies in the future holds until the
// clock gets there. Waits only for a file that was written to within the present tick of the clock,
// or within the granularity of its own time, and fails with EAGAIN when the file goes on being
// written to.
int stat_settled(int fd, file_status *status);

// As `stat_settled`, with the status that `stat_regular` gave before: asks again only if it must
// wait. What was written before this call may have left the file with the time in `*status`.
int settle(int fd, file_status *status);

// Fails with EAGAIN when the file was written to since `before` was taken.
int check_unchanged(int fd, const file_status &before);

// Reads the record that was written for this file, also when the file was written to since. Fails
// with ENODATA when there is none.
int read_layer(int fd, layer_record *record, file_status *status);

// As `read_layer`, but fails with ENODATA also when the file was written to since it was attached.
int read_attachment(int fd, layer_record *record);

// As `read_attachment`, with the file's stamp already known.
int read_attachment_of(int fd, const file_stamp &file, layer_record *record);

int write_layer(int fd, const file_stamp &file, bool deduped, uint32_t layer_ino);

// Leaves a record alone that is not `record`, since another request wrote it meanwhile.
int remove_layer(int fd, const layer_record &record);

int write_attribute(int fd, const char *name, const void *record, size_t size);

// Fails with EOPNOTSUPP for a file of an overlay. The first change to one of its lower layer, be it
// of an attribute, would copy the file up: that takes space instead of saving it, and parts hard
// links.
int check_changeable(int fd);

// Notes on the temporary file `fd` that it was filled from the file of `source`, as that was then.
int write_clone_mark(int fd, const file_stamp &source);

// Fails with EINVAL when the temporary file was not cloned from the file of `source`, with EAGAIN
// when either of them was written to since.
int check_clone_mark(int fd, const file_stamp &source);

// --- sisfs_extents.cpp: data and its sharing ---

int kernel_ioctl(int fd, unsigned long request, void *argument);  // as ioctl(2)

// An own open description of the file behind `fd`, with a position of its own. The result is not
// open, and errno is set, on failure.
unique_fd reopen(int fd, int access_mode);

// Whether two files lie on one file system. The subvolumes of a Btrfs file system have device
// numbers of their own but are one file system.
bool is_same_file_system(int left_fd, const file_status &left, int right_fd,
                         const file_status &right);

// Whether files of this file system can share extents.
bool can_share_extents(int fd);

// Makes the range of `target` share the extents of the same range of `source`. The kernel compares
// and remaps under the locks of both files, so no byte of the target ever changes. Fails with EBADE
// when the contents differ, with EOPNOTSUPP when the file system cannot share extents after all.
int share_range(int source, int target, uint64_t offset, uint64_t length);

// Makes two files of `size` bytes share their data where the file system can; elsewhere only
// compares them. Fails with EBADE when the contents differ. A comparison takes no lock, and a write
// sets the file's time before its data: of a long write that had begun before, what arrives behind
// the comparison is missed, and so is what is stored through a shared mapping without moving the
// time. The files keep their own data then, so nothing is lost but the truth of the record, until
// the next write.
int merge_contents(int source, int target, uint64_t size);

// A range of a file that holds data, in whole blocks but for the end of the file.
struct data_range {
  uint64_t begin;
  uint64_t end;
};

// Moves `range` to the next data at or after `range->end`, below `size`; both ends are `size` when
// there is none, also because the file got shorter. Moves the position of `fd`.
int next_data(int fd, uint64_t size, data_range *range);

// Copies `size` bytes into the empty file `target`, through buffers, so that no extent is shared.
// Holes stay holes. The target grows as it is filled, so a copy that was cut off is too short. Of a
// source that gets shorter meanwhile the rest is a hole, or the call fails with EAGAIN: the caller
// checks the source.
int copy_contents(int source, int target, uint64_t size);

// Fills the empty file `target` with the content of `source`: as a clone where the file system can
// do that, else as a copy. `*is_refused` says that the file system shares extents but would not
// share these. A clone is the content of one moment. A copy fails with EAGAIN when a write to the
// source began while it was made; it may hold a part of a write(2) that had begun before, and of
// what is stored through a shared mapping into a page that is dirty already (on tmpfs: mapped
// already), since neither moves the file's time again.
int clone_contents(int source, int target, bool *is_refused);

// --- the requests: sisfs_attach.cpp, sisfs_revoke.cpp, sisfs_coincide.cpp ---

int clone_file(int fd, const sis_clone_arg &argument);
int connect_layer(int fd, const sis_connect_arg &argument);
int dedup_file(int fd, const sis_dedup_arg &argument);
int revoke_file(int fd);
int coincide_flag(int fd, sis_coincide_arg *argument);

}  // namespace velmarin::sisfs
