#include "entry_filter.h"

#include <algorithm>

namespace tool {
namespace {

bool match_any(const std::vector<Glob> &globs, std::string_view path, bool is_directory) {
  return std::any_of(globs.begin(), globs.end(),
                     [=](const Glob &glob) { return glob.matches(path, is_directory); });
}

}  // namespace

EntryFilter::EntryFilter(const EntryFilterRules &rules, std::vector<std::string> roots)
    : excludes_(rules.excludes.begin(), rules.excludes.end()),
      includes_(rules.includes.begin(), rules.includes.end()),
      no_hidden_(rules.no_hidden),
      max_size_(rules.max_size),
      roots_(std::move(roots)) {}

bool EntryFilter::is_limiting() const {
  return no_hidden_ || max_size_ != UINT64_MAX || !excludes_.empty() || !includes_.empty();
}

bool EntryFilter::leaves_out(const struct stat &status, std::string_view path) const {
  if (!is_limiting()) {
    return false;
  }
  const std::string_view below = below_root(path);
  const bool is_directory = S_ISDIR(status.st_mode);
  const bool is_hidden = below.substr(below.rfind('/') + 1).starts_with('.');
  if (below.empty() || (no_hidden_ && is_hidden) || match_any(excludes_, below, is_directory)) {
    return !below.empty();
  }
  return !is_directory && (static_cast<uint64_t>(status.st_size) > max_size_ ||
                           (!includes_.empty() && !match_any(includes_, below, is_directory)));
}

// The part of the path below the innermost root, empty for a root itself.
std::string_view EntryFilter::below_root(std::string_view path) const {
  size_t length = 0;
  for (const std::string &root : roots_) {
    const std::string_view rest = path.starts_with(root) ? path.substr(root.size()) : "no";
    if (rest.empty() || rest.front() == '/' || root == "/") {
      length = std::max(length, root.size());
    }
  }
  path.remove_prefix(std::min(path.find_first_not_of('/', length), path.size()));
  return path;
}

}  // namespace tool
