// Computes the patterns and digests of candidate files.

#include "fbddp/fingerprint.h"

#include <fcntl.h>
#include <openssl/sha.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "common/atomic_word.h"
#include "common/log.h"
#include "common/memory_error.h"
#include "common/paths.h"
#include "common/unique_fd.h"
#include "fbddp/file_index.h"

namespace velmarin {
namespace {

constexpr unsigned BLOCK_SIZE = 4096;
constexpr unsigned PATTERN_TAIL_OFFSET = 0xff000;
constexpr unsigned PATTERN_END = PATTERN_TAIL_OFFSET + BLOCK_SIZE;
static_assert(PATTERN_END == PATTERN_MIN_SIZE);

constexpr int SHORT_READ = 1;
constexpr int RECORD_ATTEMPTS = 4;

int seek_to(int fd, unsigned offset, const char *path) {
  if (lseek(fd, offset, SEEK_SET) < 0) {
    const int error = errno;
    log_erro("fail to seek to %u from %s", offset, path);
    return error;
  }
  return 0;
}

// Returns 0 when a whole block was read, else the errno of the failed read or SHORT_READ.
int read_block(int fd, unsigned char *block) {
  const ssize_t count = read(fd, block, BLOCK_SIZE);
  if (count == static_cast<ssize_t>(BLOCK_SIZE)) {
    return 0;
  }
  return count < 0 ? errno : SHORT_READ;
}

int read_pattern_blocks(int fd, const char *path, unsigned char *blocks) {
  int error = seek_to(fd, 0, path);
  if (error != 0) {
    return error;
  }
  error = read_block(fd, blocks);
  if (error != 0) {
    log_erro("fail to read from 0 to %u from %s", BLOCK_SIZE, path);
    return error;
  }
  error = seek_to(fd, PATTERN_TAIL_OFFSET, path);
  if (error != 0) {
    return error;
  }
  error = read_block(fd, blocks + BLOCK_SIZE);
  if (error != 0) {
    log_erro("fail to read from %u to %u from %s", PATTERN_TAIL_OFFSET, PATTERN_END, path);
  }
  return error;
}

int make_pattern_of(dentry *file, const char *path, int fd) {
  constexpr size_t PATTERN_BYTES = 2 * BLOCK_SIZE;
  auto *blocks = static_cast<unsigned char *>(malloc(PATTERN_BYTES));
  if (blocks == nullptr) {
    log_erro("fail to allocate long pattern for %s", path);
    return ENOMEM;
  }
  const int error = read_pattern_blocks(fd, path, blocks);
  if (error == 0) {
    file->pattern = crc64_be(0, blocks, PATTERN_BYTES);
  }
  free(blocks);
  return error;
}

void count_error(sis_context *ctx) {
  fetch_add(&ctx->nr_error, 1);
}

bool has_mtime_of(const struct stat &status, const dentry *file) {
  return status.st_mtim.tv_sec == file->mtime.tv_sec &&
         status.st_mtim.tv_nsec == file->mtime.tv_nsec;
}

unique_fd open_for_digest(sis_context *ctx, const char *path) {
  for (;;) {
    fetch_add(&ctx->nr_file_opened, 1);
    unique_fd fd(open(path, O_RDONLY));
    if (fd.is_open()) {
      return fd;
    }
    const int error = errno;
    if (error != EINTR) {
      log_erro("cannot open %s returned %s", path, strerror(error));
      count_error(ctx);
      return fd;
    }
  }
}

// Whether the host's freeze callbacks detect changes during the read; otherwise modification times
// do.
bool uses_freezing(const sis_context *ctx) {
  return ctx->ops->prep != nullptr && ctx->ops->verify != nullptr;
}

// Makes sure that the opened file is the one that was admitted, and freezes it if possible.
bool is_ready_to_read(sis_context *ctx, const dentry *file, int fd, const char *path) {
  if (uses_freezing(ctx)) {
    const int result = ctx->ops->prep(fd, path);
    if (result != 0) {
      log_erro("call prep for %s returned %s", path, strerror(result));
    }
    return result == 0;
  }
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    const int error = errno;
    log_erro("failed to get stat of [%d]%s returned %s", fd, path, strerror(error));
    return false;
  }
  return has_mtime_of(status, file);
}

// Whether the file is still what it was before it was read.
bool is_unchanged_after_read(const sis_context *ctx, const dentry *file, int fd, const char *path) {
  if (uses_freezing(ctx)) {
    return ctx->ops->verify(fd, path) == 0;
  }
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    const int error = errno;
    log_erro("failed to get stat of %s returned %s", path, strerror(error));
    return false;
  }
  return has_mtime_of(status, file);
}

