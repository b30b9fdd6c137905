// Decides which entries below the roots a scan examines.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "glob.h"

namespace tool {

struct EntryFilterRules {
  std::vector<std::string> excludes;  // globs; matches are left out, with everything below
  std::vector<std::string> includes;  // globs; if there are any, other files are left out
  bool no_hidden = false;             // names that begin with a dot are left out
  uint64_t max_size = UINT64_MAX;     // of files, in bytes
};

class EntryFilter {
 public:
  // The roots are absolute paths. A root below another one is still a root.
  explicit EntryFilter(const EntryFilterRules &rules = {}, std::vector<std::string> roots = {});

  // Whether any entry can be left out.
  bool is_limiting() const;

  // Whether the entry, and everything below it, is left out. Roots never are. Thread-safe; does not
  // allocate.
  bool leaves_out(const struct stat &status, std::string_view path) const;

 private:
  std::string_view below_root(std::string_view path) const;

  std::vector<Glob> excludes_;
  std::vector<Glob> includes_;
  bool no_hidden_;
  uint64_t max_size_;
  std::vector<std::string> roots_;
};

}  // namespace tool
