// Examines the files that a scan found as they are now: the file system of each and where its data
// is, and thus what merging would free.
#pragma once

#include "extents.h"
#include "findings.h"
#include "volume.h"

namespace tool {

// Sets the state of every file, with what keeps merging from changing it, and the shares of every
// group. Opens nothing for writing. Sorts groups by what merging frees, and files by path. Queries
// the layered inode of a plain file only before merging, when another program may have merged it
// since. After a requested stop this takes only a moment: the remaining files get the error
// ECANCELED, and their groups come last.
void survey(Findings &findings, Volumes &volumes, bool before_merging);

// Whether the file is still a regular file with the inode, size and modification time that the scan
// saw.
bool is_unchanged(const FoundFile &file);

// The extents of the file as it is now; unknown if it is no longer what the survey saw.
ExtentMap extents_of(const FoundFile &file, const Volumes &volumes);

}  // namespace tool
