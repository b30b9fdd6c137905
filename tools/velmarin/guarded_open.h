// The tool answers the library's calls of open(2) itself. The library opens files by their paths,
// so a directory below a root that another user swaps for a symbolic link at the right moment would
// lead it to files elsewhere; and it makes files that others may read.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// While an object lives, every open of a path at or below a root goes through `open_beneath` and
// starts at the directory that the root was when the object was made. An unnamed temporary file is
// refused in a directory elsewhere. All other paths are opened as ever. Files opened to
// be read whole are counted. At most one object lives, and none of the other threads that open
// files outlives it.
class GuardedRoots {
 public:
  // Paths of directories, absolute and without symbolic links.
  explicit GuardedRoots(const std::vector<std::string> &roots);
  ~GuardedRoots();
  GuardedRoots(const GuardedRoots &) = delete;
  GuardedRoots &operator=(const GuardedRoots &) = delete;

  // False, with a word on standard error, when a root has gone or the kernel has no openat2.
  bool are_held() const { return are_held_; }

 private:
  bool are_held_ = true;
};

// While an object lives and once a stop is requested, the library gets nothing more to look at or
// to read below the roots: what it has queued by then would take its time otherwise. At most one
// object lives.
class StoppableOpens {
 public:
  StoppableOpens();
  ~StoppableOpens();
  StoppableOpens(const StoppableOpens &) = delete;
  StoppableOpens &operator=(const StoppableOpens &) = delete;

  // How many files were not opened that the library counts as errors, since it wanted their
  // digests.
  uint64_t refused_digests() const;
};

// While an object lives, a file that is made is for its user alone, whatever default access control
// list its directory has; and a file that is there and belongs to somebody else is not opened to be
// made. At most one object lives.
class PrivateFiles {
 public:
  PrivateFiles();
  ~PrivateFiles();
  PrivateFiles(const PrivateFiles &) = delete;
  PrivateFiles &operator=(const PrivateFiles &) = delete;
};

}  // namespace tool
