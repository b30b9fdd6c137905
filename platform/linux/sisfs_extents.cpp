// File data and shared extents. Btrfs and XFS really share extents; on every other file system, and
// on XFS without reflink support, files keep their own data and are only compared.
#include <fcntl.h>
#include <linux/btrfs.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/heap_ptr.h"
#include "sisfs.h"

namespace velmarin::sisfs {
namespace {

constexpr uint64_t SHARE_CHUNK = 16 << 20;       // the most that Btrfs shares in one request
constexpr uint64_t READ_AHEAD_STEP = 128 << 10;  // the kernel truncates a longer one
constexpr size_t COPY_BUFFER_SIZE = 1 << 20;

// The magic number of the file system, or 0 if it is unknown.
uint32_t file_system_type(int fd) {
  struct statfs status = {};
  return fstatfs(fd, &status) == 0 ? static_cast<uint32_t>(status.f_type) : 0;
}

// Fails with EAGAIN at the end of the file.
int read_fully(int fd, char *buffer, size_t length, uint64_t offset) {
  while (length > 0) {
    const ssize_t done = TEMP_FAILURE_RETRY(pread(fd, buffer, length, static_cast<off_t>(offset)));
    if (done <= 0) {
      return done == 0 ? EAGAIN : errno;
    }
    const auto advance = static_cast<size_t>(done);
    buffer += advance;
    offset += advance;
    length -= advance;
  }
  return 0;
}

int write_fully(int fd, const char *buffer, size_t length, uint64_t offset) {
  while (length > 0) {
    const ssize_t done = TEMP_FAILURE_RETRY(pwrite(fd, buffer, length, static_cast<off_t>(offset)));
    if (done < 0) {
      return errno;
    }
    const auto advance = static_cast<size_t>(done);
    buffer += advance;
    offset += advance;
    length -= advance;
  }
  return 0;
}

int compare_contents(int left_fd, int right_fd, uint64_t size) {
  const heap_ptr<char> left = heap_allocate<char>(COPY_BUFFER_SIZE);
  const heap_ptr<char> right = heap_allocate<char>(COPY_BUFFER_SIZE);
  if (left == nullptr || right == nullptr) {
    return ENOMEM;
  }
  for (uint64_t offset = 0; offset < size; offset += COPY_BUFFER_SIZE) {
    const size_t length = std::min<uint64_t>(COPY_BUFFER_SIZE, size - offset);
    int error = read_fully(left_fd, left.get(), length, offset);
    if (error == 0) {
      error = read_fully(right_fd, right.get(), length, offset);
    }
    if (error != 0) {
      return error;
    }
    if (memcmp(left.get(), right.get(), length) != 0) {
      return EBADE;
    }
  }
  return 0;
}

int copy_range(int source, int target, const data_range &range, char *buffer) {
  for (uint64_t offset = range.begin; offset < range.end; offset += COPY_BUFFER_SIZE) {
    const size_t length = std::min<uint64_t>(COPY_BUFFER_SIZE, range.end - offset);
    int error = read_fully(source, buffer, length, offset);
    if (error == 0) {
      error = write_fully(target, buffer, length, offset);
    }
    if (error != 0) {
      return error;
    }
  }
  return 0;
}

// Extends a shorter file to `size` bytes. Whatever another process wrote beyond that stays.
int extend(int fd, uint64_t size) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    return errno;
  }
  const auto length = static_cast<off_t>(size);
  return status.st_size >= length || ftruncate(fd, length) == 0 ? 0 : errno;
}

// Prefetches what a request to share will compare: the kernel compares page by page and waits for
// each page that is not in memory. This is advice, so a failure changes nothing.
void read_ahead(int source, int target, uint64_t begin, uint64_t end) {
  for (uint64_t offset = begin; offset < end; offset += READ_AHEAD_STEP) {
    const auto length = static_cast<off_t>(std::min(READ_AHEAD_STEP, end - offset));
    posix_fadvise(source, static_cast<off_t>(offset), length, POSIX_FADV_WILLNEED);
    posix_fadvise(target, static_cast<off_t>(offset), length, POSIX_FADV_WILLNEED);
  }
}

}  // namespace

int kernel_ioctl(int fd, unsigned long request, void *argument) {
  return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}

unique_fd reopen(int fd, int access_mode) {
  char path[32];
  snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
  return unique_fd(open(path, access_mode | O_CLOEXEC));
}

