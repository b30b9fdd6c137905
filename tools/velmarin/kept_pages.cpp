#include "kept_pages.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace tool {
namespace {

constexpr uint64_t PART_OF_MEMORY = 4;

// Bytes that may still be kept; 0 when no object lives.
std::atomic<uint64_t> room = 0;

uint64_t memory_bytes() {
  struct sysinfo memory = {};
  sysinfo(&memory);
  return uint64_t{memory.totalram} * memory.mem_unit;
}

// Whether the file's pages may stay. If so, subtracts the file's size from the room.
bool reserve_room(int fd) {
  struct stat status = {};
  if (fstat(fd, &status) != 0) {
    return false;
  }
  const auto size = static_cast<uint64_t>(status.st_size);
  uint64_t left = room;
  while (left >= size) {
    if (room.compare_exchange_weak(left, left - size)) {
      return true;
    }
  }
  return false;
}

int advise(int fd, off_t offset, off_t length, int advice) {
  const int saved_errno = errno;
  const int error = syscall(SYS_fadvise64, fd, offset, length, advice) == 0 ? 0 : errno;
  errno = saved_errno;
  return error;
}

}  // namespace

KeptPages::KeptPages() {
  room = memory_bytes() / PART_OF_MEMORY;
}

KeptPages::~KeptPages() {
  room = 0;
}

}  // namespace tool

// Overrides the C library's function for the whole process.
extern "C" int posix_fadvise(int fd, off_t offset, off_t length, int advice) {
  if (advice == POSIX_FADV_DONTNEED && tool::reserve_room(fd)) {
    return 0;
  }
  return tool::advise(fd, offset, length, advice);
}
