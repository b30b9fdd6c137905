// Scanning directory trees for files with identical content: the request, the callbacks, the
// report and the calls that start and stop a scan.
//
// A scan changes only its digest file in the state directory and the coincide flags that freezing
// sets. It runs on the calling thread and three worker threads and returns when it is over. Any
// number of scans may run at once in one process.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "velmarin/export.h"

namespace velmarin {

struct dentry;  // the engine's record of a file; opaque to a host

// The stage of the report at which the report callback is called, in order of occurrence.
enum sis_report_stage : uint32_t {
  REPORT_BEGIN = 0,       // all other fields are zero
  REPORT_GROUP = 3,       // the first file of a group of identical files
  REPORT_FILE = 4,        // another file of that group; after REPORT_COMPRESSED, a compressed file
  REPORT_GROUP_END = 5,   // the group is complete; other fields as in the previous call
  REPORT_COMPRESSED = 1,  // the compressed files follow; other fields as in the previous call
  REPORT_END = 2,         // the last call: the run's counters, see `sis_report`
};

// What the results of the report callback do. Any result not listed here continues the report, as 0
// does.
//   REPORT_BEGIN, REPORT_COMPRESSED: any result but 0 ends the report.
//   REPORT_GROUP: REPORT_SKIP skips the rest of the group (REPORT_GROUP_END still follows),
//     REPORT_STOP ends the report.
//   REPORT_FILE of a group: as REPORT_GROUP.
//   REPORT_GROUP_END: REPORT_STOP ends the report.
//   REPORT_FILE of a compressed file: REPORT_SKIP ends the report, REPORT_STOP does not.
// However the report ends, its last call is REPORT_END, whose result is ignored.
inline constexpr int REPORT_SKIP = 2;
inline constexpr int REPORT_STOP = 3;

// One record of the report. The record and everything it points to belong to the scan. The record
// and `path` are overwritten by the next call; `dentry`, `mtime` and `digest` stay valid until the
// call with REPORT_END returns.
//
// With REPORT_END the first six fields carry the run's counters instead, in this order: directories
// opened, directories read, files opened, candidate files, files whose content was read for a
// digest, errors. Ignore `mtime` and `digest` then.
struct sis_report {
  struct dentry *dentry;         // identifies the file within this report
  uint64_t ino;                  // low 32 bits of the inode number
  const char *path;              // full path: the root as given, then the names below it
  int64_t status;                // SIS_STATUS_* or minus an errno
  uint64_t size;                 // length in bytes
  uint64_t blocks;               // allocated 512-byte blocks
  const struct timespec *mtime;  // modification time when the file was examined
  const uint8_t *digest;         // SHA-256 of the content, 32 bytes; null when not computed
  uint32_t stage;                // a sis_report_stage
};
static_assert(sizeof(sis_report) == 72 && offsetof(sis_report, path) == 16 &&
              offsetof(sis_report, digest) == 56 && offsetof(sis_report, stage) == 64);

using sis_entry_callback = int (*)(int fd, const struct stat *status, const char *path);
using sis_freeze_callback = int (*)(int fd, const char *path);
using sis_report_callback = int (*)(uint64_t caller_data, sis_report *record);

// The callbacks of a scan. Any slot may be null and is then never called. The first four are called
// by several worker threads at once and receive no host data; `report` is called by the thread that
// runs the scan. All of them must return, but they may take any length of time.
//
// `fd` is open on the entry for reading, `path` is its full path and `status` its fstat result. All
// three belong to the scan and are valid during the call; a callback must leave the file offset of
// `fd` as it is.
struct sis_ops {
  // Called for every directory and regular file that the walk opens, except those that a skip path
  // names. A negative result excludes the entry; a positive one admits a file of any size.
  sis_entry_callback filter;
  // Called for every candidate file; the result is reported as its status and must fit in 16 bits.
  // Without it the status is 0. Files with SIS_STATUS_COMPRESSED are listed as compressed, even if
  // they belong to a group.
  sis_entry_callback get_status;
  // Called before a file is read for its digest; a nonzero result (an errno) excludes the file.
  // `prep` and `verify` are used only when both are set; otherwise modification times are compared.
  // For one file, both are called with the same descriptor on the same thread, which makes no call
  // for another file in between.
  sis_freeze_callback prep;
  // Called after the file was read; a nonzero result means that it has changed, and excludes it.
  sis_freeze_callback verify;
  // Receives the report; null for no report.
  sis_report_callback report;
};
static_assert(sizeof(sis_ops) == 40 && offsetof(sis_ops, prep) == 16 &&
              offsetof(sis_ops, report) == 32);

// What to scan. The scan only reads it; the host owns everything it points to.
struct sis_scan_request {
  int32_t root_count;       // number of roots; below 1 means none
  int32_t skip_count;       // number of skip paths
  const char **roots;       // directories to scan, in order; the order also names the digest file
  const char **skip_paths;  // files and directories to skip; may be null
  const char *save_dir;     // existing directory of the digest file, at most 4026 characters
  int64_t size_hint;        // bytes; above 0x10000000, candidates are files of 1 MiB and more,
                            // otherwise of 64 KiB and more
};
static_assert(sizeof(sis_scan_request) == 40 && offsetof(sis_scan_request, roots) == 8 &&
              offsetof(sis_scan_request, save_dir) == 24 &&
              offsetof(sis_scan_request, size_hint) == 32);

}  // namespace velmarin

