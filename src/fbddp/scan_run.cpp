// One whole scan run: the order of its phases. Everything here runs on the caller's thread.

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <span>

#include "common/atomic_word.h"
#include "common/log.h"
#include "fbddp/dentry.h"
#include "fbddp/dentry_forms.h"
#include "fbddp/digest_name.h"
#include "fbddp/file_index.h"
#include "fbddp/job_queue.h"
#include "fbddp/member_index.h"
#include "fbddp/run_resources.h"
#include "fbddp/scan_context.h"
#include "fbddp/scan_report.h"
#include "fbddp/skip_set.h"
#include "fbddp/time_budget.h"
#include "fbddp/worker_pool.h"

namespace velmarin {
namespace {

constexpr int SET_UP_FAILED = 1;

// What the host asked to scan.
struct scan_arguments {
  const char **roots;
  int root_count;
  const char **skip_paths;
  int skip_count;
  const char *save_dir;
};

struct timespec wall_time() {
  struct timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return now;
}

struct timespec time_between(const struct timespec &start, const struct timespec &end) {
  constexpr long NANOSECONDS_PER_SECOND = 1000000000;
  struct timespec elapsed = {end.tv_sec - start.tv_sec, end.tv_nsec - start.tv_nsec};
  if (elapsed.tv_nsec < 0) {
    elapsed.tv_sec -= 1;
    elapsed.tv_nsec += NANOSECONDS_PER_SECOND;
  }
  return elapsed;
}

// Returns the time since `*mark` and sets `*mark` to now.
struct timespec time_since(struct timespec *mark) {
  const struct timespec now = wall_time();
  const struct timespec elapsed = time_between(*mark, now);
  *mark = now;
  return elapsed;
}

void set_phase(sis_context *ctx, scan_phase phase) {
  store_release(&ctx->phase, static_cast<int32_t>(phase));
}

bool is_in_time(const sis_context *ctx) {
  return load_relaxed(&ctx->in_time) != 0;
}

// Returns how many workers were started.
int start_workers(sis_context *ctx) {
  int started = 0;
  for (int i = 0; i < WORKER_COUNT; i++) {
    if (get_thread(ctx, ctx) != 0) {
      log_erro("fail to start worker %d", i);
    } else {
      started++;
    }
  }
  return started;
}

void load_digests(sis_context *ctx, const char *save_dir, struct timespec *mark) {
  const int64_t count = load_usable_hash(ctx, save_dir);
  if (count < 0) {
    drop_hash_table(ctx);
  }
  const struct timespec elapsed = time_since(mark);
  log_info("load_usable_hash(%ld entries):%ld.%09lds elapsed in clock on real world wall\n", count,
           elapsed.tv_sec, elapsed.tv_nsec);
}

void schedule_root(sis_context *ctx, const char *root) {
  dentry *directory = nullptr;
  if (create_dentry(nullptr, root, &directory, DIRECTORY_FORM) != 0) {
    return;
  }
  track_dentry(ctx, directory);
  if (is_in_time(ctx)) {
    schedule_job(ctx, directory);
  }
}

void walk_roots(sis_context *ctx, const scan_arguments &arguments, struct timespec *mark) {
  make_member_indexes(ctx);
  set_phase(ctx, PHASE_WALK);
  for (int i = 0; i < arguments.root_count; i++) {
    schedule_root(ctx, arguments.roots[i]);
  }
  wait_until_idle(ctx);
  free_skip_entries(ctx);
  drop_hash_table(ctx);
  free_member_indexes(ctx);
  const struct timespec elapsed = time_since(mark);
  log_info("scan_directory:%ld.%09lds elapsed in clock on real world wall\n", elapsed.tv_sec,
           elapsed.tv_nsec);
}

// Queues one job for each tree node that has a group. No worker changes the tree links in this
// phase, and a node's marker and list change only once its own job is queued, so no lock is needed.
void split_groups(sis_context *ctx, struct timespec *mark) {
  set_phase(ctx, PHASE_GROUP);
  for (const rb_root &tree : std::span(ctx->rbtree_roots, FOREST_TREES)) {
    for (rb_node *node = rb_first(&tree); node != nullptr; node = rb_next(node)) {
      dentry *file = owner_of<&dentry::node>(node);
      if (heads_group(file) && !list_is_empty(&file->group) && is_in_time(ctx)) {
        schedule_job(ctx, file);
      }
    }
  }
  wait_until_idle(ctx);
  const struct timespec elapsed = time_since(mark);
  log_info("fetch_all_sis_file:%ld.%09lds elapsed in clock on real world wall\n", elapsed.tv_sec,
           elapsed.tv_nsec);
}

void save_digests(sis_context *ctx, const char *save_dir, struct timespec *mark) {
  set_phase(ctx, PHASE_STOP);
  const int64_t count = save_usable_hash(ctx, save_dir);
  const struct timespec elapsed = time_since(mark);
  log_info("save_usable_hash(%ld entries):%ld.%09lds elapsed in clock on real world wall\n", count,
           elapsed.tv_sec, elapsed.tv_nsec);
}

// The run keeps no allocation statistics; the line's three numbers are always 0.
void tear_down_and_log(sis_context *ctx, const struct timespec &elapsed) {
  tear_down_run(ctx);
  log_info(
      "full scan process:%ld.%09lds elapsed, Malloc/Free/Peak_Mem = %llu times/%llu "
      "times/%llu Bytes\n",
      elapsed.tv_sec, elapsed.tv_nsec, 0ULL, 0ULL, 0ULL);
}

// Ends a run before any worker has received a job.
int abandon_run(sis_context *ctx, int result) {
  set_phase(ctx, PHASE_STOP);
  join_workers(ctx);
  tear_down_and_log(ctx, {});
  return result;
}

int perform_scan(sis_context *ctx, const scan_arguments &arguments) {
  const struct timespec start = wall_time();
  struct timespec mark = start;
  if (!set_up_run(ctx)) {
    return SET_UP_FAILED;
  }
  if (start_workers(ctx) == 0) {
    // No worker would ever bring `pending` back to 0.
    return abandon_run(ctx, SET_UP_FAILED);
  }
  const int error = name_digest_file(ctx, arguments.roots, arguments.root_count);
  if (error != 0) {
    return abandon_run(ctx, error);
  }
  if (arguments.skip_paths != nullptr) {
    add_skip_entries(ctx, arguments.skip_paths, arguments.skip_count);
  }

  load_digests(ctx, arguments.save_dir, &mark);
  walk_roots(ctx, arguments, &mark);
  split_groups(ctx, &mark);
  save_digests(ctx, arguments.save_dir, &mark);
  join_workers(ctx);
  const struct timespec end = wall_time();
  report_findings(ctx);
  tear_down_and_log(ctx, time_between(start, end));
  return 0;
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

int single_instance_storage(const char **roots, int root_count, const char **skip_paths,
                            int skip_count, const char *save_dir, uint64_t min_size, int max_depth,
                            [[maybe_unused]] int reserved, unsigned time_budget, const sis_ops *ops,
                            uint64_t caller_data, int **stop_handle) {
  sis_context ctx = {};
  ctx.in_time = 1;
  ctx.max_depth = static_cast<uint64_t>(static_cast<int64_t>(max_depth));
  ctx.min_size = min_size;
  ctx.ops = ops;
  ctx.caller_data = caller_data;
  if (ops == nullptr) {
    return EINVAL;
  }
  if (stop_handle != nullptr) {
    *stop_handle = &ctx.in_time;
  }
  if (time_budget > 0) {
    arm_time_budget(&ctx, time_budget);
  }
  return perform_scan(&ctx, {roots, root_count, skip_paths, skip_count, save_dir});
}
