// Watches the walk of a run of the library. A run compares files by the low half of their inode
// numbers, so it must see one device only: what lies on another one is left out and noted, for a
// run of its own.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <set>
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
  size_t run = 0;     // files of one run have been compared with each other; see `FIRST_SINGLE`
  uint64_t file_system = 0;
};

// Single files on another device than their directory count as runs of their own, numbered from
// here.
inline constexpr size_t FIRST_SINGLE = size_t{1} << 32;

// One object at a time, and only while no run is under way is it asked or changed.
class VolumeWatch {
 public:
  explicit VolumeWatch(DigestKeeper &keeper);
  ~VolumeWatch();
  VolumeWatch(const VolumeWatch &) = delete;
  VolumeWatch &operator=(const VolumeWatch &) = delete;

  // The next run is to see this device. Sizes of its files are noted.
  void begin_run(dev_t device);

  // The next run is to compare nothing, but to see all devices of the runs before and to collect
  // the files that have a size which occurs in several of them. Their `run` is left open.
  void begin_collection();

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
  void collect(int fd, const struct stat &status, const char *path);

  DigestKeeper &keeper_;
  dev_t device_ = 0;
  std::set<dev_t> devices_;  // of all runs
  bool is_collecting_ = false;
  SizeSet sizes_;    // met in this run
  SizeSet earlier_;  // met in the runs before
  SizeSet common_;   // met in several runs
  std::mutex lock_;  // guards `collected` and `directories_` while a run is under way
  std::vector<ForeignDirectory> directories_;
};

}  // namespace tool
