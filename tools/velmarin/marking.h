// Marks files before they are read for merging: their coincide flag tells later whether they
// changed. Knows which files are not worth a mark and what new marks take.
#pragma once

#include <cstdint>

namespace tool {

// Sets the file's mark. Returns 0 or an errno.
int mark_file(int fd, const char *path);

// What all marks set so far take, measured or estimated. A file that had one before, valid or not,
// takes nothing more.
uint64_t new_mark_bytes();

// Whether the data of the open file is stored in the metadata: merging would gain nothing, and a
// mark would take space. Only Btrfs does so, with files of one block at most.
bool is_stored_inline(int fd);

}  // namespace tool
