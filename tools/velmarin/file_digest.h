// Digests and checksums that the tool computes itself.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <string>

namespace tool {

// Computes the SHA-256 of the file that had this status. Returns 0, an errno on failure, or ESTALE
// if the file was replaced, or changed before or during the read.
int read_digest(const std::string &path, const struct stat &status,
                std::array<uint8_t, 32> &digest);

// From this size on, a pattern tells most files apart.
inline constexpr uint64_t PATTERN_MIN_SIZE = 1U << 20;

// A checksum of parts of the first MiB; 0 if it cannot be read.
uint64_t read_pattern(const std::string &path);

}  // namespace tool
