// Reads lists of names from files.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Each of these reads a file, or standard input for "-", and appends what it holds. Returns false
// on failure, after an error message.

// All lines, also empty ones. They may end as Unix or Windows ends them, and a byte order mark
// before the first is no part of it.
bool read_lines(const std::string &file, std::vector<std::string> &lines);

// Names that are not empty: lines, or entries that end with a NUL byte.
bool read_names(const std::string &file, bool end_by_nul, std::vector<std::string> &names);

// Globs: lines that are not empty and do not begin with '#'.
bool read_globs(const std::string &file, std::vector<std::string> &globs);

}  // namespace tool
