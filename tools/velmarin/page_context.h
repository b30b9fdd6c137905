// What the page of `scan --html` shows besides the report: where the scan ran, and what earlier
// runs freed.
#pragma once

#include <string>
#include <vector>

#include "history.h"
#include "mounts.h"
#include "report.h"

namespace tool {

struct PageContext {
  std::string host;
  std::vector<Mount> mounts;
  std::vector<HistoryEntry> history;  // oldest first
};

// `state`: the state directory. Prints an error message if the history cannot be read.
PageContext page_context(const Report &report, const std::string &state);

}  // namespace tool
