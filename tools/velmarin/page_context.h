// What the page of `scan --html` tells besides the report: where the scan ran, and what runs before
// it have freed.
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
  std::vector<HistoryEntry> history;  // the oldest first
};

// `state`: the state directory. Standard error says when the history cannot be read.
PageContext page_context(const Report &report, const std::string &state);

}  // namespace tool