extern "C" {

// Scans the roots of `request` with no depth limit and a time budget of 300 seconds, using the
// library's own status probes, and reports to `report`.
//
//   request      what to scan; must not be null
//   caller_data  passed unchanged to every call of `report`
//   report       receives the findings on the calling thread; null for none
//
// Returns 0 on success; the errno of access(2) when the state directory does not exist or a root is
// not readable; otherwise the result of `single_instance_storage`. Thread-safe.
VELMARIN_EXPORT int startScanDirImpl(const velmarin::sis_scan_request *request,
                                     uint64_t caller_data, velmarin::sis_report_callback report);

// Performs one scan.
//
//   roots, root_count       directories to scan, in order; a count below 1 means none
//   skip_paths, skip_count  files and directories to skip; null or below 1 for none. Symbolic
//                           links are not followed; an unusable path is logged and ignored.
//   save_dir                existing directory of the digest file, at most 4026 characters
//   min_size                smallest candidate in bytes; 0 for no minimum
//   max_depth               directories at this depth below a root are not read; 1 to 2047, any
//                           other value for no limit
//   reserved                not read
//   time_budget             seconds after which the scan stops early; 0 for no limit. While a scan
//                           with a budget runs, it owns the process's SIGALRM action, and SIGALRM
//                           is left unblocked in the calling thread (or blocked if the timer cannot
//                           be created or started; the scan then has no budget).
//   ops                     callbacks; must stay valid during the call
//   caller_data             passed unchanged to `ops->report`
//   stop_handle             receives a pointer for `signal_no_time`, valid until this call returns;
//                           may be null. It is set before the workers start, so a callback can
//                           pass it to other threads.
//
// A scan that is stopped early keeps the digests it computed and reports the groups it found.
// Returns 0 when the scan reached its report (even if it was stopped, or digests could not be
// loaded or saved); EINVAL when `ops` is null; 1 when the scan could not be set up or no worker
// thread could be started; an errno (or 1 if there is none) when the name of the digest file could
// not be formed. Thread-safe; scans over the same roots with the same `save_dir` share one digest
// file under its file lock.
VELMARIN_EXPORT int single_instance_storage(const char **roots, int root_count,
                                            const char **skip_paths, int skip_count,
                                            const char *save_dir, uint64_t min_size, int max_depth,
                                            int reserved, unsigned time_budget,
                                            const velmarin::sis_ops *ops, uint64_t caller_data,
                                            int **stop_handle);

// Tells a running scan to stop early. `in_time` is the pointer that the scan stored in
// `stop_handle`. Safe in any thread and in a signal handler until that scan returns.
VELMARIN_EXPORT void signal_no_time(int *in_time);

}  // extern "C"
