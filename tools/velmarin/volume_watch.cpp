#include "volume_watch.h"

#include <cerrno>
#include <utility>

#include "file_system.h"
#include "scan_paths.h"
#include "scan_probes.h"
#include "velmarin/files.h"

namespace tool {
namespace {

// Global because probes receive no caller data.
VolumeWatch *active = nullptr;

}  // namespace

VolumeWatch::VolumeWatch(DigestKeeper &keeper) : keeper_(keeper) {
  active = this;
  entry_watch = watch;
  left_out_watch = note_left_out;
}

VolumeWatch::~VolumeWatch() {
  entry_watch = nullptr;
  left_out_watch = nullptr;
  active = nullptr;
}

void VolumeWatch::begin_run(dev_t device) {
  earlier_.absorb(sizes_, common_);
  device_ = device;
  devices_.insert(device);
  is_further_ = probe_counts.are_counted = false;
}

void VolumeWatch::begin_further_run(dev_t device, KeptBack expected, bool is_second) {
  begin_run(device);
  is_further_ = probe_counts.are_counted = true;
  inodes.begin_further(std::move(expected), is_second);
}

void VolumeWatch::begin_collection() {
  is_collecting_ = probe_counts.are_counted = true;
  is_further_ = false;
}

std::vector<ForeignDirectory> VolumeWatch::take_directories() {
  return std::exchange(directories_, {});
}

bool VolumeWatch::has_common_sizes() {
  earlier_.absorb(sizes_, common_);
  for (const CollectedFile &single : collected) {
    common_.add(static_cast<uint64_t>(single.status.st_size));
  }
  return !common_.is_empty();
}

// Its digest is still worth keeping for a scan that only looks.
void VolumeWatch::note_left_out(const struct stat &status) {
  active->keeper_.note_seen(status);
}

int VolumeWatch::watch(int fd, const struct stat *status, const char *path) {
  if (active->is_further_) {
    return active->watch_again(*status, path);
  }
  return S_ISDIR(status->st_mode) ? active->watch_directory(fd, *status, path)
                                  : active->watch_file(fd, *status, path);
}

// An earlier run has examined the entry.
int VolumeWatch::watch_again(const struct stat &status, const char *path) {
  if (S_ISDIR(status.st_mode)) {
    return status.st_dev == device_ && inodes.leads_to_files(path) ? 0 : -EXDEV;
  }
  if (status.st_dev != device_ || !may_be_compared(status) || !inodes.take(status.st_ino, path)) {
    return -EXDEV;
  }
  sizes_.add(static_cast<uint64_t>(status.st_size));
  return 0;
}

// A file that occupies less space than its length may be compressed, and is listed whatever its
// size.
bool VolumeWatch::may_be_compared(const struct stat &status) const {
  return static_cast<uint64_t>(status.st_size) >= min_size ||
         status.st_blocks * 512 < status.st_size;
}

int VolumeWatch::watch_directory(int fd, const struct stat &status, const char *path) {
  if (is_collecting_) {
    return devices_.contains(status.st_dev) ? 0 : -EXDEV;
  }
  if (status.st_dev == device_) {
    return 0;
  }
  const uint64_t file_system = file_system_of(fd, status);
  const std::lock_guard guard(lock_);
  directories_.push_back({reported_path(path), status.st_dev, file_system});
  return -EXDEV;
}

int VolumeWatch::watch_file(int fd, const struct stat &status, const char *path) {
  const auto size = static_cast<uint64_t>(status.st_size);
  if (is_collecting_) {
    if (devices_.contains(status.st_dev) && common_.may_contain(size)) {
      collect(fd, status, path);
    }
    return -EXDEV;
  }
  keeper_.note_seen(status);
  if (status.st_dev != device_) {
    collect(fd, status, path);
    return -EXDEV;
  }
  if (status.st_ino > UINT32_MAX && may_be_compared(status) && !inodes.take(status.st_ino, path)) {
    return -EXDEV;
  }
  sizes_.add(size);
  return 0;
}

void VolumeWatch::collect(int fd, const struct stat &status, const char *path) {
  const int state = check_file_status(fd, &status, path);
  if (static_cast<uint64_t>(status.st_size) < min_size || state < 0) {
    return;
  }
  const uint64_t file_system = is_collecting_ ? 0 : file_system_of(fd, status);
  const std::lock_guard guard(lock_);
  collected.push_back(
      {reported_path(path), status, state, FIRST_SINGLE + collected_count_++, file_system});
}

}  // namespace tool
