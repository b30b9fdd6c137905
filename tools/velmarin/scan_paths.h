// The paths that a scan is given, checked before it starts: the library leaves out without a word
// what it cannot use.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Resolves the roots to absolute paths without symbolic links, each once; the digest file is named
// by them, so a root means the same from everywhere. Says on standard error what is wrong with a
// root that is no readable directory and returns false then.
bool resolve_roots(const std::vector<std::string> &given, std::vector<std::string> &roots);

// Whether the absolute path lies below the root; both are without symbolic links.
bool is_below(const std::string &path, const std::string &root);

// Resolves the skip paths; what leaves nothing out stays as it is, with a remark if wanted.
std::vector<std::string> resolve_skips(const std::vector<std::string> &given, bool remark);

// The directory of digest files when none is given: `velmarin` in the user's directory for state.
std::string default_state_directory();

// Makes the directory, with its parents, for its user alone, unless it exists, and resolves its
// path. Says on standard error what went wrong and returns false then.
bool prepare_state_directory(std::string &path);

// Whether the file system of the directory has no room or no inode left.
bool is_full(const std::string &directory);

}  // namespace tool
