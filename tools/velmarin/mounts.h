// Describes the file systems in use.
#pragma once

#include <string>
#include <vector>

namespace tool {

struct Mount {
  std::string type;    // "btrfs"
  std::string label;   // empty if there is none or it cannot be read
  std::string source;  // "/dev/sdb1"
  std::string point;   // where it is mounted, "/srv"
  bool can_share = false;
};

// The mounts of the files and directories, each once, in path order. Omits those that cannot be
// determined.
std::vector<Mount> mounts_of(const std::vector<std::string> &paths);

// Parses a line of /proc/PID/mountinfo. Returns the mount's number, or 0 if the line is not valid.
uint64_t read_mount_line(const std::string &line, Mount &mount);

}  // namespace tool
