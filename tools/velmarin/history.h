// What each run with merging did: a line of JSON a run in the file `history` of the state
// directory, the newest last. Whoever appends holds the `RunLock` of the directory.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "report.h"

namespace tool {

struct HistoryEntry {
  uint64_t start = 0;  // seconds since 1970
  uint64_t elapsed_ms = 0;
  uint64_t freed_bytes = 0;            // certainly
  uint64_t freed_uncertain_bytes = 0;  // at most so much more
  uint64_t left_bytes = 0;             // what the run knew of and did not free
  uint64_t merged = 0;                 // files, like the next
  uint64_t changed = 0;
  uint64_t refused = 0;
  uint64_t not_tried = 0;
  bool stopped = false;      // by a signal
  bool out_of_time = false;  // the time budget was used up
};

// What is kept of a run that ends now.
HistoryEntry entry_of(const Report &report);

// The runs on record, the oldest first; none when there is no record. Says on standard error which
// lines are damaged, and leaves them out. Without a value the record could not be read; standard
// error says why.
std::optional<std::vector<HistoryEntry>> read_history(const std::string &state);

// The run as one JSON object, without a newline.
std::string history_line(const HistoryEntry &entry);

// Adds a run, and syncs it to storage. Drops the oldest ones when there are very many. Says on
// standard error what went wrong and returns false then.
bool append_history(const std::string &state, const HistoryEntry &entry);

}  // namespace tool
