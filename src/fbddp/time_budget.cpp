// Time budgets and the SIGALRM action that all runs with a budget share.
//
// The signal's value names the run. A signal can arrive late, when its run is over and another
// run's context may be at the same address. So the handler acts only on a context in the set of
// live runs. Of the signals that come from a timer it accepts only those that carry the number of
// that run's timer or arrive once its budget is spent. Before its context is destroyed, a run
// leaves the set and waits until no thread is in the handler.
//
// `users_lock` makes counting the users and changing the action one step, and guards changes to the
// set. The handler takes no lock.

#include "fbddp/time_budget.h"

#include <pthread.h>
#include <sched.h>

#include <csignal>
#include <tuple>

#include "common/atomic_word.h"
#include "common/log.h"

namespace velmarin {
namespace {

pthread_mutex_t users_lock = PTHREAD_MUTEX_INITIALIZER;
uint64_t HANDLER_USERS = 0;          // runs that use the handler
struct sigaction alarm_action = {};  // ours
struct sigaction saved_action = {};  // in force before the first user
sis_context *live_runs = nullptr;    // linked by alarm.next
uint64_t handlers_inside = 0;        // threads that are reading `live_runs` in the handler

// Holds `users_lock` while it lives.
struct users_guard {
  users_guard() { pthread_mutex_lock(&users_lock); }
  ~users_guard() { pthread_mutex_unlock(&users_lock); }
  users_guard(const users_guard &) = delete;
  users_guard &operator=(const users_guard &) = delete;
};

bool is_budget_spent(const sis_context *ctx) {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const struct timespec &deadline = ctx->alarm.deadline;
  return std::tie(now.tv_sec, now.tv_nsec) >= std::tie(deadline.tv_sec, deadline.tv_nsec);
}

// A signal that other code sends on purpose, with the run's address as its value, is accepted too.
bool is_signal_of(const sis_context *ctx, const siginfo_t *info) {
  return info->si_code != SI_TIMER ||
         info->si_timerid == static_cast<int>(reinterpret_cast<intptr_t>(ctx->timer)) ||
         is_budget_spent(ctx);
}

void clear_in_time(int, siginfo_t *info, void *) {
  increment_ordered(&handlers_inside);
  const void *named = info->si_value.sival_ptr;
  sis_context *run = load_ordered(&live_runs);
  while (run != nullptr) {
    if (run == named && is_signal_of(run, info)) {
      store_relaxed(&run->in_time, 0);
    }
    run = load_ordered(&run->alarm.next);
  }
  decrement_ordered(&handlers_inside);
}

void enter_live_runs(sis_context *ctx) {
  const users_guard guard;
  ctx->alarm.next = live_runs;
  store_ordered(&live_runs, ctx);
}

void unlink_live_run(sis_context *ctx) {
  const users_guard guard;
  sis_context **link = &live_runs;
  while (*link != ctx) {
    link = &(*link)->alarm.next;
  }
  store_ordered(link, ctx->alarm.next);
}

void leave_live_runs(sis_context *ctx) {
  unlink_live_run(ctx);
  while (load_ordered(&handlers_inside) != 0) {
    sched_yield();
  }
}

bool install_handler() {
  alarm_action.sa_flags = SA_SIGINFO;
  alarm_action.sa_sigaction = clear_in_time;
  sigemptyset(&alarm_action.sa_mask);
  return sigaction(SIGALRM, &alarm_action, &saved_action) == 0;
}

sigset_t alarm_only() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGALRM);
  return signals;
}

// Blocks or unblocks SIGALRM in the calling thread.
bool change_alarm_mask(int how) {
  const sigset_t signals = alarm_only();
  return sigprocmask(how, &signals, nullptr) == 0;
}

// Lets a SIGALRM that is pending for the process or for the calling thread reach the handler now.
// The kernel checks for pending signals when a mask changes, so the signal is blocked before it is
// unblocked.
void deliver_pending_alarm() {
  const sigset_t signals = alarm_only();
  sigset_t previous_mask;
  if (sigprocmask(SIG_BLOCK, &signals, &previous_mask) == 0) {
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    sigprocmask(SIG_SETMASK, &previous_mask, nullptr);
  }
}

// The previous action may end the process, so it must not receive the signal of a deleted timer. A
// SIGALRM that the host sent to another of its threads stays pending there. SIGALRM is never
// ignored, not even briefly: a process started at that moment would inherit that.
void restore_previous_action() {
  deliver_pending_alarm();
  sigaction(SIGALRM, &saved_action, nullptr);
}

void release_handler() {
  const users_guard guard;
  if (fetch_add(&HANDLER_USERS, static_cast<uint64_t>(-1)) == 1) {
    restore_previous_action();
  }
}

bool acquire_handler() {
  const users_guard guard;
  if (fetch_add(&HANDLER_USERS, 1) == 0 && !install_handler()) {
    log_erro("fail to set signal action for %d", SIGALRM);
    fetch_add(&HANDLER_USERS, static_cast<uint64_t>(-1));
    return false;
  }
  return true;
}

bool create_timer(sis_context *ctx, unsigned seconds) {
  struct sigevent event = {};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = SIGALRM;
  event.sigev_value.sival_ptr = ctx;
  if (timer_create(CLOCK_REALTIME, &event, &ctx->timer) != 0) {
    log_erro("fail to create timer of %us", seconds);
    ctx->timer = {};
    return false;
  }
  ctx->alarm.armed = true;
  clock_gettime(CLOCK_MONOTONIC, &ctx->alarm.deadline);
  ctx->alarm.deadline.tv_sec += static_cast<time_t>(seconds);
  enter_live_runs(ctx);
  return true;
}

void delete_timer(sis_context *ctx) {
  timer_delete(ctx->timer);
  leave_live_runs(ctx);
  ctx->timer = {};
  ctx->alarm.armed = false;
}

bool start_timer(sis_context *ctx, unsigned seconds) {
  struct itimerspec expiry = {};
  expiry.it_value.tv_sec = static_cast<time_t>(seconds);
  if (timer_settime(ctx->timer, 0, &expiry, nullptr) != 0) {
    log_erro("fail to initialize timer as counting down %us", seconds);
    return false;
  }
  if (!change_alarm_mask(SIG_UNBLOCK)) {
    log_erro("fail to unblock signal %d", SIGALRM);
    return false;
  }
  return true;
}

// The run has acquired the handler. Returns whether the timer is running.
bool arm_timer(sis_context *ctx, unsigned seconds) {
  if (!change_alarm_mask(SIG_BLOCK)) {
    log_erro("fail to block signal %d", SIGALRM);
    return false;
  }
  if (!create_timer(ctx, seconds)) {
    return false;
  }
  if (!start_timer(ctx, seconds)) {
    delete_timer(ctx);
    return false;
  }
  return true;
}

}  // namespace

void arm_time_budget(sis_context *ctx, unsigned seconds) {
  if (acquire_handler() && !arm_timer(ctx, seconds)) {
    release_handler();
  }
}

void release_time_budget(sis_context *ctx) {
  if (ctx->alarm.armed) {
    delete_timer(ctx);
    release_handler();
  }
}

}  // namespace velmarin

void signal_no_time(int *in_time) {
  velmarin::store_relaxed(in_time, 0);
}
