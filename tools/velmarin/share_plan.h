// Which files of a share have one copy of the data, which of them is the best source for the
// others, and what merging gives back.
#pragma once

#include <vector>

#include "findings.h"
#include "space_account.h"

namespace tool {

// An account of files with these extents, on `volume`.
SpaceAccount account_of(const Volume &volume, const std::vector<ExtentMap> &maps);

// Orders the files of `share`, numbers the copies of their data and works out the share's figures.
// `maps` has the extents of each file of the group, unknown for those that were not asked.
void plan_share(FoundGroup &group, Share &share, const std::vector<ExtentMap> &maps,
                const Volume &volume);

}  // namespace tool
