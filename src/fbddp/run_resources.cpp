// Set-up and teardown of a run. The set-up is a table of steps, each with its undo function, so
// that a failure anywhere releases what was made before it, in reverse order. The teardown of a
// complete run does not reverse that table: hosts rely on its order, which releases the time budget
// in the middle and the forest locks last.

#include "fbddp/run_resources.h"

#include <bounds_checked.h>

#include <cstddef>
#include <cstdlib>
#include <initializer_list>

#include "common/heap_ptr.h"
#include "common/log.h"
#include "fbddp/dentry.h"
#include "fbddp/time_budget.h"
#include "fbddp/worker_pool.h"

namespace velmarin {
namespace {

constexpr size_t TREES_SIZE = FOREST_TREES * sizeof(rb_root);
constexpr size_t LOCKS_SIZE = FOREST_TREES * sizeof(spinlock_slot);

struct set_up_step {
  bool (*make)(sis_context *ctx);
  void (*undo)(sis_context *ctx);
};

bool make_name(sis_context *ctx) {
  ctx->pname = static_cast<char *>(calloc(1, DIGEST_NAME_SIZE));
  if (ctx->pname == nullptr) {
    log_erro("fail to allocate fname[%u]", static_cast<unsigned>(DIGEST_NAME_SIZE));
  }
  return ctx->pname != nullptr;
}

void free_name(sis_context *ctx) {
  free(ctx->pname);
  ctx->pname = nullptr;
}

bool make_trees(sis_context *ctx) {
  heap_ptr<rb_root> trees = heap_allocate<rb_root>(TREES_SIZE);
  if (trees == nullptr) {
    log_erro("fail to allocate rbtree_roots[%u]", static_cast<unsigned>(FOREST_TREES));
    return false;
  }
  if (memset_s(trees.get(), TREES_SIZE, 0, TREES_SIZE) != 0) {
    return false;
  }
  ctx->rbtree_roots = trees.release();
  return true;
}

void free_trees(sis_context *ctx) {
  free(ctx->rbtree_roots);
  ctx->rbtree_roots = nullptr;
}

bool make_lists(sis_context *ctx) {
  for (list_head *head : {&ctx->dentries, &ctx->groups, &ctx->hash_entries, &ctx->threads,
                          &ctx->queue, &ctx->skip_entries}) {
    list_init(head);
  }
  return true;
}

void keep_lists(sis_context *) {}

bool make_work_done(sis_context *ctx) {
  return pthread_cond_init(&ctx->work_done, nullptr) == 0;
}

void destroy_work_done(sis_context *ctx) {
  pthread_cond_destroy(&ctx->work_done);
}

bool make_work_lock(sis_context *ctx) {
  return pthread_mutex_init(&ctx->work_lock, nullptr) == 0;
}

void destroy_work_lock(sis_context *ctx) {
  pthread_mutex_destroy(&ctx->work_lock);
}

template <spinlock_slot sis_context::*Lock>
bool make_lock(sis_context *ctx) {
  return spinlock_init(&(ctx->*Lock)) == 0;
}

template <spinlock_slot sis_context::*Lock>
void destroy_lock(sis_context *ctx) {
  spinlock_destroy(&(ctx->*Lock));
}

// Destroys the first `count` locks of the forest and frees the array.
void free_forest_locks(sis_context *ctx, size_t count) {
  for (size_t i = 0; i < count; i++) {
    spinlock_destroy(&ctx->forest_lock[i]);
  }
  free(ctx->forest_lock);
  ctx->forest_lock = nullptr;
}

bool make_forest_locks(sis_context *ctx) {
  ctx->forest_lock = static_cast<spinlock_slot *>(malloc(LOCKS_SIZE));
  if (ctx->forest_lock == nullptr) {
    log_erro("fail to allocate forest_lock[%lux%lu]", sizeof(spinlock_slot), FOREST_TREES);
    return false;
  }
  for (size_t i = 0; i < FOREST_TREES; i++) {
    if (spinlock_init(&ctx->forest_lock[i]) != 0) {
      free_forest_locks(ctx, i);
      return false;
    }
  }
  return true;
}

void free_all_forest_locks(sis_context *ctx) {
  free_forest_locks(ctx, FOREST_TREES);
}

bool make_thread_slots(sis_context *ctx) {
  return allocate_threads(ctx) == 0;
}

constexpr set_up_step SET_UP_STEPS[] = {
    {make_name, free_name},
    {make_trees, free_trees},
    {make_lists, keep_lists},
    {make_work_done, destroy_work_done},
    {make_work_lock, destroy_work_lock},
    {make_lock<&sis_context::dentries_lock>, destroy_lock<&sis_context::dentries_lock>},
    {make_forest_locks, free_all_forest_locks},
    {make_lock<&sis_context::queue_lock>, destroy_lock<&sis_context::queue_lock>},
    {make_lock<&sis_context::groups_lock>, destroy_lock<&sis_context::groups_lock>},
    {make_thread_slots, free_thread_slots},
};

}  // namespace

bool set_up_run(sis_context *ctx) {
  size_t done = 0;
  for (const set_up_step &step : SET_UP_STEPS) {
    if (!step.make(ctx)) {
      while (done > 0) {
        SET_UP_STEPS[--done].undo(ctx);
      }
      release_time_budget(ctx);
      return false;
    }
    done++;
  }
  return true;
}

void tear_down_run(sis_context *ctx) {
  free_all_dentries(ctx);
  spinlock_destroy(&ctx->queue_lock);
  spinlock_destroy(&ctx->groups_lock);
  spinlock_destroy(&ctx->dentries_lock);
  destroy_work_lock(ctx);
  destroy_work_done(ctx);
  release_time_budget(ctx);
  free_name(ctx);
  free_trees(ctx);
  free_thread_slots(ctx);
  free_all_forest_locks(ctx);
}

}  // namespace velmarin
