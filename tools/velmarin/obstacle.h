// What would keep merging from changing a file, asked without opening anything for writing.
#pragma once

#include <sys/stat.h>

#include <optional>
#include <set>
#include <string>
#include <utility>

namespace tool {

// The programs that run while the object is in use. Nobody can open their files for writing.
class RunningPrograms {
 public:
  bool contains(const struct stat &status);

 private:
  std::optional<std::set<std::pair<dev_t, ino_t>>> files_;
};

// The errno that opening the open file for writing would fail with, 0 if none is to be expected.
int obstacle_to_writing(int fd, const struct stat &status, RunningPrograms &programs);

// The same for a new file in the directory of that path, which a layered inode needs at first.
int obstacle_beside(const std::string &path);

}  // namespace tool
