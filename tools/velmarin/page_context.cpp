#include "page_context.h"

#include <unistd.h>

#include <map>

namespace tool {
namespace {

std::string host_name() {
  char name[256] = "";
  return gethostname(name, sizeof name) == 0 ? name : "";
}

// The roots, and one file of each device.
std::vector<std::string> mounted_paths(const Report &report) {
  std::vector<std::string> paths = report.roots;
  std::map<dev_t, std::string> files;
  for (const FoundGroup &group : report.findings.groups) {
    for (const FoundFile &file : group.files) {
      files.try_emplace(file.device, file.path);
    }
  }
  for (const auto &[device, path] : files) {
    paths.push_back(path);
  }
  return paths;
}

}  // namespace

PageContext page_context(const Report &report, const std::string &state) {
  return {host_name(), mounts_of(mounted_paths(report)),
          read_history(state).value_or(std::vector<HistoryEntry>())};
}

}  // namespace tool
