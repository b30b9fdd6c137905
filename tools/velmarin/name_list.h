// Reads lists of names from files.
#pragma once

#include <string>
#include <vector>

namespace tool {

// Appends the non-empty entries of a file, which end with `separator`; "-" means standard input.
// Returns false on failure, after an error message.
bool read_list(const std::string &file, char separator, std::vector<std::string> &entries);

// The same for globs, one per line, without lines that begin with '#'.
bool read_globs(const std::string &file, std::vector<std::string> &globs);

}  // namespace tool
