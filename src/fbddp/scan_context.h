// The shared record of one scan run.
//
// Locks: a spinlock is held for a few steps only, except a forest_lock, which is held for a whole
// insertion. The only nesting is forest_lock[i], then queue_lock.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "common/list.h"
#include "common/spinlock.h"
#include "velmarin/primitives.h"
#include "velmarin/scan.h"

namespace velmarin {

struct member_index;

inline constexpr size_t FOREST_TREES = 1024;
static_assert((FOREST_TREES & (FOREST_TREES - 1)) == 0,
              "a tree is chosen by the low bits of a size");

// The digest file's name as `pname` holds it: the digits, then room for the suffix.
inline constexpr size_t DIGEST_NAME_LENGTH = 64;  // lowercase hexadecimal digits
inline constexpr size_t DIGEST_SUFFIX_SIZE = sizeof(".hsh");
inline constexpr size_t DIGEST_NAME_SIZE = DIGEST_NAME_LENGTH + DIGEST_SUFFIX_SIZE;

// What the workers do with a job. A run passes through the phases in this order and changes the
// phase only while no job is pending.
enum scan_phase : int32_t {
  PHASE_START = 0,  // workers started, nothing to do
  PHASE_WALK = 1,   // reading directories, admitting files, computing digests
  PHASE_GROUP = 2,  // splitting groups by digest
  PHASE_STOP = 3,   // workers exit
};

// A local variable of `single_instance_storage`, so it lives as long as that call. The order and
// size of the fields up to `caller_data` are a contract with hosts that build their own context for
// the exported low-level functions.
struct sis_context {
  list_head dentries;         // every live dentry, in creation order; guarded by dentries_lock
  list_head groups;           // heads of groups of identical files; guarded by groups_lock
  list_head hash_entries;     // every loaded hash_entry, in file order; the run's own thread only
  pthread_cond_t work_done;   // signalled when `pending` drops to 0
  pthread_mutex_t work_lock;  // paired with work_done
  spinlock_slot dentries_lock;
  spinlock_slot *forest_lock;  // FOREST_TREES locks; lock i guards tree i and its groups
  timer_t timer;               // the time budget's timer; see also alarm_link::armed
  uint64_t max_depth;          // 0: no limit
  uint64_t min_size;           // bytes; 0: no minimum
  // Counters: raised by the workers with atomic adds, read after the workers are joined.
  uint64_t nr_dir_opened;
  uint64_t nr_dir_read;
  uint64_t nr_file_opened;
  uint64_t nr_scan_file;
  uint64_t nr_hashed;
  uint64_t nr_error;
  rb_root *hash_table;     // buckets of saved digests, null when none; see file_index.h
  char *pname;             // digest-file name, DIGEST_NAME_SIZE bytes; see digest_name.h
  rb_root *rbtree_roots;   // FOREST_TREES trees; see forest.h
  list_head threads;       // the run's thread slots
  list_head queue;         // jobs, oldest first; guarded by queue_lock
  list_head skip_entries;  // in the order of the skip paths
  rb_root file_skips;      // read-only during the walk
  rb_root dir_skips;       // read-only during the walk
  spinlock_slot queue_lock;
  spinlock_slot groups_lock;
  uint64_t pending;      // jobs scheduled and not yet finished; atomic adds only
  int32_t in_time;       // 1, then 0 once the run is told to stop; any thread, atomic
  int32_t phase;         // a scan_phase; written by the run's own thread only, atomic
  const sis_ops *ops;    // the host's callbacks
  uint64_t caller_data;  // passed to the report callback

  // Not part of the contract: the run's place in the set of runs that a SIGALRM may stop; see
  // time_budget.cpp.
  struct alarm_link {
    sis_context *next;         // next live run; read by the signal handler
    struct timespec deadline;  // monotonic time before which the budget cannot run out
    bool armed;                // `timer` is in use (0 is a valid timer)
  } alarm;

  member_index *member_indexes;  // FOREST_TREES indexes, or null; see member_index.h
};
static_assert(offsetof(sis_context, hash_entries) == 32 && offsetof(sis_context, work_done) == 48);
static_assert(sizeof(pthread_cond_t) != 48 || sizeof(pthread_mutex_t) != 40 ||
              (offsetof(sis_context, dentries_lock) == 136 &&
               offsetof(sis_context, forest_lock) == 144 && offsetof(sis_context, timer) == 152 &&
               offsetof(sis_context, nr_dir_opened) == 176 &&
               offsetof(sis_context, hash_table) == 224 && offsetof(sis_context, pname) == 232 &&
               offsetof(sis_context, threads) == 248 && offsetof(sis_context, dir_skips) == 304 &&
               offsetof(sis_context, pending) == 328 && offsetof(sis_context, in_time) == 336 &&
               offsetof(sis_context, caller_data) == 352));

}  // namespace velmarin
