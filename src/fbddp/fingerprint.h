// The two fingerprints of a candidate file: a sampled pattern and the digest of its whole content.
#pragma once

#include <cstdint>

#include "fbddp/dentry.h"
#include "fbddp/scan_context.h"

namespace velmarin {

// Files of at least this size (bytes) get a pattern.
inline constexpr uint64_t PATTERN_MIN_SIZE = 1048576;

// Sets the file's `pattern`: the CRC-64 of its first 4096 bytes and of the last 4096 bytes of its
// first MiB. Uses `fd` (its offset moves, it stays open), or opens the file by its own path when
// `path` is null or `fd` negative. Returns 0, the errno of the failed call, ENOMEM, or 1 when the
// file is too short; `pattern` is unchanged then. The caller holds the file's forest lock.
int make_pattern(dentry *file, const char *path, int fd);

// The digest job of an examined file: gives it its saved digest, or opens and reads the file and
// gives it a new digest record, or leaves `hash` null when it cannot be read or has changed.
void make_digest(sis_context *ctx, dentry *file);

}  // namespace velmarin
