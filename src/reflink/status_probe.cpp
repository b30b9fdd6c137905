// File status probes, which a scan calls for each file it opens, and the statistics they gather.
// The counters are the only state. Each is updated atomically by itself, so a reader may see the
// count of a file before its bytes.

#include <linux/fs.h>

#include <atomic>
#include <cerrno>

#include "common/log.h"
#include "reflink/control.h"
#include "velmarin/files.h"

namespace velmarin {
namespace {

constexpr uint64_t STAT_BLOCK_SIZE = 512;  // unit of st_blocks
constexpr uint64_t PAGE_BYTES = 4096;

struct saving_counters {
  std::atomic<uint64_t> files;
  std::atomic<uint64_t> saved_bytes;

  void add(uint64_t bytes) {
    files.fetch_add(1, std::memory_order_acq_rel);
    saved_bytes.fetch_add(bytes, std::memory_order_acq_rel);
  }
};

constinit saving_counters compressed_savings = {};
constinit saving_counters deduped_savings = {};

uint64_t allocated_bytes(const struct stat *status) {
  return static_cast<uint64_t>(status->st_blocks) * STAT_BLOCK_SIZE;
}

// The space that the file would occupy in whole pages, less the space that it does.
uint64_t saved_bytes(const struct stat *status) {
  const uint64_t size = static_cast<uint64_t>(status->st_size);
  return ((size + PAGE_BYTES - 1) & ~(PAGE_BYTES - 1)) - allocated_bytes(status);
}

int classify_and_count(int fd, const struct stat *status, const char *path) {
  const int file_status = check_file_status(fd, status, path);
  if (file_status == SIS_STATUS_DEDUPED) {
    deduped_savings.add(saved_bytes(status));
  } else if (file_status == SIS_STATUS_COMPRESSED) {
    compressed_savings.add(saved_bytes(status));
  }
  return file_status;
}

// Any result but EOPNOTSUPP shows that the file system has the control codes.
int probe_file_system(int fd) {
  sis_file_info info;
  return query_file_info(fd, &info) < 0 && errno == EOPNOTSUPP ? -EOPNOTSUPP : 0;
}

void read_and_reset(std::atomic<uint64_t> *counter, uint64_t *destination) {
  const uint64_t value = counter->exchange(0, std::memory_order_acq_rel);
  if (destination != nullptr) {
    *destination = value;
  }
}

}  // namespace
}  // namespace velmarin

using namespace velmarin;

int filter_out_nonsis(int fd, const struct stat *status, const char *path) {
  if (!S_ISREG(status->st_mode)) {
    return 0;
  }
  if (allocated_bytes(status) < static_cast<uint64_t>(status->st_size)) {
    return classify_and_count(fd, status, path);
  }
  return probe_file_system(fd);
}

int check_file_status(int fd, const struct stat * /*status*/, const char *path) {
  uint32_t inode_flags;
  if (get_inode_flags(fd, &inode_flags) < 0) {
    const int error = errno;
    log_info("cannot determine whether %s is compressed, errno = %d", path, error);
    return -error;
  }
  if ((inode_flags & FS_COMPR_FL) != 0) {
    return SIS_STATUS_COMPRESSED;
  }
  sis_file_info info;
  if (query_file_info(fd, &info) < 0) {
    const int error = errno;
    log_info("cannot determine whether %s is dedupped, errno = %d", path, error);
    return -error;
  }
  if (info.layered == 0) {
    return SIS_STATUS_PLAIN;
  }
  return info.deduped != 0 ? SIS_STATUS_DEDUPED : SIS_STATUS_LAYERED;
}

int freeze_file(int fd, const char * /*path*/) {
  return set_coincide_flag(fd) < 0 ? errno : 0;
}

int check_frozen(int fd, const char *path) {
  uint32_t flags = 0;
  if (get_flag_word(fd, &flags) < 0) {
    return -errno;
  }
  if ((flags & SIS_FLAG_COINCIDE) != 0) {
    return 0;
  }
  log_info("%s is not frozen any longer", path);
  return -1;
}

void get_sis_file_statistics(uint64_t *compressed_files, uint64_t *deduped_files,
                             uint64_t *compressed_saved_bytes, uint64_t *deduped_saved_bytes) {
  read_and_reset(&compressed_savings.files, compressed_files);
  read_and_reset(&deduped_savings.files, deduped_files);
  read_and_reset(&compressed_savings.saved_bytes, compressed_saved_bytes);
  read_and_reset(&deduped_savings.saved_bytes, deduped_saved_bytes);
}
