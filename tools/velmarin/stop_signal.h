// Turns Ctrl-C, SIGTERM, SIGHUP and the end of the time budget into a request to stop: the scan
// ends early but cleanly, and merging ends after the files in hand. A second signal of the same
// kind ends the process.
#pragma once

#include <signal.h>

#include "time_limit.h"

namespace tool {

// Makes these signals request a stop while the object lives. The first of each kind prints a
// message on standard error.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals &) = delete;
  StopSignals &operator=(const StopSignals &) = delete;

  // Where the scan writes its stop handle.
  int **handle_slot();
};

// Whether work in progress should end: after a signal, or when the `stop_after` limit is over.
bool stop_requested();

// Whether a signal requested the stop.
bool stop_signalled();

// The end of this limit requests a stop too. It must outlive all callers of `stop_requested`.
void stop_after(const TimeLimit &limit);

// The handle is valid only inside the scan's call, so a signal may use it only between these two:
// - `publish_stop_handle`, called from the probes of the scan. The scan has started its threads by
//   then, and so has written the handle. Passes on an earlier request to stop.
// - `withdraw_stop_handle`, called when the report begins. The scan has joined its threads by then,
//   and every other thread blocks the signals, so no handler can be using the handle.
void publish_stop_handle();
void withdraw_stop_handle();

// Blocks the signals in the calling thread while the object lives, and in threads that it starts
// meanwhile for as long as they run.
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
