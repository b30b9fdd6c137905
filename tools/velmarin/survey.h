// Looks at the files that a scan found as they are now: on which file system each lies and what it
// shares already, and works out from that what merging would free.
#pragma once

#include "findings.h"

namespace tool {

// Fills the state of every file and the shares of every group, and puts everything in order: groups
// by duplicate bytes, files by path. What the scan saw as a plain file is opened and asked again
// only before merging, when another program's merging in the meantime would matter.
void survey(Findings &findings, bool before_merging);

// Whether the file is still a regular file with the inode, size and modification time that the scan
// saw.
bool is_unchanged(const FoundFile &file);

// Adds up what one share of a group holds beyond one copy: files that share a layered inode count
// once, and the copy of the first file is the one that stays.
uint64_t unmerged_bytes(const FoundGroup &group, const Share &share);

}  // namespace tool
