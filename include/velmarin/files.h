// Operations on single files and groups of files, status probes and statistics. All of them may be
// called from any thread, even while a scan runs. The statistics are the only state they keep.
#pragma once

#include <sys/stat.h>

#include <cstdint>

#include "velmarin/export.h"

extern "C" {

// Makes `file2` share the data of `file1`, which is first attached to a new layered inode if it is
// a plain file. Neither path may be null; `file1` must contain a '/'.
//
// Returns 0 on success; -1 when `file1` has no directory part, memory runs out or a file cannot be
// opened for reading and writing; a positive errno when the temporary file cannot be created or the
// file system refuses a request. Nothing is undone: after a refused `file2`, `file1` stays attached
// to its layered inode.
VELMARIN_EXPORT int sisFileTaskImpl(const char *file1, const char *file2);

// Returns nonzero when the file at `path` is attached to a layered inode (the state byte from the
// file system), 0 when it is a plain file, -1 on any failure. The file is opened for reading and
// writing.
VELMARIN_EXPORT int getSISFileInfoImpl(const char *path);

// Gives the file at `path` its own data back. The request is made whatever state the file is in.
//
// Returns 0 when the file is plain afterwards; -1 when it cannot be opened for reading and writing,
// or cannot be queried afterwards; -2 when its state byte is still 1 (also the value of a path that
// does not exist: minus ENOENT); any other nonzero state byte, unchanged; otherwise minus the errno
// of the failed path resolution or of the refused request (on Linux -EINVAL for a file that was
// never attached).
VELMARIN_EXPORT int recoverFileImpl(const char *path);

// Sets the coincide flag of the plain file at `path` if the file's modification time is the given
// one (seconds and nanoseconds). Compares the time again afterwards and clears the flag if it has
// changed.
//
// Returns 0 when the flag is set; the nonzero state byte when the file is attached to a layered
// inode, whose flag is left alone; -1 when `path` is null or cannot be resolved, opened, examined
// or queried, or when the time differs or has changed (a file that can no longer be examined once
// the flag is set keeps it); minus errno when the flag could not be set or cleared again.
VELMARIN_EXPORT int setCheckFlagImpl(const char *path, long mtime_sec, long mtime_nsec);

// Returns the flag word of the file at `path` (bit SIS_FLAG_COINCIDE is the coincide flag); -1 when
// `path` is null or cannot be opened for reading and writing; minus errno when it cannot be
// resolved or queried.
VELMARIN_EXPORT int getCoincideFlagImpl(const char *path);

// Makes a group of files with identical content share one new layered inode, made from `paths[0]`.
// All files are opened before anything is changed.
//
//   paths  `count` paths, none null; only read
//   count  at least 1
//
// Returns 0 when every file shares the layered inode; EINVAL for a count below 1; the errno,
// possibly ENOMEM, of a failure before the layered inode exists, with nothing changed; after that,
// the errno of the last file that was refused, with the others deduplicated.
VELMARIN_EXPORT int sis_them_all(char **paths, int count);

// Makes a layered inode from the file at `path` and attaches the file to it. On Linux a file that
// is already attached to a layered inode moves to the new one; the other files stay attached to the
// old one.
//
// Returns the file's descriptor, open for reading and writing, which the caller owns: it is the
// `src_fd` for `dedup_file`. Close it when the group is done. Returns -1 on failure; only
// the log says why.
VELMARIN_EXPORT int create_layer(const char *path);

// Deduplicates the file at `path` onto the layered inode to which the file of `src_fd` is attached.
// `src_fd` is open for reading, belongs to the caller and stays open. Returns 0 or a positive
// errno; a refused file keeps its own data.
VELMARIN_EXPORT int dedup_file(const char *path, int src_fd);

// Creates the new file `dst`, which shares the data of `src`, with mode 0644 less the umask.
// Returns 0 or a positive errno: EEXIST when `dst` exists, which is left untouched. If the file
// system refuses the copy, the new `dst` remains, empty.
VELMARIN_EXPORT int reflink_copy(const char *src, const char *dst);

// Detaches the file at `path` from its layered inode, so that it holds its own data again. Returns
// 0; 1 when the file is not attached and nothing was done (EPERM has the same value); otherwise a
// positive errno. On Linux a file that was written to since it was attached is reported as not
// attached, though it may still share the rest of its data: `recoverFileImpl` unshares that too.
VELMARIN_EXPORT int revoke_file(const char *path);

// The four status probes, which fit the slots of `sis_ops`. `fd` is open on the file, `status` is
// its fstat result, and `path` only appears in log lines.

// Returns 0 for anything but a regular file. For a file that occupies less space than its length,
// returns the result of `check_file_status` and counts the file in the statistics if it is
// deduplicated or compressed. For any other file, returns 0, or -EOPNOTSUPP when its file system
// cannot deduplicate.
VELMARIN_EXPORT int filter_out_nonsis(int fd, const struct stat *status, const char *path);

// Returns SIS_STATUS_COMPRESSED, SIS_STATUS_PLAIN, SIS_STATUS_LAYERED or SIS_STATUS_DEDUPED, or
// minus errno. `status` is not read.
VELMARIN_EXPORT int check_file_status(int fd, const struct stat *status, const char *path);

// Sets the file's coincide flag. Returns 0 or a positive errno.
VELMARIN_EXPORT int freeze_file(int fd, const char *path);

// Returns 0 when the coincide flag is still set, -1 when it is not, minus errno when the request
// fails.
VELMARIN_EXPORT int check_frozen(int fd, const char *path);

// Reads the process-wide statistics that `filter_out_nonsis` gathers and resets them to 0. Each
// counter is read and reset in one atomic step, so no count is lost. A counter whose pointer is
// null is reset too.
VELMARIN_EXPORT void get_sis_file_statistics(uint64_t *compressed_files, uint64_t *deduped_files,
                                             uint64_t *compressed_saved_bytes,
                                             uint64_t *deduped_saved_bytes);

}  // extern "C"
