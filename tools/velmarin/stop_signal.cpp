#include "stop_signal.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string_view>

#include "velmarin/scan.h"

namespace tool {
namespace {

constexpr int STOP_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};
constexpr std::string_view STOP_MESSAGE =
    "velmarin: stopping after the current files; a second such signal quits at once\n";
constexpr std::string_view STOP_MESSAGE_ON_TERMINAL =  // which also shows the progress line
    "\nvelmarin: stopping after the current files; press Ctrl-C again to quit at once\n";

std::atomic<bool> requested = false;
std::atomic<int *> published = nullptr;
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<int *>::is_always_lock_free);

int *written_handle = nullptr;  // written by the scan before it starts its threads
const TimeLimit *time_limit = nullptr;
std::string_view stop_message = STOP_MESSAGE;  // chosen before any signal is caught
struct sigaction former_actions[std::size(STOP_SIGNALS)];

// Either this finds the handle published, or the publishing thread finds the request: each side
// writes its own variable before it reads the other's.
void request_stop(int) {
  const int error = errno;
  requested = true;
  if (int *const handle = published) {
    signal_no_time(handle);
  }
  [[maybe_unused]] const ssize_t written =
      write(STDERR_FILENO, stop_message.data(), stop_message.size());
  errno = error;
}

}  // namespace

StopSignals::StopSignals() {
  stop_message = isatty(STDERR_FILENO) == 1 ? STOP_MESSAGE_ON_TERMINAL : STOP_MESSAGE;
  struct sigaction action = {};
  action.sa_handler = request_stop;
  action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
  sigemptyset(&action.sa_mask);
  for (size_t i = 0; i < std::size(STOP_SIGNALS); ++i) {
    sigaction(STOP_SIGNALS[i], nullptr, &former_actions[i]);
    if (former_actions[i].sa_handler != SIG_IGN) {
      sigaction(STOP_SIGNALS[i], &action, nullptr);
    }
  }
}

StopSignals::~StopSignals() {
  for (size_t i = 0; i < std::size(STOP_SIGNALS); ++i) {
    sigaction(STOP_SIGNALS[i], &former_actions[i], nullptr);
  }
}

int **StopSignals::handle_slot() {
  return &written_handle;
}

bool stop_requested() {
  return requested || (time_limit != nullptr && time_limit->is_over());
}

bool stop_signalled() {
  return requested;
}

void stop_after(const TimeLimit &limit) {
  time_limit = &limit;
}

void publish_stop_handle() {
  if (published == nullptr) {
    published = written_handle;
  }
  if (requested) {
    signal_no_time(written_handle);
  }
}

void withdraw_stop_handle() {
  published = nullptr;
}

StopSignalsBlocked::StopSignalsBlocked() {
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : STOP_SIGNALS) {
    sigaddset(&signals, signal);
  }
  pthread_sigmask(SIG_BLOCK, &signals, &former_);
}

StopSignalsBlocked::~StopSignalsBlocked() {
  pthread_sigmask(SIG_SETMASK, &former_, nullptr);
}

}  // namespace tool
