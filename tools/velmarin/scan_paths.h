// Checks the paths of a scan before it starts: the library silently ignores those that it cannot
// use.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Resolves the roots to absolute paths without symbolic links, each once. They name the digest
// file, so a root means the same from any directory. Returns false, after an error message, if a
// root is not a readable directory.
bool resolve_roots(const std::vector<std::string> &given, std::vector<std::string> &roots);

// The path without the doubled slash that a root of "/" leaves at its start.
std::string reported_path(const char *path);

// Whether the path is below the root. Both are absolute and without symbolic links.
bool is_below(const std::string &path, const std::string &root);

// Resolves the skip paths. Keeps one that skips nothing as it is, with a remark if wanted.
std::vector<std::string> resolve_skips(const std::vector<std::string> &given, bool warn);

// `given` or, if it is empty, the default: `velmarin` in the user's state directory.
std::string state_directory(const std::string &given);

// Creates the directory and its parents, private to the user, unless it exists, and resolves its
// path. Returns false on failure, after an error message.
bool prepare_state_directory(std::string &path);

// Whether the directory's file system has run out of space or inodes.
bool is_full(const std::string &directory);

}  // namespace tool
