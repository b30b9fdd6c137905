// Replaces open(2) for the library. The library opens files by path, so another user could swap a
// directory below a root for a symbolic link at the right moment and lead it to files elsewhere. It
// also creates files that others may read.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// While an object lives, every open of a path at or below a root goes through `open_beneath`, from
// the directory that was the root when the object was created. Refuses unnamed temporary files in
// directories elsewhere. All other paths are opened as usual. Counts files opened to be read in
// full. At most one object may live, and no other thread that opens files may outlive it.
class GuardedRoots {
 public:
  // Absolute paths of directories, without symbolic links.
  explicit GuardedRoots(const std::vector<std::string> &roots);
  ~GuardedRoots();
  GuardedRoots(const GuardedRoots &) = delete;
  GuardedRoots &operator=(const GuardedRoots &) = delete;

  // False, after an error message, if a root is gone or the kernel lacks openat2.
  bool are_held() const { return are_held_; }

 private:
  bool are_held_ = true;
};

// While an object lives, a requested stop keeps the library from examining or reading anything more
// below the roots. Otherwise it would first work through its queue. At most one object may live.
class StoppableOpens {
 public:
  StoppableOpens();
  ~StoppableOpens();
  StoppableOpens(const StoppableOpens &) = delete;
  StoppableOpens &operator=(const StoppableOpens &) = delete;

  // The number of refused opens that the library counts as errors because it needed the digests.
  uint64_t refused_digests() const;
};

// While an object lives, new files are private to their owner, whatever default access control list
// their directory has, and an open fails if the file belongs to someone else and the open could
// create it or it is a digest file in `state`. An open that could create such a file accepts
// no symbolic link in its place. At most one object may live.
class PrivateFiles {
 public:
  explicit PrivateFiles(std::string state = {});
  ~PrivateFiles();
  PrivateFiles(const PrivateFiles &) = delete;
  PrivateFiles &operator=(const PrivateFiles &) = delete;
};

}  // namespace tool
