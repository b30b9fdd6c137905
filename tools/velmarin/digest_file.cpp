#include "digest_file.h"

#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "common/unique_fd.h"
#include "velmarin/primitives.h"

namespace tool {
namespace {

// A file entry is a checksum and then the record, little-endian as in memory.
constexpr size_t CHECKSUM_SIZE = sizeof(uint64_t);
constexpr size_t ENTRY_SIZE = CHECKSUM_SIZE + sizeof(SavedDigest);
constexpr size_t BUFFER_ENTRIES = 4096;
using Buffer = std::vector<unsigned char>;

uint64_t checksum_of(const unsigned char *record) {
  return crc64_rocksoft_generic(0, record, sizeof(SavedDigest));
}

// Calls are repeated if a signal interrupts them, such as that of the library's time budget.
bool lock(int fd, int operation) {
  return TEMP_FAILURE_RETRY(flock(fd, operation)) == 0;
}

// Reads until the buffer is full or the file ends. Returns the bytes read, or -1.
ssize_t read_fully(int fd, Buffer &buffer, off_t offset) {
  size_t used = 0;
  ssize_t count = 0;
  do {
    used += static_cast<size_t>(count);
    count = TEMP_FAILURE_RETRY(
        pread(fd, buffer.data() + used, buffer.size() - used, offset + static_cast<off_t>(used)));
  } while (count > 0);
  return count == 0 ? static_cast<ssize_t>(used) : -1;
}

// Appends the records in `bytes` to `digests`. Returns whether all of them are intact.
bool parse_entries(const Buffer &buffer, size_t bytes, SavedDigests &digests) {
  for (size_t offset = 0; offset + ENTRY_SIZE <= bytes; offset += ENTRY_SIZE) {
    const unsigned char *const record = buffer.data() + offset + CHECKSUM_SIZE;
    uint64_t checksum = 0;
    std::memcpy(&checksum, buffer.data() + offset, CHECKSUM_SIZE);
    if (checksum != checksum_of(record)) {
      return false;
    }
    std::memcpy(&digests.emplace_back(), record, sizeof(SavedDigest));
  }
  return bytes % ENTRY_SIZE == 0;
}

void put_entry(Buffer &buffer, const SavedDigest &digest) {
  unsigned char entry[ENTRY_SIZE];
  std::memcpy(entry + CHECKSUM_SIZE, &digest, sizeof digest);
  const uint64_t checksum = checksum_of(entry + CHECKSUM_SIZE);
  std::memcpy(entry, &checksum, CHECKSUM_SIZE);
  buffer.insert(buffer.end(), entry, entry + ENTRY_SIZE);
}

int write_fully(int fd, const Buffer &buffer, off_t offset) {
  for (size_t done = 0; done < buffer.size();) {
    const ssize_t count = TEMP_FAILURE_RETRY(
        pwrite(fd, buffer.data() + done, buffer.size() - done, offset + static_cast<off_t>(done)));
    if (count < 0) {
      return errno;
    }
    done += static_cast<size_t>(count);
  }
  return 0;
}

int write_digests(int fd, const SavedDigests &digests, off_t offset) {
  int error = 0;
  for (size_t first = 0; error == 0 && first < digests.size(); first += BUFFER_ENTRIES) {
    Buffer buffer;
    for (size_t i = first; i < digests.size() && i < first + BUFFER_ENTRIES; ++i) {
      put_entry(buffer, digests[i]);
    }
    error = write_fully(fd, buffer, offset);
    offset += static_cast<off_t>(buffer.size());
  }
  return error == 0 && fsync(fd) != 0 ? errno : error;
}

// Whether the name still refers to the open file. Another scan may have removed it meanwhile.
bool is_still_at(const std::string &path, int fd) {
  struct stat named = {};
  struct stat opened = {};
  return stat(path.c_str(), &named) == 0 && fstat(fd, &opened) == 0 &&
         named.st_dev == opened.st_dev && named.st_ino == opened.st_ino;
}

std::pair<uint64_t, uint64_t> device_and_inode(const SavedDigest &saved) {
  return {saved.key >> 32, inode_of(saved)};
}

}  // namespace

void set_inode(SavedDigest &saved, uint64_t inode) {
  const auto low = [](uint64_t number) { return number & UINT32_MAX; };
  const uint64_t upper = inode & ~uint64_t{UINT32_MAX};
  saved.key = (saved.key & ~uint64_t{UINT32_MAX}) | low(inode);
  saved.mtime_nsec = static_cast<int64_t>(upper | low(static_cast<uint64_t>(saved.mtime_nsec)));
}

uint64_t inode_of(const SavedDigest &saved) {
  return (static_cast<uint64_t>(saved.mtime_nsec) & ~uint64_t{UINT32_MAX}) |
         (saved.key & UINT32_MAX);
}

SavedDigest record_of(const struct stat &status, const std::array<uint8_t, 32> &digest) {
  SavedDigest record = {.key = static_cast<uint64_t>(status.st_dev) << 32,
                        .mtime_sec = status.st_mtim.tv_sec,
                        .mtime_nsec = status.st_mtim.tv_nsec,
                        .digest = digest};
  set_inode(record, status.st_ino);
  return record;
}

bool is_file_before(const SavedDigest &left, const SavedDigest &right) {
  return device_and_inode(left) < device_and_inode(right);
}

bool is_same_file(const SavedDigest &left, const SavedDigest &right) {
  return device_and_inode(left) == device_and_inode(right);
}

bool has_time_of(const SavedDigest &saved, const struct stat &status) {
  const SavedDigest now = record_of(status, {});
  return std::pair(saved.mtime_sec, saved.mtime_nsec) == std::pair(now.mtime_sec, now.mtime_nsec);
}

std::string digest_file_name(const std::vector<std::string> &roots) {
  std::string joined;
  for (const std::string &root : roots) {
    joined += root;
  }
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char *>(joined.data()), joined.size(), digest);
  std::string name;
  for (const unsigned char byte : digest) {
    char digits[3];
    std::snprintf(digits, sizeof digits, "%02x", byte);
    name += digits;
  }
  return name + ".hsh";
}

