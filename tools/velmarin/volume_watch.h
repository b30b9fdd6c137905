// Watches the walk of a library run. A run identifies files by the low half of their inode numbers,
// so it may see only one device, and one file of each low half. What is on other devices is left
// out and noted for a separate run; `WideInodes` keeps back files for further runs on the device.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "digest_keeper.h"
#include "size_set.h"
#include "wide_inodes.h"

namespace tool {

// A directory on a different device from its parent.
struct ForeignDirectory {
  std::string path;
  dev_t device = 0;
  uint64_t file_system = 0;
};

// A file whose digest may be needed in addition to those that the library compares.
struct CollectedFile {
  std::string path;
  struct stat status = {};
  int64_t state = 0;  // SIS_STATUS_*
  size_t run = 0;     // files of one run have been compared with each other; see `FIRST_SINGLE`
  uint64_t file_system = 0;
};

// Single files on a different device from their directory count as separate runs, numbered from
// here.
inline constexpr size_t FIRST_SINGLE = size_t{1} << 32;

// At most one object may live. Use it only while no run is in progress.
class VolumeWatch {
 public:
  explicit VolumeWatch(DigestKeeper &keeper);
  ~VolumeWatch();
  VolumeWatch(const VolumeWatch &) = delete;
  VolumeWatch &operator=(const VolumeWatch &) = delete;

  // Prepares a run that sees this device. Notes the sizes of its files.
  void begin_run(dev_t device);

  // Prepares a run that sees what an earlier one kept back. It may enter only the directories that
  // lead to those files. See `WideInodes::begin_further`.
  void begin_further_run(dev_t device, KeptBack expected, bool is_second);

  // Prepares a run that compares nothing, but sees all devices of the earlier runs and collects the
  // files whose size occurs in several of them. Gives each a `run` of its own.
  void begin_collection();

  // What the run has noted.
  std::vector<ForeignDirectory> take_directories();

  // Whether any size occurred in several runs. Ends the last run.
  bool has_common_sizes();

  WideInodes inodes;                     // of the run
  std::vector<CollectedFile> collected;  // also single files on another device than their directory
  uint64_t min_size = 0;

 private:
  static void note_left_out(const struct stat &status);
  static int watch(int fd, const struct stat *status, const char *path);
  int watch_directory(int fd, const struct stat &status, const char *path);
  int watch_file(int fd, const struct stat &status, const char *path);
  int watch_again(const struct stat &status, const char *path);
  bool may_be_compared(const struct stat &status) const;
  void collect(int fd, const struct stat &status, const char *path);

  DigestKeeper &keeper_;
  dev_t device_ = 0;
  std::set<dev_t> devices_;  // of all runs
  bool is_collecting_ = false;
  bool is_further_ = false;
  SizeSet sizes_;    // seen in this run
  SizeSet earlier_;  // seen in earlier runs
  SizeSet common_;   // seen in several runs
  std::mutex lock_;  // guards `collected` and `directories_` while a run is under way
  std::vector<ForeignDirectory> directories_;
  size_t collected_count_ = 0;  // with those that were dropped again
};

}  // namespace tool
