#include "page_context.h"

#include <unistd.h>

#include <set>

namespace tool {
namespace {

std::string host_name() {
  char name[256] = "";
  return gethostname(name, sizeof name - 1) == 0 ? name : "";
}

// The roots, and one file of each device.
std::vector<std::string> mounted_paths(const Report &report) {
  std::vector<std::string> paths = report.roots;
  std::set<dev_t> devices;
  for (const FoundGroup &group : report.findings.groups) {
    for (const FoundFile &file : group.files) {
      if (devices.insert(file.device).second) {
        paths.push_back(file.path);
      }
    }
  }
  return paths;
}

}  // namespace

PageContext page_context(const Report &report, const std::string &state) {
  return {host_name(), mounts_of(mounted_paths(report)),
          read_history(state).value_or(std::vector<HistoryEntry>())};
}

}  // namespace tool
