// Lists of names in files.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Appends the entries of a file, which end with `separator`, but no empty ones; "-" stands for
// standard input. Says on standard error what went wrong and returns false then.
bool read_list(const std::string &file, char separator, std::vector<std::string> &entries);

// The same for a list of globs: one a line, but no lines that begin with '#'.
bool read_globs(const std::string &file, std::vector<std::string> &globs);

}  // namespace tool
