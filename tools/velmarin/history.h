// Records what each merging run did: one line of JSON per run in the file `history` of the state
// directory, newest last. To append, hold the directory's `RunLock`.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "report.h"

namespace tool {

struct HistoryEntry {
  uint64_t start;  // seconds since 1970
  uint64_t elapsed_ms;
  uint64_t freed_bytes;            // certain
  uint64_t freed_uncertain_bytes;  // up to this much more
  uint64_t left_bytes;             // known to the run but not freed
  uint64_t merged;                 // files, as are the next three
  uint64_t changed;
  uint64_t refused;
  uint64_t not_tried;
  bool stopped;      // by a signal
  bool out_of_time;  // the time budget was used up
  // The run did not find and examine everything, so there may be more than `left_bytes`.
  bool left_is_minimum;
};

// The record of a run that ends now.
HistoryEntry entry_of(const Report &report);

// The recorded runs, oldest first; none if there is no record. Skips damaged lines and names them
// on standard error. Returns nothing, after an error message, if the record
// cannot be read.
std::optional<std::vector<HistoryEntry>> read_history(const std::string &state);

// The run as one JSON object, without a newline.
std::string history_line(const HistoryEntry &entry);

// Appends a run and syncs it to storage. Drops the older half of a long record. Returns false on
// failure, after an error message.
bool append_history(const std::string &state, const HistoryEntry &entry);

}  // namespace tool
