// Reading and writing the records of a digest file. The file is a plain sequence of entries: the
// CRC-64/NVME of a record, then the record (little-endian), with no header and no trailer.

#include <bounds_checked.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "common/heap_ptr.h"
#include "common/log.h"
#include "common/paths.h"
#include "digest_reservation/digest_file.h"
#include "fbddp/dentry.h"
#include "fbddp/file_index.h"
#include "velmarin/primitives.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__,
              "records are stored as they are in memory");

namespace velmarin {
namespace {

constexpr int64_t LOAD_FAILED = -1;

enum class read_result { record, end_of_file, failure };

uint64_t checksum_of(const usable_hash &record) {
  return crc64_rocksoft_generic(0, &record, sizeof(record));
}

size_t offset_of(int fd) {
  return static_cast<size_t>(lseek(fd, 0, SEEK_CUR));
}

read_result read_record(int fd, usable_hash *record) {
  uint64_t crc = 0;
  const ssize_t crc_bytes = read(fd, &crc, sizeof(crc));
  if (crc_bytes == 0) {
    return read_result::end_of_file;
  }
  if (crc_bytes != static_cast<ssize_t>(sizeof(crc))) {
    log_erro("fail to read crc checksum on %lu of %s\n", offset_of(fd), suffix_list[0]);
    return read_result::failure;
  }
  if (read(fd, record, sizeof(*record)) != static_cast<ssize_t>(sizeof(*record))) {
    log_erro("fail to read hash on %lu of %s\n", offset_of(fd), suffix_list[0]);
    return read_result::failure;
  }
  if (checksum_of(*record) != crc) {
    log_erro("check sum verify failure on %lu of %s\n", offset_of(fd), suffix_list[0]);
    return read_result::failure;
  }
  return read_result::record;
}

// An entry that holds a copy of `record`; null when out of memory or the bounded copy fails.
hash_entry *make_entry(const usable_hash &record) {
  heap_ptr<hash_entry> entry(static_cast<hash_entry *>(calloc(1, sizeof(hash_entry))));
  heap_ptr<usable_hash> copy = heap_allocate<usable_hash>();
  if (entry == nullptr || copy == nullptr ||
      memcpy_s(copy.get(), sizeof(*copy), &record, sizeof(record)) != 0) {
    return nullptr;
  }
  entry->record = copy.release();
  return entry.release();
}

// Reads all records into the table. Returns their number or LOAD_FAILED.
int64_t load_records(sis_context *ctx, int fd) {
  for (int64_t count = 0;; count++) {
    usable_hash record;
    const read_result result = read_record(fd, &record);
    if (result == read_result::end_of_file) {
      return count;
    }
    hash_entry *entry = result == read_result::record ? make_entry(record) : nullptr;
    if (entry == nullptr) {
      return LOAD_FAILED;
    }
    list_append(&ctx->hash_entries, &entry->link);
    add_to_hash_table(ctx, entry);
  }
}

// Fills in the record to save for a file: identity and time from the dentry, digest from `known`.
// Returns false when the bounded copy fails.
bool fill_record(const dentry *file, const usable_hash *known, usable_hash *record) {
  record->ino = static_cast<uint32_t>(file->key);
  record->dev = static_cast<uint32_t>(file->key >> 32);
  record->mtime_sec = file->mtime.tv_sec;
  record->mtime_nsec = file->mtime.tv_nsec;
  return memcpy_s(record->digest, DIGEST_SIZE, known->digest, DIGEST_SIZE) == 0;
}

bool write_record(int fd, const dentry *file, const usable_hash &record) {
  path_buffer buffer;
  const uint64_t crc = checksum_of(record);
  if (write(fd, &crc, sizeof(crc)) < 0) {
    log_erro("fail to write hash crc64 checksum of %s\n", get_fullpath(file, buffer.text));
    return false;
  }
  if (write(fd, &record, sizeof(record)) < 0) {
    log_erro("fail to write hash of %s\n", get_fullpath(file, buffer.text));
    return false;
  }
  return true;
}

// Writes and counts the records of all files that have a digest. Returns false on failure.
bool save_records(sis_context *ctx, int fd, int64_t *count) {
  for (const dentry &d : list_range<&dentry::link>(&ctx->dentries)) {
    const usable_hash *known = is_file_form(&d) ? digest_record_of(&d) : nullptr;
    if (known == nullptr) {
      continue;
    }
    usable_hash record;
    if (!fill_record(&d, known, &record) || !write_record(fd, &d, record)) {
      return false;
    }
    ++*count;
  }
  return true;
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

int64_t load_usable_hash(sis_context *ctx, const char *save_dir) {
  int fd = 0;
  int64_t count = LOAD_FAILED;
  if (create_open_hashfiles(ctx, save_dir, &fd, OPEN_FOR_READING) == 0 &&
      initialize_hash_table(ctx) == 0) {
    count = load_records(ctx, fd);
  }
  destroy_exist_hashfiles(ctx, save_dir, &fd, REMOVE_FILE);
  return count;
}

int64_t save_usable_hash(sis_context *ctx, const char *save_dir) {
  int fd = 0;
  int64_t count = 0;
  const bool saved = create_open_hashfiles(ctx, save_dir, &fd, OPEN_FOR_WRITING) == 0 &&
                     save_records(ctx, fd, &count);
  destroy_exist_hashfiles(ctx, save_dir, &fd, saved ? KEEP_FILE : REMOVE_FILE);
  return count;
}