std::optional<SavedDigests> read_digests(const std::string &path) {
  const velmarin::unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return lock(fd.get(), LOCK_SH) ? read_locked_digests(fd.get()) : std::nullopt;
}

int lock_digest_file(const std::string &path, bool create) {
  for (;;) {
    const int flags = O_RDWR | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC | (create ? O_CREAT : 0);
    velmarin::unique_fd fd(open(path.c_str(), flags, 0600));
    if (!fd.is_open() || !lock(fd.get(), LOCK_EX)) {
      return -1;
    }
    if (is_still_at(path, fd.get())) {
      return fd.release();
    }
  }
}

std::optional<SavedDigests> read_locked_digests(int fd) {
  SavedDigests digests;
  Buffer buffer(BUFFER_ENTRIES * ENTRY_SIZE);
  for (off_t offset = 0;; offset += static_cast<off_t>(buffer.size())) {
    const ssize_t bytes = read_fully(fd, buffer, offset);
    if (bytes < 0 || !parse_entries(buffer, static_cast<size_t>(bytes), digests)) {
      return {};
    }
    if (static_cast<size_t>(bytes) < buffer.size()) {
      return digests;
    }
  }
}

int replace_digests(int fd, const SavedDigests &digests) {
  const int error = write_digests(fd, digests, 0);
  const auto size = static_cast<off_t>(digests.size() * ENTRY_SIZE);
  return error == 0 && ftruncate(fd, size) != 0 ? errno : error;
}

int append_digests(int fd, const SavedDigests &digests) {
  const off_t end = lseek(fd, 0, SEEK_END);
  if (end < 0) {
    return errno;
  }
  const int error = write_digests(fd, digests, end);
  if (error != 0) {
    [[maybe_unused]] const int result = ftruncate(fd, end);
  }
  return error;
}

}  // namespace tool
