// Looks at the files that a scan found as they are now: on which file system each lies and where
// its data is there, and works out from that what merging would free.
#pragma once

#include "extents.h"
#include "findings.h"
#include "volume.h"

namespace tool {

// Fills the state of every file and the shares of every group, and puts everything in order: groups
// by what merging frees, files by path. To which layered inode a plain file is attached is asked
// again only before merging, when another program's merging in the meantime would matter. Once a
// stop is requested, only a moment is spent: the rest of the files get the error ECANCELED.
void survey(Findings &findings, Volumes &volumes, bool before_merging);

// Whether the file is still a regular file with the inode, size and modification time that the scan
// saw.
bool is_unchanged(const FoundFile &file);

// The extents of the file as it is now; not known when it is no longer what the survey saw.
ExtentMap extents_of(const FoundFile &file, const Volumes &volumes);

}  // namespace tool
