// How the file systems in use are called.
#pragma once

#include <string>
#include <vector>

namespace tool {

struct Mount {
  std::string type;    // "btrfs"
  std::string label;   // empty where there is none, or none can be asked
  std::string source;  // "/dev/sdb1"
  std::string point;   // where it is mounted, "/srv"
  bool can_share = false;
};

// The mounts on which the files and directories lie, each once, in the order of the paths. Leaves
// out what cannot be told.
std::vector<Mount> mounts_of(const std::vector<std::string> &paths);

// Reads a line of /proc/PID/mountinfo. Returns the number of the mount, or 0 for anything else.
uint64_t read_mount_line(const std::string &line, Mount &mount);

}  // namespace tool