bool is_same_file_system(int left_fd, const file_status &left, int right_fd,
                         const file_status &right) {
  if (left.device == right.device) {
    return true;
  }
  if (file_system_type(left_fd) != BTRFS_SUPER_MAGIC ||
      file_system_type(right_fd) != BTRFS_SUPER_MAGIC) {
    return false;  // a file system in user space may answer any request
  }
  btrfs_ioctl_fs_info_args left_info = {};
  btrfs_ioctl_fs_info_args right_info = {};
  return kernel_ioctl(left_fd, BTRFS_IOC_FS_INFO, &left_info) == 0 &&
         kernel_ioctl(right_fd, BTRFS_IOC_FS_INFO, &right_info) == 0 &&
         memcmp(left_info.fsid, right_info.fsid, sizeof(left_info.fsid)) == 0;
}

bool can_share_extents(int fd) {
  const uint32_t type = file_system_type(fd);
  return type == BTRFS_SUPER_MAGIC || type == XFS_SUPER_MAGIC;
}

int share_range(int source, int target, uint64_t offset, uint64_t length) {
  while (length > 0) {
    alignas(file_dedupe_range) char
        memory[sizeof(file_dedupe_range) + sizeof(file_dedupe_range_info)] = {};
    auto *request = reinterpret_cast<file_dedupe_range *>(memory);
    file_dedupe_range_info *destination = request->info;
    request->src_offset = offset;
    request->src_length = std::min(length, SHARE_CHUNK);
    request->dest_count = 1;
    destination->dest_fd = target;
    destination->dest_offset = offset;
    read_ahead(source, target, offset, offset + request->src_length);
    if (kernel_ioctl(source, FIDEDUPERANGE, request) != 0) {
      if (errno == EINTR) {
        continue;
      }
      return errno;
    }
    if (destination->status != FILE_DEDUPE_RANGE_SAME) {
      return destination->status == FILE_DEDUPE_RANGE_DIFFERS ? EBADE : -destination->status;
    }
    if (destination->bytes_deduped == 0 || destination->bytes_deduped > length) {
      return EAGAIN;  // a file got shorter
    }
    offset += destination->bytes_deduped;
    length -= destination->bytes_deduped;
  }
  return 0;
}

int merge_contents(int source, int target, uint64_t size) {
  if (can_share_extents(target)) {
    const int error = share_range(source, target, 0, size);
    if (error != EOPNOTSUPP) {
      return error;
    }
  }
  return compare_contents(source, target, size);
}

int next_data(int fd, uint64_t size, data_range *range) {
  const uint64_t start = range->end;
  *range = {size, size};
  if (start >= size) {
    return 0;
  }
  struct statfs file_system = {};
  if (fstatfs(fd, &file_system) != 0) {
    return errno;
  }
  const off_t data = lseek(fd, static_cast<off_t>(start), SEEK_DATA);
  if (data < 0) {
    return errno == ENXIO ? 0 : errno;
  }
  const off_t hole = lseek(fd, data, SEEK_HOLE);
  if (hole <= data) {  // the data was punched out between the two calls, or the second failed
    return hole < 0 && errno != ENXIO ? errno : EAGAIN;
  }
  const uint64_t block = std::max(static_cast<uint64_t>(file_system.f_bsize), uint64_t{1});
  const uint64_t begin = static_cast<uint64_t>(data) / block * block;
  const uint64_t end = (static_cast<uint64_t>(hole) + block - 1) / block * block;
  *range = {std::min(begin, size), std::min(end, size)};
  return 0;
}

int copy_contents(int source, int target, uint64_t size) {
  const unique_fd reader = reopen(source, O_RDONLY);
  if (!reader.is_open()) {
    return errno;
  }
  const heap_ptr<char> buffer = heap_allocate<char>(COPY_BUFFER_SIZE);
  if (buffer == nullptr) {
    return ENOMEM;
  }
  uint64_t end = 0;
  data_range range = {};
  int error = next_data(reader.get(), size, &range);
  while (error == 0 && range.begin < range.end) {
    end = range.end;
    error = copy_range(reader.get(), target, range, buffer.get());
    if (error == 0) {
      error = next_data(reader.get(), size, &range);
    }
  }
  return error == 0 && end < size ? extend(target, size) : error;
}

int clone_contents(int source, int target, bool *is_refused) {
  *is_refused = false;
  if (can_share_extents(target)) {
    if (syscall(SYS_ioctl, target, FICLONE, source) == 0) {
      return 0;
    }
    if (errno != EOPNOTSUPP && errno != EINVAL) {
      return errno;
    }
    *is_refused = errno == EINVAL;  // as on Btrfs when copy on write is off for one of the files
  }
  file_status before;
  int error = stat_settled(source, &before);
  if (error == 0) {
    error = copy_contents(source, target, before.stamp.size);
  }
  return error != 0 ? error : check_unchanged(source, before);
}

}  // namespace velmarin::sisfs