// Feeds the rest of the file to the digest. Returns 0 or the errno of a failed read.
int read_into_digest(int fd, SHA256_CTX *digest) {
  unsigned char block[BLOCK_SIZE];
  for (;;) {
    const ssize_t count = read(fd, block, sizeof(block));
    if (count <= 0) {
      return count < 0 ? errno : 0;
    }
    SHA256_Update(digest, block, static_cast<size_t>(count));
  }
}

usable_hash *allocate_record(const char *path) {
  for (int attempt = 0; attempt < RECORD_ATTEMPTS; attempt++) {
    errno = 0;
    auto *record = static_cast<usable_hash *>(calloc(1, sizeof(usable_hash)));
    if (record != nullptr) {
      return record;
    }
    const int error = allocation_error();
    log_erro("failed to allocate hash for %s returned %s", path, strerror(error));
  }
  return nullptr;
}

// Reads the file. Returns a complete record, or null when no digest is available.
usable_hash *read_digest(sis_context *ctx, const dentry *file, int fd, const char *path) {
  SHA256_CTX digest;
  SHA256_Init(&digest);
  const int error = read_into_digest(fd, &digest);
  if (error != 0) {
    log_erro("failed to read [%d]%s returned %s", fd, path, strerror(error));
    count_error(ctx);
    return nullptr;
  }
  if (!is_unchanged_after_read(ctx, file, fd, path)) {
    return nullptr;
  }
  usable_hash *record = allocate_record(path);
  if (record != nullptr) {
    SHA256_Final(record->digest, &digest);
  }
  return record;
}

// Freezes and reads the opened file. Returns a complete record or null.
usable_hash *digest_open_file(sis_context *ctx, const dentry *file, int fd, const char *path) {
  if (!is_ready_to_read(ctx, file, fd, path)) {
    count_error(ctx);
    return nullptr;
  }
  fetch_add(&ctx->nr_hashed, 1);
  posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  usable_hash *record = read_digest(ctx, file, fd, path);
  posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
  return record;
}

// Takes over the saved digest, unless there is none for the file as it is now.
//
// Two dentries with the same key seldom both get here: only when an inode was admitted under two
// names and its pattern could not be read once, or it changed in between. Then one of them takes
// the record, and the digest of the other is computed.
usable_hash *take_saved_digest(const sis_context *ctx, const dentry *file) {
  hash_entry *entry = lookup_hash_table(ctx, file->key);
  usable_hash *record = entry == nullptr ? nullptr : load_acquire(&entry->record);
  const bool is_current = record != nullptr && record->mtime_sec == file->mtime.tv_sec &&
                          record->mtime_nsec == file->mtime.tv_nsec;
  return is_current && take_pointer(&entry->record, record) ? record : nullptr;
}

usable_hash *compute_digest(sis_context *ctx, const dentry *file) {
  path_buffer buffer;
  const char *path = get_fullpath(file, buffer.text);
  const unique_fd fd = open_for_digest(ctx, path);
  return fd.is_open() ? digest_open_file(ctx, file, fd.get(), path) : nullptr;
}

}  // namespace

int make_pattern(dentry *file, const char *path, int fd) {
  if (path != nullptr && fd >= 0) {
    return make_pattern_of(file, path, fd);
  }
  path_buffer buffer;
  const char *own_path = get_fullpath(file, buffer.text);
  // A FIFO that has replaced the file must not block while the forest lock is held: with O_NONBLOCK
  // it opens at once, and the first seek fails.
  const unique_fd own_fd(open(own_path, O_RDONLY | O_NONBLOCK));
  if (!own_fd.is_open()) {
    const int error = errno;
    log_erro("fail to open %s returned %s", own_path, strerror(error));
    return error;
  }
  return make_pattern_of(file, own_path, own_fd.get());
}

// Only a complete record is stored, so no thread sees one that is being filled in. The file is
// closed by then: once the digest is no longer pending, it may be requested again.
void make_digest(sis_context *ctx, dentry *file) {
  usable_hash *record = take_saved_digest(ctx, file);
  if (record == nullptr) {
    record = compute_digest(ctx, file);
  }
  store_release(&file->hash, record);
}

}  // namespace velmarin
