// Parses and formats sizes and durations.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tool {

// Reads a number of bytes with an optional unit: "65536", "64K", "64KiB", "1.5M" (powers of 1024, K
// to T, either case; a fraction needs a unit and is rounded down to bytes). Returns nothing for any
// other text and for a number that does not fit 64 bits.
std::optional<uint64_t> parse_size(std::string_view text);

// Reads a time in seconds: "90", "5m", "1h30m", "2d" (d, h, m and s, in this order). Returns
// nothing for any other text and for more than a year of 365 days.
std::optional<unsigned> parse_duration(std::string_view text);

// "512 B", "64 KiB", "1.5 GiB": at most one digit after the point.
std::string format_size(uint64_t bytes);

// "0.4 s", "59.9 s", "2 min 05 s", "3 h 02 min".
std::string format_duration(std::chrono::milliseconds duration);

// "1 file", "2 files": `noun` gets an s unless the count is one.
std::string format_count(uint64_t count, std::string_view noun);

}  // namespace tool
