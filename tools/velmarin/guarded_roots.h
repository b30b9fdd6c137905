// Keeps a scan inside its roots while other users rename in them. The library opens files by their
// paths, so a directory that is swapped for a symbolic link at the right moment would lead it to
// files elsewhere. The tool therefore answers the library's calls of open(2) itself.
#pragma once

#include <string>
#include <vector>

namespace tool {

// While an object lives, every open of a path at or below a root goes through `open_beneath` and
// starts at the directory that the root was when the object was made. An unnamed temporary file is
// refused in a directory elsewhere. All other paths are opened as ever. At most one object lives,
// and none of the other threads that open files outlives it.
class GuardedRoots {
 public:
  // Paths of directories, absolute and without symbolic links.
  explicit GuardedRoots(const std::vector<std::string> &roots);
  ~GuardedRoots();
  GuardedRoots(const GuardedRoots &) = delete;
  GuardedRoots &operator=(const GuardedRoots &) = delete;
};

}  // namespace tool
