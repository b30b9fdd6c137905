// Estimates whether the inode of a file on XFS has room for the record of a merged file.
#pragma once

#include <cstdint>

#include "extents.h"
#include "volume.h"

namespace tool {

// What the record takes outside the inode of the open file with these extents: a block if it is the
// first attribute that does not fit, else nothing. 0 on other file systems.
uint64_t record_bytes_outside(int fd, const ExtentMap &map, const Volume &volume);

}  // namespace tool
