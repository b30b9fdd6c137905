#include "volume_watch.h"

#include <cerrno>
#include <utility>

#include "file_system.h"
#include "scan_probes.h"
#include "velmarin/files.h"

namespace tool {
namespace {

// Single files on another device count as runs of their own, far above the numbers of runs.
constexpr size_t FIRST_SINGLE = size_t{1} << 32;

// Probes are given no data of their caller.
VolumeWatch *present = nullptr;

// A root of "/" leaves a doubled slash at the start.
const char *without_doubled_slash(const char *path) {
  return path[0] == '/' && path[1] == '/' ? path + 1 : path;
}

}  // namespace

VolumeWatch::VolumeWatch(DigestKeeper &keeper) : keeper_(keeper) {
  present = this;
  entry_watch = watch;
}

VolumeWatch::~VolumeWatch() {
  entry_watch = nullptr;
  present = nullptr;
}

void VolumeWatch::begin_run(dev_t device) {
  earlier_.absorb(sizes_, common_);
  device_ = device;
}

void VolumeWatch::begin_collection(dev_t device, size_t run) {
  device_ = device;
  run_ = run;
  is_collecting_ = true;
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

int VolumeWatch::watch(int fd, const struct stat *status, const char *path) {
  return S_ISDIR(status->st_mode) ? present->watch_directory(fd, *status, path)
                                  : present->watch_file(fd, *status, path);
}

int VolumeWatch::watch_directory(int fd, const struct stat &status, const char *path) {
  if (status.st_dev == device_) {
    return 0;
  }
  if (!is_collecting_) {
    const uint64_t file_system = file_system_of(fd, status);
    const std::lock_guard guard(lock_);
    directories_.push_back({without_doubled_slash(path), status.st_dev, file_system});
  }
  return -EXDEV;
}

int VolumeWatch::watch_file(int fd, const struct stat &status, const char *path) {
  const bool is_single = status.st_dev != device_;
  if (is_collecting_) {
    if (!is_single && common_.holds(static_cast<uint64_t>(status.st_size))) {
      collect(fd, status, path, run_);
    }
    return -EXDEV;
  }
  keeper_.meet(status);
  if (is_single) {
    collect(fd, status, path, FIRST_SINGLE);
    return -EXDEV;
  }
  sizes_.add(static_cast<uint64_t>(status.st_size));
  return 0;
}

void VolumeWatch::collect(int fd, const struct stat &status, const char *path, size_t run) {
  const int state = check_file_status(fd, &status, path);
  if (static_cast<uint64_t>(status.st_size) < min_size || state < 0) {
    return;
  }
  CollectedFile file = {without_doubled_slash(path), status, state, run, 0};
  if (run == FIRST_SINGLE) {
    file.file_system = file_system_of(fd, status);
  }
  const std::lock_guard guard(lock_);
  if (run == FIRST_SINGLE) {
    file.run += singles_++;
  }
  collected.push_back(std::move(file));
}

}  // namespace tool
