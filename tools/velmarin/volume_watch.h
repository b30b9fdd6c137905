// Watches the walk of a run of the library. A run compares files by the low half of their inode
// numbers, so it must see one device only: what lies on another one is left out and noted, for a
// run of its own.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "digest_keeper.h"
#include "size_set.h"

namespace tool {

// A directory on another device than the one above it.
struct ForeignDirectory {
  std::string path;
  dev_t device = 0;
  uint64_t file_system = 0;
};

// A file whose digest may be wanted besides those that the library compares.
struct CollectedFile {
  std::string path;
  struct stat status = {};
  int64_t state = 0;  // SIS_STATUS_*
  size_t run = 0;     // files of one run have been compared with each other
  uint64_t file_system = 0;
};

// One object at a time, and only while no run is under way is it asked or changed.
class VolumeWatch {
 public:
  explicit VolumeWatch(DigestKeeper &keeper);
  ~VolumeWatch();
  VolumeWatch(const VolumeWatch &) = delete;
  VolumeWatch &operator=(const VolumeWatch &) = delete;

  // The next run is to see this device. Sizes of its files are noted.
  void begin_run(dev_t device);

  // The next run is to compare nothing, but to collect the files of that earlier run that have a
  // size which occurs in several runs.
  void begin_collection(dev_t device, size_t run);

  // What the run noted.
  std::vector<ForeignDirectory> take_directories();

  // Whether files of one size were met in several runs. Ends the last run.
  bool has_common_sizes();

  std::vector<CollectedFile> collected;  // single files on another device than their directory, too
  uint64_t min_size = 0;

 private:
  static int watch(int fd, const struct stat *status, const char *path);
  int watch_directory(int fd, const struct stat &status, const char *path);
  int watch_file(int fd, const struct stat &status, const char *path);
  void collect(int fd, const struct stat &status, const char *path, size_t run);

  DigestKeeper &keeper_;
  dev_t device_ = 0;
  bool is_collecting_ = false;
  size_t run_ = 0;
  SizeSet sizes_;    // met in this run
  SizeSet earlier_;  // met in the runs before
  SizeSet common_;   // met in several runs
  std::mutex lock_;  // guards `collected`, `directories_` and `singles_` while a run is under way
  std::vector<ForeignDirectory> directories_;
  size_t singles_ = 0;
};

}  // namespace tool
