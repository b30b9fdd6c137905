// Ctrl-C (and SIGTERM and SIGHUP), and the end of the time budget, as a request to stop: the scan
// ends early but in order, merging ends after the file in hand. The first signal asks; a second one
// ends the process.
#pragma once

#include <signal.h>

#include "time_limit.h"

namespace tool {

// Lets these signals ask for a stop, for as long as the object lives. The first of a kind is
// answered on standard error.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals &) = delete;
  StopSignals &operator=(const StopSignals &) = delete;

  // Where the scan writes its stop handle.
  int **handle_slot();
};

// Whether what is under way is to end: by a signal, or since the time of `stop_after` is over.
bool stop_requested();

// Whether a signal asked for it.
bool stop_signalled();

// Lets the end of that time count as a request, too. The limit must outlive whatever asks.
void stop_after(const TimeLimit &limit);

// The handle is only valid inside the scan's call, so a signal may use it only between these two:
// - `publish_stop_handle`, called from the probes of the scan. The scan has started its threads by
//   then, hence written the handle. A stop asked for before is passed on now.
// - `withdraw_stop_handle`, called when the report begins. The scan has joined its threads by then,
// and
//   every other thread blocks the signals, so no handler can be at work with the handle.
void publish_stop_handle();
void withdraw_stop_handle();

// Keeps the signals out of the calling thread, and out of threads that it starts meanwhile for as
// long as they run.
class StopSignalsBlocked {
 public:
  StopSignalsBlocked();
  ~StopSignalsBlocked();
  StopSignalsBlocked(const StopSignalsBlocked &) = delete;
  StopSignalsBlocked &operator=(const StopSignalsBlocked &) = delete;

 private:
  sigset_t former_;
};

}  // namespace tool
