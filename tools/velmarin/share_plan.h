// Works out which files of a share have the same copy of the data, which file is the best source,
// and what merging frees.
#pragma once

#include <vector>

#include "findings.h"
#include "space_account.h"

namespace tool {

// An account of files with these extents, on `volume`.
SpaceAccount account_of(const Volume &volume, const std::vector<ExtentMap> &maps);

// Sorts the files of `share`, numbers the copies of their data and works out the share's figures.
// `maps` has the extents of each file of the group, unknown if they were not queried.
void plan_share(FoundGroup &group, Share &share, std::vector<ExtentMap> maps, const Volume &volume);

}  // namespace tool
