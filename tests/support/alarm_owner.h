// A process that uses SIGALRM itself: installs an action that counts its calls, and finally the
// default one.
#pragma once

#include <unistd.h>

#include <csignal>

namespace velmarin_test {

class alarm_owner {
 public:
  alarm_owner() {
    calls_ = 0;
    signal(SIGALRM, count_call);
  }
  ~alarm_owner() { signal(SIGALRM, SIG_DFL); }

  // Whether its action is installed and was never called.
  bool has_its_action() const {
    struct sigaction current = {};
    sigaction(SIGALRM, nullptr, &current);
    return current.sa_handler == count_call && calls_ == 0;
  }

  // Changes the mask of the calling thread. Returns whether SIGALRM was blocked before.
  static bool mask_alarm(int how) {
    sigset_t alarm_only = {}, previous;
    sigaddset(&alarm_only, SIGALRM);
    pthread_sigmask(how, &alarm_only, &previous);
    return sigismember(&previous, SIGALRM) == 1;
  }

  // Sends a SIGALRM to the process. The thread sanitizer delivers it no later than the next sleep.
  static void send_alarm(void *value) {
    sigqueue(getpid(), SIGALRM, {.sival_ptr = value});
    usleep(0);
  }

 private:
  static void count_call(int) { calls_ = calls_ + 1; }

  static inline volatile sig_atomic_t calls_ = 0;
};

}  // namespace velmarin_test
