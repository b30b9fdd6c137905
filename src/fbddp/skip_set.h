// The files and directories that a walk skips. Built before the walk; during the walk any number of
// workers search it without a lock.
#pragma once

#include <cstdint>

#include "fbddp/scan_context.h"

namespace velmarin {

// Adds an entry for each usable path; unusable ones are logged and ignored.
void add_skip_entries(sis_context *ctx, const char **paths, int count);

// Whether `set` (the run's `file_skips` or `dir_skips`) holds the key.
bool is_skipped(const rb_root *set, uint64_t key);

void free_skip_entries(sis_context *ctx);

}  // namespace velmarin
