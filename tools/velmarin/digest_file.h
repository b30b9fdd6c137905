// Reads the library's digest files, appends to them and replaces them.
#pragma once

#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tool {

// A record of a digest file.
struct SavedDigest {
  uint64_t key = 0;  // device number and low half of the inode number, 32 bits each
  int64_t mtime_sec = 0;
  int64_t mtime_nsec = 0;  // see `set_inode`
  std::array<uint8_t, 32> digest = {};
};
static_assert(sizeof(SavedDigest) == 56);

using SavedDigests = std::vector<SavedDigest>;

// The library's records have no room for the upper half of an inode number. The tool keeps it above
// the 32 bits that the nanoseconds need.
void set_inode(SavedDigest &saved, uint64_t inode);
uint64_t inode_of(const SavedDigest &saved);

SavedDigest record_of(const struct stat &status, const std::array<uint8_t, 32> &digest);

// Ordered by device, then by inode number.
bool is_file_before(const SavedDigest &left, const SavedDigest &right);
bool is_same_file(const SavedDigest &left, const SavedDigest &right);

bool has_time_of(const SavedDigest &saved, const struct stat &status);

// The name of the digest file of these roots.
std::string digest_file_name(const std::vector<std::string> &roots);

// Reads a digest file under its lock. Returns nothing if the file is missing or damaged.
std::optional<SavedDigests> read_digests(const std::string &path);

// Opens a digest file and locks it against every other process. Refuses a symbolic link. With
// `create`, creates a missing file, readable by its owner alone. Returns -1 with errno on failure.
// Closing the descriptor unlocks.
int lock_digest_file(const std::string &path, bool create);

// The records of a file that `lock_digest_file` opened.
std::optional<SavedDigests> read_locked_digests(int fd);

// Replaces the content of a file that `lock_digest_file` opened. Returns 0 or an errno.
int replace_digests(int fd, const SavedDigests &digests);

// Appends the records and syncs them to storage. Returns 0, or an errno on failure, with the file
// left as it was.
int append_digests(int fd, const SavedDigests &digests);

}  // namespace tool
